#include "ostrel/output/json.hpp"
#include "tool.hpp"

namespace ostrel::tool {

std::string valueJSON(const AnyValue& value) {
  JsonOptions options;
  options.strict = true;
  return renderJSON(value, options);
}

}  // namespace ostrel::tool
