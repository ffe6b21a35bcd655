#include "ostrel/output/text_format.hpp"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "interchange/descriptor_import.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/manifest/manifest_data.hpp"

namespace ostrel {
namespace {

namespace pb = google::protobuf;

// A pool rebuilt from one store's schemas, with the factory of its messages.
struct TextPool {
  pb::DescriptorPool pool;
  pb::DynamicMessageFactory factory{&pool};
};

// The message that `name` nests in: the longest proper prefix of it that is a message.
std::optional<std::string> enclosingMessage(const SchemaManifest& manifest, std::string_view name) {
  for (size_t dot = name.rfind('.'); dot != std::string_view::npos && dot > 0;
       dot = name.rfind('.', dot - 1)) {
    if (manifest.messages.contains(name.substr(0, dot))) return std::string(name.substr(0, dot));
  }
  return std::nullopt;
}

std::string lastComponent(std::string_view name) {
  const size_t dot = name.rfind('.');
  return std::string(dot == std::string_view::npos ? name : name.substr(dot + 1));
}

template <typename Options>
void parseOptions(const RawOptions& raw, Options& options) {
  if (raw) options.ParseFromArray(raw->data(), static_cast<int>(raw->size()));
}

// Turns a manifest into files libprotobuf's DescriptorPool builds: types nested in the messages
// whose names prefix theirs, extensions declared in their scope with an extension range in their
// extendee, and per package one file of each syntax its top-level types need.
class PoolFiles {
 public:
  explicit PoolFiles(const SchemaManifest& manifest) : manifest_(manifest) {
    for (const auto& [name, message] : manifest.messages) place(name);
    for (const auto& [name, enumManifest] : manifest.enums) place(name);
    chooseSyntax();
    for (const auto& [name, message] : manifest.messages) addMessage(name, message);
    for (const auto& [name, enumManifest] : manifest.enums) addEnum(name, enumManifest);
  }

  // Builds the files into `pool`, each after the files it refers to.
  void build(pb::DescriptorPool& pool) {
    std::set<std::string> built;
    std::set<std::string> visiting;
    for (const auto& [name, file] : files_) buildFile(pool, name, built, visiting);
  }

 private:
  struct File {
    pb::FileDescriptorProto proto;
    std::set<std::string> dependencies;  // file names
  };

  // Where a type is declared: its package, the message it nests in (if any) and its outermost
  // enclosing message (itself at the top level).
  struct Place {
    std::string package;
    std::optional<std::string> parent;
    std::string top;
  };

  const Place& place(const std::string& name) {
    if (auto it = places_.find(name); it != places_.end()) return it->second;
    Place result;
    result.parent = enclosingMessage(manifest_, name);
    if (result.parent) {
      const Place& parent = place(*result.parent);
      result.package = parent.package;
      result.top = parent.top;
    } else {
      const size_t dot = name.rfind('.');
      result.package = dot == std::string::npos ? "" : name.substr(0, dot);
      result.top = name;
    }
    return places_.emplace(name, std::move(result)).first->second;
  }

  // The top-level types that need proto2: those with fields of explicit presence, delimited
  // fields, extensions or extension ranges, or an enum without a zero value, and then, until no
  // more change, those whose fields use an enum of a proto2 type (a proto3 message may not) or a
  // message of a proto2 type of their package (so that the two files of a package never refer
  // to each other).
  void chooseSyntax() {
    for (const auto& [name, message] : manifest_.messages) {
      for (const auto& [fieldName, field] : message.fields) {
        const bool explicitPresence = !field.implicitPresence && !field.isRepeated &&
                                      !field.oneofIndex && field.type != TypeManifest::message;
        if (explicitPresence || field.delimited) proto2_.insert(place(name).top);
        if (field.extensionName) {
          proto2_.insert(place(name).top);
          proto2_.insert(extensionPlace(*field.extensionName).top);
        }
      }
    }
    for (const auto& [name, enumManifest] : manifest_.enums) {
      const bool zero = std::any_of(enumManifest.values.begin(), enumManifest.values.end(),
                                    [](const auto& value) { return value.second == 0; });
      if (!zero) proto2_.insert(place(name).top);
    }
    for (bool changed = true; changed;) {
      changed = false;
      for (const auto& [name, message] : manifest_.messages) {
        const std::string& top = place(name).top;
        if (proto2_.contains(top)) continue;
        for (const auto& [fieldName, field] : message.fields) {
          if (!field.typeName) continue;
          const auto it = places_.find(*field.typeName);
          if (it != places_.end() && proto2_.contains(it->second.top) &&
              (field.type == TypeManifest::enum_ || it->second.package == place(name).package)) {
            proto2_.insert(top);
            changed = true;
            break;
          }
        }
      }
    }
  }

