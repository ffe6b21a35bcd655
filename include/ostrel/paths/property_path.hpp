#pragma once

// Property paths: field names separated by dots, with an index in square brackets after the name
// of a repeated field, for example a.b[2].c.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/wire/schematizer.hpp"

namespace ostrel {

struct PropertyPathElement {
  // The field name as written.
  std::string propertyName;
  // Present when the element was written with brackets.
  std::optional<int64_t> index;

  friend bool operator==(const PropertyPathElement&, const PropertyPathElement&) = default;
};

class PropertyPathUtil {
 public:
  // A syntax error in a property path. `in` is the whole path, `at` a byte offset into it. what()
  // is the description shown to users: the message, then an arrow line pointing at the offending
  // character above the path itself.
  class Error final : public ostrel::Error {
   public:
    enum class Code : uint8_t {
      missingPropertyName,
      propertyNameStartsWithIllegalCharacter,
      missingIndex,
      negativeIndex,
      missingClosingBracket,
      missingSeparator,
      zeroLengthPropertyPath,
    };

    static Error missingPropertyName(std::string in, size_t at);
    static Error propertyNameStartsWithIllegalCharacter(std::string propertyName, std::string in,
                                                        size_t at);
    static Error missingIndex(std::string in, size_t at);
    static Error negativeIndex(int64_t index, std::string in, size_t at);
    static Error missingClosingBracket(std::string in, size_t at);
    static Error missingSeparator(std::string in, size_t at);
    static Error zeroLengthPropertyPath();

    Code code() const noexcept { return code_; }
    const std::string& in() const noexcept { return in_; }
    size_t at() const noexcept { return at_; }
    const std::string& propertyName() const noexcept { return propertyName_; }
    int64_t index() const noexcept { return index_; }

    friend bool operator==(const Error& a, const Error& b) {
      return a.code_ == b.code_ && a.in_ == b.in_ && a.at_ == b.at_ &&
             a.propertyName_ == b.propertyName_ && a.index_ == b.index_;
    }

   private:
    Error(Code code, std::string in, size_t at, std::string propertyName, int64_t index);

    Code code_;
    std::string in_;
    size_t at_;
    std::string propertyName_;
    int64_t index_;
  };

  // Parses a property path strictly: nothing is skipped, names are ASCII letters, digits and "_"
  // not starting with a digit, an index is a decimal integer. Throws Error at the first fault.
  static std::vector<PropertyPathElement> parse(std::string_view path);
};

// Resolution of property paths such as a.b[2].c against a message schema, into the field path and
// declared type that the wire navigation reads.

// Resolves a property path against a message schema into the field path and declared type that
// reads follow (SchematizedData::value(const FieldPathAndType&)): resolve once, read many records.
// A component written name[index] must name a repeated field, one without an index a field that
// is not repeated; every component but the last must name a message field.
//
// Throws PropertyPathUtil::Error for a path that breaks the grammar above (checked before any
// lookup), SchematizerError nonMessageTypeInKeypath, scalarValueAccessWithIndex or
// repeatedValueAccessNoIndex, and the schema's own lookup and type resolution errors
// (fieldNotFound, ...). Nothing is returned on failure.
FieldPathAndType resolvePropertyPath(const MessageSchema& schema, std::string_view path);
FieldPathAndType resolvePropertyPath(const MessageSchemaDescribing& schema, std::string_view path);

}  // namespace ostrel
