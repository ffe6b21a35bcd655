// Compiling column paths into a plan: which messages are read, by which projections, into which
// Arrow types.

#include <algorithm>
#include <map>

#include "columns/column_plan.hpp"
#include "core/field_type_facts.hpp"
#include "ostrel/paths/property_path.hpp"
#include "output/well_known.hpp"
#include "store/map_entry.hpp"

namespace ostrel::detail {
namespace {

using TypeCase = TypeSchemaDescription::Case;

// The paths one node's projection reads, gathered while its columns are compiled.
struct NodeDraft {
  MessageSchema schema;
  std::vector<std::string> paths;

  uint32_t slot(const std::string& path) {
    const auto it = std::find(paths.begin(), paths.end(), path);
    if (it != paths.end()) return static_cast<uint32_t>(it - paths.begin());
    paths.push_back(path);
    return static_cast<uint32_t>(paths.size() - 1);
  }
};

struct Compiled {
  ColumnReader reader;
  ArrowField field;
};

class Compiler {
 public:
  explicit Compiler(const ColumnOptions& options) : options_(options) {}

  // A column for `text` read from the messages of `draft`.
  Compiled path(NodeDraft& draft, std::string_view text, const std::string& name);

  // A node over `schema` whose columns are `compile(draft)`'s.
  template <typename Compile>
  std::unique_ptr<ColumnNode> node(const MessageSchema& schema, const Compile& compile) {
    NodeDraft draft{schema, {}};
    auto created = std::make_unique<ColumnNode>();
    compile(draft, *created);
    created->projection.emplace(schema, std::span<const std::string>(draft.paths), options_.mode);
    return created;
  }

  Compiled value(NodeDraft& draft, const TypeSchemaDescription& type, uint32_t slot,
                 const std::string& name, int depth, bool forceDefault);
  Compiled list(NodeDraft& draft, const FieldSchema& field, uint32_t parentSlot,
                const std::string& name, int depth);

 private:
  Compiled leaf(const TypeSchemaDescription& type, uint32_t slot, const std::string& name,
                bool forceDefault);
  Compiled message(NodeDraft& draft, const TypeSchemaDescription& type, uint32_t slot,
                   const std::string& name, int depth);