  // An extension is declared where its full name puts it: in the message of that name's prefix,
  // or at the top level of the package it names.
  Place extensionPlace(const std::string& full) {
    Place result;
    result.parent = enclosingMessage(manifest_, full);
    if (result.parent) {
      result.package = place(*result.parent).package;
      result.top = place(*result.parent).top;
    } else {
      const size_t dot = full.rfind('.');
      result.package = dot == std::string::npos ? "" : full.substr(0, dot);
      result.top = full;
    }
    return result;
  }

  // The file of the top-level type `top` declared in `package`.
  File& fileOf(const std::string& package, const std::string& top) {
    const bool proto2 = proto2_.contains(top);
    const std::string name = (package.empty() ? "_" : package) + (proto2 ? ".2" : ".3") + ".proto";
    auto [it, added] = files_.try_emplace(name);
    if (added) {
      it->second.proto.set_name(name);
      if (!package.empty()) it->second.proto.set_package(package);
      it->second.proto.set_syntax(proto2 ? "proto2" : "proto3");
    }
    return it->second;
  }
  File& fileOf(const Place& where) { return fileOf(where.package, where.top); }

  // The descriptor of message `name`, made in its place on first use.
  pb::DescriptorProto& messageProto(const std::string& name) {
    if (auto it = messages_.find(name); it != messages_.end()) return *it->second;
    const Place& where = place(name);
    pb::DescriptorProto* proto = where.parent ? messageProto(*where.parent).add_nested_type()
                                              : fileOf(where).proto.add_message_type();
    proto->set_name(lastComponent(name));
    messages_.emplace(name, proto);
    return *proto;
  }

  // Records that the file `from` refers to the type `name`.
  void refer(const File& from, const std::string& name) {
    const auto it = places_.find(name);
    if (it == places_.end()) return;  // a type of no store: the pool reports it
    const std::string& target = fileOf(it->second).proto.name();
    if (target != from.proto.name()) files_.at(from.proto.name()).dependencies.insert(target);
  }

  void addMessage(const std::string& name, const MessageManifest& message) {
    pb::DescriptorProto& proto = messageProto(name);
    if (message.options) parseOptions(message.options, *proto.mutable_options());
    for (const OneofManifest& oneof : message.oneofs) {
      pb::OneofDescriptorProto* decl = proto.add_oneof_decl();
      decl->set_name(oneof.name);
      if (oneof.options) parseOptions(oneof.options, *decl->mutable_options());
    }
    // In number order, but the members of a oneof together, as a descriptor must have them.
    std::vector<std::tuple<int64_t, int64_t, const std::string*>> order;
    std::map<int32_t, int64_t> oneofFirst;
    for (const auto& [fieldName, field] : message.fields) {
      if (field.oneofIndex) {
        auto [it, added] = oneofFirst.try_emplace(*field.oneofIndex, field.fieldNumber);
        if (!added) it->second = std::min(it->second, field.fieldNumber);
      }
    }
    for (const auto& [fieldName, field] : message.fields) {
      const int64_t position = field.oneofIndex ? oneofFirst[*field.oneofIndex] : field.fieldNumber;
      order.emplace_back(position, field.fieldNumber, &fieldName);
    }
    std::sort(order.begin(), order.end());
    for (const auto& [position, number, fieldName] : order) {
      const FieldManifest& field = message.fields.find(*fieldName)->second;
      if (field.extensionName) {
        addExtension(name, field);
      } else {
        fillField(fileOf(place(name)), *fieldName, field, *proto.add_field());
      }
    }
  }

