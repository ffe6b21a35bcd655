#include "ostrel/output/json.hpp"
#include "tool.hpp"

namespace ostrel::tool {

std::string valueJSON(const AnyValue& value) { return toJSON(value, JsonStyle::compact); }

}  // namespace ostrel::tool
