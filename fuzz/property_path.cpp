// Arbitrary text as a property path: parsed strictly, resolved against ostrel.test.Rich, and, when
// it resolves, read out of a message that has every field of Rich set.
//
// Invariants: an error of the strict parser points inside the path it reports; a parsed path has
// names and no negative index; a path read as text reads what its resolved form reads.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"

namespace {

using namespace ostrel;
using ostrel::fuzz::finding;
using ostrel::fuzz::tolerate;

// Every field of Rich at least once, repeated fields with several elements, both maps.
constexpr std::string_view kFullRich = R"({
  "mid": {"leaf": {"id": 1, "label": "a", "codes": [1, 2, 3]},
          "leaves": [{"id": 2}, {"label": "b", "codes": [4]}], "note": "n"},
  "scalars": {"f_double": 1.5, "f_float": -2.5, "f_int64": "-3", "f_uint64": "4", "f_int32": -5,
              "f_fixed64": "6", "f_fixed32": 7, "f_bool": true, "f_string": "s", "f_bytes": "AAE=",
              "f_uint32": 8, "f_enum": "BLUE", "f_sfixed32": -9, "f_sfixed64": "-10",
              "f_sint32": -11, "f_sint64": "-12", "f_message": {"id": 13}},
  "repeats": {"r_double": [1, 2], "r_float": [3], "r_int64": ["4", "5"], "r_uint64": ["6"],
              "r_int32": [7, -8], "r_fixed64": ["9"], "r_fixed32": [10], "r_bool": [true, false],
              "r_string": ["x", ""], "r_bytes": ["", "AA=="], "r_uint32": [11], "r_enum": ["RED", 7],
              "r_sfixed32": [-12], "r_sfixed64": ["-13"], "r_sint32": [-14], "r_sint64": ["-15"],
              "r_message": [{"id": 16}, {}]},
  "mids": [{"note": "m0"}, {"leaf": {"id": 17}}],
  "chosen": {"label": "c"},
  "counts": {"k": 1, "": 2},
  "leaves_by_id": {"3": {"id": 3}, "-1": {}},
  "maybe": 0,
  "color": "GREEN",
  "tail": {"leaves": [{"codes": [18, 19]}]}
})";

const SchematizedData& fullRich() {
  static const SchematizedData data = parseJSON(fuzz::richSchema(), kFullRich);
  return data;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const MessageSchema rich = fuzz::richSchema();
  const SchematizedData& message = fullRich();

  try {
    for (const PropertyPathElement& element : PropertyPathUtil::parse(text)) {
      if (element.propertyName.empty()) finding("a parsed path element has no name");
      if (element.index && *element.index < 0) finding("a parsed path has a negative index");
    }
  } catch (const PropertyPathUtil::Error& e) {
    (void)e.what();
    if (e.code() != PropertyPathUtil::Error::Code::zeroLengthPropertyPath &&
        (e.in() != text || e.at() > text.size())) {
      finding("a syntax error does not point into its path");
    }
  }

  std::optional<FieldPathAndType> resolved;
  tolerate([&] { resolved = resolvePropertyPath(rich, text); });

  std::optional<std::string> byText;
  tolerate([&] {
    const std::optional<AnyValue> value = message.value(text);
    byText = value ? value->describe() : "absent";
  });
  if (!resolved) return 0;
  if (resolved->fieldPath.empty()) finding("a resolved path has no component");
  std::optional<std::string> byPath;
  tolerate([&] {
    const std::optional<AnyValue> value = message.value(*resolved);
    byPath = value ? value->describe() : "absent";
  });
  if (byPath != byText) finding("a path read as text differs from its resolved form");
  tolerate([&] { (void)message.unsafe().value(text); });
  return 0;
}