  void addExtension(const std::string& extendee, const FieldManifest& field) {
    const std::string& full = *field.extensionName;
    const Place where = extensionPlace(full);
    File& file = fileOf(where);
    pb::FieldDescriptorProto* proto =
        where.parent ? messageProto(*where.parent).add_extension() : file.proto.add_extension();
    fillField(file, lastComponent(full), field, *proto);
    proto->clear_oneof_index();
    proto->set_extendee("." + extendee);
    refer(file, extendee);
    pb::DescriptorProto::ExtensionRange* range = messageProto(extendee).add_extension_range();
    range->set_start(static_cast<int32_t>(field.fieldNumber));
    range->set_end(static_cast<int32_t>(field.fieldNumber + 1));
  }

  void fillField(const File& file, const std::string& name, const FieldManifest& field,
                 pb::FieldDescriptorProto& proto) {
    proto.set_name(name);
    proto.set_number(static_cast<int32_t>(field.fieldNumber));
    proto.set_label(field.isRepeated ? pb::FieldDescriptorProto::LABEL_REPEATED
                                     : pb::FieldDescriptorProto::LABEL_OPTIONAL);
    proto.set_type(static_cast<pb::FieldDescriptorProto::Type>(
        field.delimited ? detail::kDescriptorGroupType : detail::descriptorTypeNumber(field.type)));
    if (field.typeName) {
      proto.set_type_name("." + *field.typeName);
      refer(file, *field.typeName);
    }
    if (field.oneofIndex) proto.set_oneof_index(*field.oneofIndex);
    if (field.options) parseOptions(field.options, *proto.mutable_options());
  }

  void addEnum(const std::string& name, const EnumManifest& enumManifest) {
    const Place& where = place(name);
    pb::EnumDescriptorProto* proto = where.parent ? messageProto(*where.parent).add_enum_type()
                                                  : fileOf(where).proto.add_enum_type();
    proto->set_name(lastComponent(name));
    if (enumManifest.options) parseOptions(enumManifest.options, *proto->mutable_options());
    // A zero value first (proto3 and map values want it there), then by number.
    std::vector<std::pair<int64_t, std::string>> values;
    for (const auto& [valueName, number] : enumManifest.values) {
      values.emplace_back(number, valueName);
    }
    std::ranges::sort(values, {},
                      [](const auto& value) { return std::pair(value.first != 0, value); });
    for (size_t i = 0; i < values.size(); ++i) {
      pb::EnumValueDescriptorProto* value = proto->add_value();
      value->set_name(values[i].second);
      value->set_number(static_cast<int32_t>(values[i].first));
      if (auto options = enumManifest.valueOptions.find(values[i].first);
          options != enumManifest.valueOptions.end()) {
        value->mutable_options()->ParseFromArray(options->second.data(),
                                                 static_cast<int>(options->second.size()));
      }
      if (i > 0 && values[i].first == values[i - 1].first) {
        proto->mutable_options()->set_allow_alias(true);
      }
    }
  }

  void buildFile(pb::DescriptorPool& pool, const std::string& name, std::set<std::string>& built,
                 std::set<std::string>& visiting) {
    if (built.contains(name)) return;
    File& file = files_.at(name);
    if (!visiting.insert(name).second) {
      throw SchematizerError::protocolBufferError("text format: the types of package \"" +
                                                  file.proto.package() +
                                                  "\" and another refer to each other");
    }
    for (const std::string& dependency : file.dependencies) {
      buildFile(pool, dependency, built, visiting);
      file.proto.add_dependency(dependency);
    }
    Errors errors;
    if (pool.BuildFileCollectingErrors(file.proto, &errors) == nullptr) {
      throw SchematizerError::protocolBufferError("text format: " + errors.first);
    }
    visiting.erase(name);
    built.insert(name);
  }

