#pragma once

// The library's one JSON reader: text read on demand with simdjson, for readers that act as they
// read (the JSON encoder, the manifest's JSON form): no tree of the text is built, and each value
// is visited once, front to back.
//
// Reading on demand finds the faults of the text itself (malformed text, a member given twice,
// nesting too deep) only where the reader passes, possibly after it found a fault in what the text
// says. Callers report the text's own faults first, as a parser that reads all of the text before
// anything else would: JsonInput::firstFault walks the whole text and gives the first such fault
// in text order, the one check of repeated members and depth every reader shares.

#include <simdjson.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ostrel::detail {

namespace ondemand = simdjson::ondemand;

// Thrown where the reader finds the text malformed (`code` says how) or a member given twice
// (`code` is SUCCESS). JsonInput::check turns it into the error a caller sees.
struct JsonTextFault {
  simdjson::error_code code = simdjson::SUCCESS;
};

// The value of `result`, or JsonTextFault.
template <typename T>
T take(simdjson::simdjson_result<T>&& result) {
  T value;
  if (const simdjson::error_code error = std::move(result).get(value)) throw JsonTextFault{error};
  return value;
}

// A JSON number as its text reads: an integer of 64 bits when written as one, else a double
// (numbers with a fraction or exponent, and integers beyond 64 bits). "-0" is an integer.
struct JsonNumber {
  enum class Kind : uint8_t { negativeInteger, integer, real };
  Kind kind = Kind::integer;
  int64_t negative = 0;
  uint64_t nonNegative = 0;
  double real = 0;

  double asDouble() const noexcept {
    switch (kind) {
      case Kind::negativeInteger:
        return static_cast<double>(negative);
      case Kind::integer:
        return static_cast<double>(nonNegative);
      case Kind::real:
        break;
    }
    return real;
  }
};

// The number `value` holds (whose type is a number). Read from its text rather than by simdjson:
// simdjson 3.0's readers return wrong values for numbers of more than 19 significant digits.
// Throws JsonTextFault for text that is not a JSON number and for a number beyond the range of
// double; one too small for a double is zero.
JsonNumber readNumber(ondemand::value& value);

// The name of the member `field` introduces, its escapes decoded: a view of the text itself when
// it has none (the common case: no copy), else a view of `scratch`. Throws JsonTextFault for an
// escape JSON does not allow (a lone surrogate among them).
std::string_view memberName(ondemand::field& field, std::string& scratch);

// Reads `value` and all it holds in full, as JsonInput::firstFault reads a text, for a value a
// reader passes over: `depth` more levels of containers may open in it. Throws JsonTextFault when
// it holds a fault of the text (JsonInput::check then names the first one). Without recursion.
void checkValue(ondemand::value value, size_t depth);

// One open container of a text, where a fault was found.
struct JsonFrame {
  bool isObject = false;
  std::string key;      // in an object: the member being read
  size_t position = 0;  // in an array: the element being read
};

// The first fault of a text itself, and where it stands: the open containers from the document
// down. For a repeated member the last frame's key is the repeated name; for malformed text
// `code` says how, and there are no frames.
struct JsonRefusal {
  enum class Kind : uint8_t { malformed, repeatedMember, tooDeep };
  Kind kind = Kind::malformed;
  simdjson::error_code code = simdjson::SUCCESS;
  std::vector<JsonFrame> frames;
};

// One JSON text, copied once into a padded buffer (simdjson reads a little past the end), and its
// one value.
class JsonInput {
 public:
  // Containers nest at most `maxDepth` deep (the outermost object or array is at depth 1).
  JsonInput(std::string_view text, size_t maxDepth);
  ~JsonInput();
  JsonInput(const JsonInput&) = delete;
  JsonInput& operator=(const JsonInput&) = delete;

  // The value the text holds; call once (firstFault before it does not count). Throws
  // JsonTextFault.
  ondemand::value root();
  // After the value was read in full: throws JsonTextFault when the text goes on past it.
  void finish();

  // Walks all of the text and gives the first of its own faults in text order: malformed text, a
  // member given twice in one object (found when the object ends, after the faults inside it), or
  // containers nested deeper than maxDepth. None when the text has none of them.
  std::optional<JsonRefusal> firstFault();

  // Walks all of the text again and throws the first of its own faults in text order as
  // SchematizerError::unexpectedType: "invalid JSON: " and simdjson's message for malformed
  // text; "<path>: duplicate key \"name\"" for a member given twice in one object;
  // "<path>: nesting deeper than <maxDepth> levels" for containers nested deeper than maxDepth.
  // Returns when the text has none of them.
  void check();

 private:
  struct Parser;

  ondemand::value start();

  // The parser: a thread's cached one, or one of its own while that is in use or the text is
  // large.
  Parser* parser_ = nullptr;
  std::unique_ptr<Parser> own_;
  size_t size_ = 0;
  size_t maxDepth_;
  ondemand::document document_;
  ondemand::array array_;
  ondemand::array_iterator element_;
};

}  // namespace ostrel::detail
