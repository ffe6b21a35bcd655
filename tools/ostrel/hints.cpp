// What the tool adds to the library's errors: the library's text stays first and unchanged, and a
// hint in parentheses says what the user probably meant or how to write it.

#include <algorithm>
#include <cctype>

#include "ostrel/core/errors.hpp"
#include "ostrel/paths/property_path.hpp"
#include "tool.hpp"

namespace ostrel::tool {
namespace {

std::string lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string_view lastComponent(std::string_view name) {
  const size_t dot = name.rfind('.');
  return dot == std::string_view::npos ? name : name.substr(dot + 1);
}

// Edit distance, case ignored, between two short names.
size_t distance(std::string_view a, std::string_view b) {
  const std::string x = lowered(a);
  const std::string y = lowered(b);
  std::vector<size_t> row(y.size() + 1);
  for (size_t j = 0; j <= y.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= x.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= y.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (x[i - 1] == y[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[y.size()];
}

// Whether `candidate` is a name someone who typed `name` may have meant: the same name in another
// case, the same last component (a name written without its package), or a typo of either.
bool isClose(std::string_view name, std::string_view candidate) {
  const size_t allowed = name.size() < 4 ? 1 : 2;
  return distance(name, candidate) <= allowed ||
         distance(lastComponent(name), lastComponent(candidate)) <= allowed;
}

std::string withHint(std::string text, const std::vector<std::string>& names) {
  if (names.empty()) return text;
  text += names.size() == 1 ? " (did you mean " : " (close names: ";
  for (size_t i = 0; i < names.size(); ++i) text += (i == 0 ? "" : ", ") + names[i];
  return text + (names.size() == 1 ? "?)" : "; \"ostrel list\" lists them all)");
}

template <typename Map>
std::vector<std::string> closeNames(const Map& defined, std::string_view name) {
  std::vector<std::string> out;
  for (const auto& [candidate, unused] : defined) {
    if (out.size() < 5 && isClose(name, candidate)) out.push_back(candidate);
  }
  return out;
}

}  // namespace

MessageSchema LoadedSchemas::messageSchema(const std::string& name) const {
  try {
    return store.messageSchema(name);
  } catch (const SchematizerError& error) {
    if (error.code() != SchematizerError::Code::schemaNotFound) throw;
    throw ToolError(withHint(error.what(), closeNames(defined.messages, name)));
  }
}

EnumSchema LoadedSchemas::enumSchema(const std::string& name) const {
  try {
    return store.enumSchema(name);
  } catch (const SchematizerError& error) {
    if (error.code() != SchematizerError::Code::enumNotFound) throw;
    throw ToolError(withHint(error.what(), closeNames(defined.enums, name)));
  }
}

void resolvePaths(const MessageSchema& schema, const std::vector<std::string>& paths, bool inSql) {
  for (const std::string& path : paths) {
    const std::vector<PropertyPathElement> elements = PropertyPathUtil::parse(path);
    try {
      resolvePropertyPath(schema, path);
    } catch (const SchematizerError& error) {
      std::string text = path + ": " + error.what();
      if (error.code() != SchematizerError::Code::repeatedValueAccessNoIndex) {
        throw ToolError(text);
      }
      // The first element written without an index whose prefix still fails this way is the
      // repeated field.
      std::string prefix;
      for (size_t i = 0; i < elements.size(); ++i) {
        prefix += (i == 0 ? "" : ".") + elements[i].propertyName;
        if (elements[i].index) {
          prefix += "[" + std::to_string(*elements[i].index) + "]";
          continue;
        }
        try {
          resolvePropertyPath(schema, prefix);
        } catch (const SchematizerError& inner) {
          if (inner.code() != SchematizerError::Code::repeatedValueAccessNoIndex) break;
          std::string indexed = path;
          indexed.insert(prefix.size(), "[0]");
          text += " (" + prefix + " is repeated: name one element by its index, as in " + indexed;
          text += inSql ? ", or all of them with P_EACH)"
                        : ", or list them all with: ostrel iterate -m " + schema.name() + " " +
                              prefix + ")";
          break;
        }
      }
      throw ToolError(text);
    }
  }
}

}  // namespace ostrel::tool