  struct Errors : pb::DescriptorPool::ErrorCollector {
    std::string first;
    void AddError(const std::string& filename, const std::string& element, const pb::Message*,
                  ErrorLocation, const std::string& message) override {
      if (first.empty()) first = filename + ": " + element + ": " + message;
    }
  };

  const SchemaManifest& manifest_;
  std::map<std::string, Place, std::less<>> places_;
  std::set<std::string> proto2_;
  std::map<std::string, File> files_;
  std::map<std::string, pb::DescriptorProto*> messages_;
};

// The pools of the stores text has been made for, each kept while its store lives.
std::shared_ptr<TextPool> poolOf(const MessageSchemaDescribing& schema) {
  static std::mutex mutex;
  static std::map<std::weak_ptr<SchemaStoreDescribing>, std::shared_ptr<TextPool>,
                  std::owner_less<>>
      pools;
  const std::shared_ptr<SchemaStoreDescribing> store = schema.originStore();
  if (!store) throw SchematizerError::internalError("Store is destroyed");
  {
    const std::lock_guard lock(mutex);
    std::erase_if(pools, [](const auto& entry) { return entry.first.expired(); });
    if (auto it = pools.find(store); it != pools.end()) return it->second;
  }
  // Built outside the lock: a store is used by one thread at a time, and another store's pool
  // does not wait for this one.
  auto pool = std::make_shared<TextPool>();
  PoolFiles(fullManifest(SchemaStore(store))).build(pool->pool);
  const std::lock_guard lock(mutex);
  return pools.try_emplace(store, std::move(pool)).first->second;
}

const pb::Message& prototypeOf(TextPool& pool, const MessageSchemaDescribing& schema) {
  const pb::Descriptor* descriptor = pool.pool.FindMessageTypeByName(schema.name());
  if (descriptor == nullptr) throw SchematizerError::schemaNotFound(schema.name());
  return *pool.factory.GetPrototype(descriptor);
}

struct TextErrors : pb::io::ErrorCollector {
  std::string first;
  void AddError(int line, pb::io::ColumnNumber column, const std::string& message) override {
    if (first.empty()) {
      first = std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " + message;
    }
  }
};

}  // namespace

std::string renderText(const SchematizedDataDescribing& data) {
  const MessageSchemaDescribing& schema = *data.messageSchema();
  const std::shared_ptr<TextPool> pool = poolOf(schema);
  std::unique_ptr<pb::Message> message(prototypeOf(*pool, schema).New());
  const ByteView bytes = data.bytes();
  if (!std::in_range<int>(bytes.size()) ||
      !message->ParsePartialFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
    throw SerializationError::malformedProtobuf();
  }
  std::string text;
  pb::TextFormat::PrintToString(*message, &text);
  return text;
}

std::string renderText(const SchematizedData& data) { return renderText(data.unsafe()); }

SchematizedData parseText(const MessageSchema& schema, std::string_view text) {
  const std::shared_ptr<TextPool> pool = poolOf(*schema.impl());
  std::unique_ptr<pb::Message> message(prototypeOf(*pool, *schema.impl()).New());
  TextErrors errors;
  pb::TextFormat::Parser parser;
  parser.RecordErrorsTo(&errors);
  parser.AllowPartialMessage(true);
  if (!parser.ParseFromString(std::string(text), message.get())) {
    throw SchematizerError::unexpectedType(errors.first);
  }
  return SchematizedData(schema.impl(), toBytes(asBytes(message->SerializePartialAsString())));
}

}  // namespace ostrel
