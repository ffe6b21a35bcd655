#pragma once

// Parsing JSON text into an nlohmann document in time linear in the text, refusing an object with
// two members of one name and nesting beyond a limit.
//
// nlohmann's own parsers do not fit: the plain one keeps the last of two members silently, the
// one with a callback (which could watch the keys) scans the whole parent object for discarded
// members each time a child object ends, quadratic in the members of one object, and
// ordered_json looks every new member up in a vector, quadratic again. This builder is a SAX
// handler: members are appended without a lookup, and repeats are found with a hash set.

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ostrel/core/interrupts.hpp"

namespace ostrel::detail {

// One open container of the document being parsed.
struct JsonFrame {
  bool isObject = false;
  std::string key;      // in an object: the member being read
  size_t position = 0;  // in an array: the element being read
};

// Why a parse of well-formed JSON text stopped, and where: the open containers from the document
// down. For a repeated member the last frame's key is the repeated name.
struct JsonRefusal {
  enum class Kind { repeatedMember, tooDeep };
  Kind kind;
  std::vector<JsonFrame> frames;
};

template <typename Json>
class JsonDocumentBuilder {
 public:
  using number_integer_t = typename Json::number_integer_t;
  using number_unsigned_t = typename Json::number_unsigned_t;
  using number_float_t = typename Json::number_float_t;
  using string_t = typename Json::string_t;
  using binary_t = typename Json::binary_t;

  JsonDocumentBuilder(Json& root, size_t maxDepth) : root_(root), maxDepth_(maxDepth) {}

  bool null() { return add(Json(nullptr)); }
  bool boolean(bool value) { return add(Json(value)); }
  bool number_integer(number_integer_t value) { return add(Json(value)); }
  bool number_unsigned(number_unsigned_t value) { return add(Json(value)); }
  bool number_float(number_float_t value, const string_t& /*text*/) { return add(Json(value)); }
  bool string(string_t& value) { return add(Json(std::move(value))); }
  bool binary(binary_t& value) { return add(Json::binary(std::move(value))); }

  bool start_object(size_t /*size*/) { return open(Json::object(), true); }
  bool start_array(size_t /*size*/) { return open(Json::array(), false); }

  bool key(string_t& name) {
    auto& object = containers_.back()->template get_ref<typename Json::object_t&>();
    frames_.back().key = name;
    if constexpr (kOrdered) {
      // Appended to the vector under the ordered map, past its lookup; repeats are found when
      // the object ends.
      auto& members = static_cast<typename Json::object_t::Container&>(object);
      members.emplace_back(std::move(name), Json());
      member_ = &members.back().second;
    } else {
      const auto [it, inserted] = object.emplace(std::move(name), Json());
      if (!inserted) return refuse(JsonRefusal::Kind::repeatedMember);
      member_ = &it->second;
    }
    return true;
  }

  bool end_object() {
    if constexpr (kOrdered) {
      // The members no longer move: views of their names stay valid while the set lives.
      const auto& object = containers_.back()->template get_ref<const typename Json::object_t&>();
      std::unordered_set<std::string_view> names;
      names.reserve(object.size());
      for (const auto& [name, value] : object) {
        if (!names.insert(name).second) {
          frames_.back().key = name;
          return refuse(JsonRefusal::Kind::repeatedMember);
        }
      }
    }
    return close();
  }
  bool end_array() { return close(); }

  template <typename Exception>
  bool parse_error(size_t /*position*/, const std::string& /*token*/, const Exception& error) {
    throw error;
  }

  std::optional<JsonRefusal>& refusal() { return refusal_; }

 private:
  static constexpr bool kOrdered = requires { typename Json::object_t::Container; };

  // Puts `value` where the parse stands and returns where it went.
  Json* place(Json&& value) {
    if (containers_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    Json& container = *containers_.back();
    if (container.is_array()) {
      auto& elements = container.template get_ref<typename Json::array_t&>();
      elements.push_back(std::move(value));
      return &elements.back();
    }
    *member_ = std::move(value);
    return member_;
  }

  bool add(Json&& value) {
    place(std::move(value));
    if (!frames_.empty() && !frames_.back().isObject) ++frames_.back().position;
    return true;
  }

  bool open(Json&& container, bool isObject) {
    // A long document is stopped between containers.
    detail::pollInterrupt();
    if (frames_.size() >= maxDepth_) return refuse(JsonRefusal::Kind::tooDeep);
    containers_.push_back(place(std::move(container)));
    frames_.push_back(JsonFrame{isObject, {}, 0});
    return true;
  }

  bool close() {
    containers_.pop_back();
    frames_.pop_back();
    if (!frames_.empty() && !frames_.back().isObject) ++frames_.back().position;
    return true;
  }

  bool refuse(typename JsonRefusal::Kind kind) {
    refusal_ = JsonRefusal{kind, std::move(frames_)};
    return false;
  }

  Json& root_;
  size_t maxDepth_;
  // The open containers, outermost first. Only the innermost grows, so none of them moves.
  std::vector<Json*> containers_;
  std::vector<JsonFrame> frames_;
  Json* member_ = nullptr;  // the value of the member whose key was read last
  std::optional<JsonRefusal> refusal_;
};

// Parses `text` into `document`. Returns the refusal for a repeated member or for containers
// nested deeper than `maxDepth`; throws the JSON library's exception for malformed text.
template <typename Json>
std::optional<JsonRefusal> parseJsonDocument(std::string_view text, size_t maxDepth,
                                             Json& document) {
  JsonDocumentBuilder<Json> builder(document, maxDepth);
  if (Json::sax_parse(text.begin(), text.end(), &builder)) return std::nullopt;
  return std::move(builder.refusal());
}

}  // namespace ostrel::detail
