// Arbitrary text encoded as an ostrel.test.Rich message by parseJSON, then rendered.
//
// Invariants: what encodes renders as JSON without errors in it (the encoder writes only values
// the rendering can read), and that rendering encodes to a message that renders the same.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace ostrel;
  using fuzz::finding;
  static const MessageSchema rich = fuzz::richSchema();
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  std::optional<SchematizedData> encoded;
  if (!fuzz::tolerate([&] { encoded.emplace(parseJSON(rich, text)); })) return 0;

  const std::string rendered = renderJSON(*encoded);
  (void)renderJSON(*encoded, {.style = JsonStyle::indented});
  if (!nlohmann::json::accept(rendered)) finding("the rendering is not JSON");
  if (rendered.find("Sch: Error encoding") != std::string::npos &&
      text.find("Sch: Error encoding") == std::string_view::npos) {
    finding("an encoded message does not render:\n" + rendered);
  }
  std::string again;
  try {
    again = renderJSON(parseJSON(rich, rendered));
  } catch (const Error& e) {
    finding(std::string("a rendering does not encode back: ") + e.what() + "\n" + rendered);
  }
  if (again != rendered) {
    finding("a rendering encoded and rendered again differs:\n" + rendered + "\n" + again);
  }
  return 0;
}
