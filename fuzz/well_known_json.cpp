// ProtoJSON of the well-known types both ways, on ostrel.test.wkt.Holder (every well-known type,
// single, repeated, in maps, oneofs and Any). The first byte picks the direction: even, the rest
// is an encoded Holder to render; odd, the rest is JSON text to encode.
//
// Invariants: a rendering is JSON; one without errors in it encodes back, and after that first
// round renders and encodes to itself; text that encodes renders without errors, and that
// rendering encodes and renders the same again.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"

namespace {

using namespace ostrel;
using fuzz::finding;

constexpr std::string_view kFault = "Sch: Error encoding";

MessageSchema holder() {
  static const SchemaStore store(
      schemaManifestFromDescriptorSet(asBytes(fuzz::readFile(OSTREL_FUZZ_WELL_KNOWN_DESC))));
  return store.messageSchema("ostrel.test.wkt.Holder");
}

std::string encodeAndRender(const MessageSchema& schema, const std::string& rendered) {
  try {
    return renderJSON(parseJSON(schema, rendered));
  } catch (const Error& e) {
    finding(std::string("a rendering does not encode back: ") + e.what() + "\n" + rendered);
  }
}

// `rendered`, made without faults, must encode back, and from there on the round trip must be
// stable. The first round may change the text: bytes that are not the canonical encoding (an Any
// holding a Duration whose zero seconds are written out) render differently from what encoding
// their rendering gives, as they do in libprotobuf.
void expectRoundTrip(const MessageSchema& schema, const std::string& rendered) {
  const std::string again = encodeAndRender(schema, rendered);
  if (again == rendered) return;
  if (again.find(kFault) != std::string::npos) finding("a round trip makes a fault:\n" + again);
  const std::string third = encodeAndRender(schema, again);
  if (third != again) finding("a second round trip differs:\n" + again + "\n" + third);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const MessageSchema schema = holder();
  if (size == 0) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);

  if (data[0] % 2 == 0) {
    const SchematizedData message = schema.schematizedData(rest);
    std::string rendered;
    if (!fuzz::tolerate([&] { rendered = renderJSON(message); })) return 0;
    if (!nlohmann::json::accept(rendered)) finding("the rendering is not JSON:\n" + rendered);
    if (rendered.find(kFault) == std::string::npos) expectRoundTrip(schema, rendered);
    return 0;
  }

  std::optional<SchematizedData> encoded;
  if (!fuzz::tolerate([&] { encoded.emplace(parseJSON(schema, rest)); })) return 0;
  const std::string rendered = renderJSON(*encoded);
  if (!nlohmann::json::accept(rendered)) finding("the rendering is not JSON:\n" + rendered);
  if (rendered.find(kFault) != std::string::npos && rest.find(kFault) == std::string_view::npos) {
    finding("an encoded message does not render:\n" + rendered);
  }
  if (rendered.find(kFault) == std::string::npos) expectRoundTrip(schema, rendered);
  return 0;
}