  const ColumnOptions& options_;
};

std::shared_ptr<const EnumDictionary> dictionaryOf(const EnumSchemaDescribing& schema) {
  auto dictionary = std::make_shared<EnumDictionary>();
  for (int64_t number : schema.valueSet()) {
    dictionary->numbers.push_back(number);
    dictionary->names.push_back(schema.valueNameFor(number));
  }
  dictionary->index();
  return dictionary;
}

ArrowField field(std::string format, const std::string& name) {
  ArrowField created;
  created.format = std::move(format);
  created.name = name;
  return created;
}

std::string joinPath(const std::vector<PropertyPathElement>& elements, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    if (i > 0) text.push_back('.');
    text += elements[i].propertyName;
    if (elements[i].index) text += "[" + std::to_string(*elements[i].index) + "]";
  }
  return text;
}

Compiled Compiler::leaf(const TypeSchemaDescription& type, uint32_t slot, const std::string& name,
                        bool forceDefault) {
  Compiled out;
  ColumnReader& reader = out.reader;
  reader.kind = ColumnReader::Kind::leaf;
  reader.slot = slot;
  reader.type = type;
  reader.defaultWhenAbsent = forceDefault || options_.defaults;
  const char* format = "i";
  // By the value a read of the type gives: the column holds that value.
  using ValueCase = AnyValueImpl::Case;
  switch (factsOf(type.kind()).valueCase) {
    case ValueCase::int32:
      reader.leaf = LeafKind::int32;
      format = "i";
      break;
    case ValueCase::uint32:
      reader.leaf = LeafKind::uint32;
      format = "I";
      break;
    case ValueCase::int64:
      reader.leaf = LeafKind::int64;
      format = "l";
      break;
    case ValueCase::uint64:
      reader.leaf = LeafKind::uint64;
      format = "L";
      break;
    case ValueCase::float_:
      reader.leaf = LeafKind::float32;
      format = "f";
      break;
    case ValueCase::double_:
      reader.leaf = LeafKind::float64;
      format = "g";
      break;
    case ValueCase::bool_:
      reader.leaf = LeafKind::boolean;
      format = "b";
      break;
    case ValueCase::string:
      reader.leaf = LeafKind::utf8;
      format = options_.largeOffsets ? "U" : "u";
      break;
    case ValueCase::bytes:
      reader.leaf = LeafKind::binary;
      format = options_.largeOffsets ? "Z" : "z";
      break;
    case ValueCase::enum_:
      reader.enumNames = dictionaryOf(*type.enumSchema());
      switch (options_.enums) {
        case ColumnOptions::Enums::dictionary: {
          reader.leaf = LeafKind::enumDictionary;
          out.field = field("i", name);
          out.field.dictionary = std::make_shared<ArrowField>(field("u", ""));
          return out;
        }
        case ColumnOptions::Enums::numbers:
          reader.leaf = LeafKind::enumNumber;
          format = "i";
          break;
        case ColumnOptions::Enums::strings:
          reader.leaf = LeafKind::enumString;
          format = options_.largeOffsets ? "U" : "u";
          break;
      }
      break;
    case ValueCase::message:
      break;
  }
  out.field = field(format, name);
  return out;
}

Compiled Compiler::message(NodeDraft& draft, const TypeSchemaDescription& type, uint32_t slot,
                           const std::string& name, int depth) {
  (void)draft;
  const MessageSchema schema(type.messageSchema());
  Compiled out;
  ColumnReader& reader = out.reader;
  reader.slot = slot;
  reader.type = type;
  reader.messageSchema = type.messageSchema();
  const char* unit = options_.timeUnit == ColumnOptions::TimeUnit::microseconds ? "u" : "n";
  switch (wellKnownKind(*type.messageSchema())) {
    case WellKnown::timestamp:
    case WellKnown::duration: {
      const bool timestamp = wellKnownKind(*type.messageSchema()) == WellKnown::timestamp;
      reader.kind = ColumnReader::Kind::leaf;
      reader.leaf = timestamp ? LeafKind::timestamp : LeafKind::duration;
      reader.child = node(schema, [](NodeDraft& fields, ColumnNode&) {
        fields.slot("seconds");
        fields.slot("nanos");
      });
      out.field =
          field(timestamp ? std::string("ts") + unit + ":UTC" : std::string("tD") + unit, name);
      return out;
    }
    case WellKnown::wrapper: {
      reader.kind = ColumnReader::Kind::unwrap;
      reader.child = node(schema, [&](NodeDraft& fields, ColumnNode& created) {
        Compiled inner = path(fields, "value", name);
        inner.reader.defaultWhenAbsent = true;
        created.columns.push_back(std::move(inner.reader));
        out.field = std::move(inner.field);
      });
      return out;
    }
    case WellKnown::structType:
    case WellKnown::value:
    case WellKnown::listValue:
    case WellKnown::any:
    case WellKnown::fieldMask:
      break;
    case WellKnown::none:
      if (depth >= options_.structDepth) break;
      reader.kind = ColumnReader::Kind::structure;
      out.field = field("+s", name);
      reader.child = node(schema, [&](NodeDraft& fields, ColumnNode& created) {
        for (const auto& [number, fieldSchema] : type.messageSchema()->fieldsByNumber()) {
          const FieldSchema member(fieldSchema);
          Compiled inner = member.isRepeated()
                               ? list(fields, member, kNoSlot, member.name(), depth + 1)
                               : value(fields, member.type().description(),
                                       fields.slot(member.name()), member.name(), depth + 1, false);
          created.columns.push_back(std::move(inner.reader));
          out.field.children.push_back(std::move(inner.field));
        }
      });
      return out;
  }
  reader.kind = ColumnReader::Kind::leaf;
  reader.leaf = LeafKind::json;
  out.field = field(options_.largeOffsets ? "U" : "u", name);
  return out;
}

Compiled Compiler::value(NodeDraft& draft, const TypeSchemaDescription& type, uint32_t slot,
                         const std::string& name, int depth, bool forceDefault) {
  if (type.kind() == TypeCase::message) return message(draft, type, slot, name, depth);
  return leaf(type, slot, name, forceDefault);
}

Compiled Compiler::list(NodeDraft& draft, const FieldSchema& member, uint32_t parentSlot,
                        const std::string& name, int depth) {
  (void)draft;
  Compiled out;
  ColumnReader& reader = out.reader;
  reader.kind = ColumnReader::Kind::list;
  reader.slot = parentSlot;
  reader.fieldNumber = member.fieldNumber();
  const TypeSchemaDescription elementType = member.type().description();
  reader.type = elementType;
  auto element = std::make_unique<Compiled>();
  if (elementType.kind() == TypeCase::message) {
    reader.elementIsMessage = true;
    const MessageSchema entrySchema(elementType.messageSchema());
    if (const auto entry = mapEntryFields(*elementType.messageSchema())) {
      reader.isMap = true;
      element->reader.kind = ColumnReader::Kind::structure;
      element->reader.type = elementType;
      element->field = field("+s", "entries");
      element->field.flags = 0;
      element->reader.child = node(entrySchema, [&](NodeDraft& fields, ColumnNode& created) {
        Compiled key = value(fields, entry->key->type(), fields.slot("key"), "key", depth, true);
        key.field.flags = 0;
        Compiled mapped =
            value(fields, entry->value->type(), fields.slot("value"), "value", depth + 1, true);
        created.columns.push_back(std::move(key.reader));
        created.columns.push_back(std::move(mapped.reader));
        element->field.children.push_back(std::move(key.field));
        element->field.children.push_back(std::move(mapped.field));
      });
    } else {
      *element = value(draft, elementType, kNoSlot, "item", depth, false);
    }
  } else {
    *element = value(draft, elementType, kNoSlot, "item", depth, false);
  }
  out.field = field(reader.isMap ? "+m" : (options_.largeOffsets ? "+L" : "+l"), name);
  out.field.children.push_back(std::move(element->field));
  reader.child = nullptr;
  reader.element = std::make_unique<ColumnReader>(std::move(element->reader));
  return out;
}

Compiled Compiler::path(NodeDraft& draft, std::string_view text, const std::string& name) {
  const size_t star = text.find("[*]");
  if (star != std::string_view::npos) {
    const std::string_view rest = text.substr(star + 3);
    if (rest.find("[*]") != std::string_view::npos) {
      throw ColumnError::unsupportedPath(std::string(text), "one [*] per path");
    }
    if (!rest.empty() && rest.front() != '.') {
      throw ColumnError::unsupportedPath(std::string(text), "[*] must end the path or precede '.'");
    }
    const std::string container(text.substr(0, star));
    const std::vector<PropertyPathElement> elements = PropertyPathUtil::parse(container);
    if (elements.back().index) {
      throw ColumnError::unsupportedPath(std::string(text), "[*] after an index");
    }
    const std::string parentText = joinPath(elements, elements.size() - 1);
    MessageSchema parent = draft.schema;
    uint32_t parentSlot = kNoSlot;
    if (!parentText.empty()) {
      const FieldPathAndType resolved = resolvePropertyPath(draft.schema, parentText);
      if (resolved.type.kind() != TypeCase::message) {
        throw SchematizerError::nonMessageTypeInKeypath();
      }
      parent = MessageSchema(resolved.type.messageSchema());
      parentSlot = draft.slot(parentText);
    }
    const FieldSchema member = parent.fieldNamed(elements.back().propertyName);
    if (!member.isRepeated()) {
      throw ColumnError::unsupportedPath(std::string(text),
                                         "[*] after a field that is not repeated");
    }
    if (rest.empty()) return list(draft, member, parentSlot, name, 0);
    if (member.type().kind() != TypeCase::message) {
      throw ColumnError::unsupportedPath(std::string(text),
                                         "[*] followed by a path needs a repeated message field");
    }
    Compiled out = list(draft, member, parentSlot, name, 0);
    // The element is the rest of the path read from each element message.
    ColumnReader element;
    element.kind = ColumnReader::Kind::unwrap;
    element.type = member.type().description();
    ArrowField elementField;
    element.child =
        node(member.type().messageSchema().value(), [&](NodeDraft& fields, ColumnNode& created) {
          Compiled inner = path(fields, rest.substr(1), "item");
          created.columns.push_back(std::move(inner.reader));
          elementField = std::move(inner.field);
        });
    out.reader.element = std::make_unique<ColumnReader>(std::move(element));
    out.field.children.front() = std::move(elementField);
    return out;
  }

  const std::vector<PropertyPathElement> elements = PropertyPathUtil::parse(text);
  if (!elements.back().index) {
    // A repeated field without an index is a list; anything else resolves as a single read.
    const std::string parentText = joinPath(elements, elements.size() - 1);
    std::optional<MessageSchema> parent;
    if (parentText.empty()) {
      parent = draft.schema;
    } else {
      try {
        const FieldPathAndType resolved = resolvePropertyPath(draft.schema, parentText);
        if (resolved.type.kind() == TypeCase::message) {
          parent = MessageSchema(resolved.type.messageSchema());
        }
      } catch (const Error&) {
        // The whole path's resolution below names the fault.
      }
    }
    if (parent) {
      if (const auto member = parent->findFieldNamed(elements.back().propertyName);
          member && member->isRepeated()) {
        return list(draft, *member, parentText.empty() ? kNoSlot : draft.slot(parentText), name, 0);
      }
    }
  }
  const FieldPathAndType resolved = resolvePropertyPath(draft.schema, text);
  return value(draft, resolved.type, draft.slot(std::string(text)), name, 0, false);
}

}  // namespace

ColumnPlan::ColumnPlan(const MessageSchema& messageSchema, std::vector<std::string> paths,
                       ColumnOptions columnOptions)
    : options(std::move(columnOptions)), texts(std::move(paths)) {
  if (options.batchRows < 1) options.batchRows = 1;
  if (options.structDepth < 0) options.structDepth = 0;
  Compiler compiler(options);
  schema = ArrowField{"+s", "", 0, {}, nullptr};
  schema.children.resize(texts.size());
  // With `explode`, the paths below the exploded one are read from its elements.
  const std::string below = options.explode.empty() ? std::string() : options.explode + ".";
  const auto fromElement = [&](const std::string& text) {
    return !below.empty() && text.starts_with(below);
  };
  std::unique_ptr<ColumnNode> compiled =
      compiler.node(messageSchema, [&](NodeDraft& draft, ColumnNode& created) {
        for (size_t i = 0; i < texts.size(); ++i) {
          if (fromElement(texts[i])) {
            sources.push_back({ColumnSource::Kind::element, 0});
            continue;
          }
          Compiled column = compiler.path(draft, texts[i], texts[i]);
          sources.push_back({ColumnSource::Kind::record, created.columns.size()});
          created.columns.push_back(std::move(column.reader));
          schema.children[i] = std::move(column.field);
        }
      });
  root = std::move(*compiled);
  if (options.explode.empty()) return;

  const auto it = std::find(texts.begin(), texts.end(), options.explode);
  const size_t at = static_cast<size_t>(it - texts.begin());
  if (it == texts.end() || root.columns[sources[at].index].kind != ColumnReader::Kind::list) {
    throw ColumnError::unsupportedPath(options.explode,
                                       "explode names one of the paths, a repeated field");
  }
  sources[at].kind = ColumnSource::Kind::exploded;
  exploded = sources[at].index;
  // The exploded column holds the element itself.
  ArrowField element = std::move(schema.children[at].children.front());
  element.name = texts[at];
  schema.children[at] = std::move(element);
  const ColumnReader& list = root.columns[*exploded];
  const bool anyBelow = std::any_of(texts.begin(), texts.end(), fromElement);
  if (!anyBelow) return;
  if (!list.elementIsMessage || list.isMap) {
    throw ColumnError::unsupportedPath(options.explode,
                                       "paths below an exploded field need a repeated message");
  }
  elementNode = compiler.node(
      MessageSchema(list.type->messageSchema()), [&](NodeDraft& draft, ColumnNode& created) {
        for (size_t i = 0; i < texts.size(); ++i) {
          if (!fromElement(texts[i])) continue;
          Compiled column =
              compiler.path(draft, std::string_view(texts[i]).substr(below.size()), texts[i]);
          sources[i].index = created.columns.size();
          created.columns.push_back(std::move(column.reader));
          schema.children[i] = std::move(column.field);
        }
      });
}

}  // namespace ostrel::detail
