// Arbitrary bytes read as an ostrel.test.Rich message through every read path: property paths,
// chains of field numbers, every repeated field of every message reached (through the iterator and
// through forEachValue), the first-of helper on the oneof, the walk over present fields, and the
// JSON rendering.
//
// Besides the sanitizers' findings, a few invariants hold for any bytes: no walk hands out more
// values than there are bytes (so none can spin), an iterator that failed fails again the same
// way, the first-of helper answers with a member of the set it was given, a property path read as
// text reads what its resolved form reads, the rendering is JSON, and a rendering without errors
// in it encodes back to a message that renders the same.

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.hpp"
#include "wire/field_path.hpp"
#include "wire/field_walk.hpp"

namespace {

using namespace ostrel;
using ostrel::fuzz::finding;
using ostrel::fuzz::tolerate;

// Leaves and messages at every depth of Rich, through single, repeated and map fields, with
// indices inside and far beyond what a small input holds. A few are not paths of Rich at all.
constexpr const char* kPropertyPaths[] = {
    "mid",
    "mid.leaf",
    "mid.leaf.id",
    "mid.leaf.label",
    "mid.leaf.codes[0]",
    "mid.leaf.codes[3]",
    "mid.leaves[0]",
    "mid.leaves[0].id",
    "mid.leaves[1].codes[1]",
    "mid.leaves[40].label",
    "mid.note",
    "scalars.f_double",
    "scalars.f_float",
    "scalars.f_int64",
    "scalars.f_uint64",
    "scalars.f_int32",
    "scalars.f_fixed64",
    "scalars.f_fixed32",
    "scalars.f_bool",
    "scalars.f_string",
    "scalars.f_bytes",
    "scalars.f_uint32",
    "scalars.f_enum",
    "scalars.f_sfixed32",
    "scalars.f_sfixed64",
    "scalars.f_sint32",
    "scalars.f_sint64",
    "scalars.f_message.codes[2]",
    "repeats.r_double[0]",
    "repeats.r_float[1]",
    "repeats.r_int64[2]",
    "repeats.r_uint64[0]",
    "repeats.r_int32[5]",
    "repeats.r_fixed64[1]",
    "repeats.r_fixed32[0]",
    "repeats.r_bool[3]",
    "repeats.r_string[0]",
    "repeats.r_bytes[1]",
    "repeats.r_uint32[0]",
    "repeats.r_enum[2]",
    "repeats.r_sfixed32[0]",
    "repeats.r_sfixed64[1]",
    "repeats.r_sint32[0]",
    "repeats.r_sint64[4]",
    "repeats.r_message[1].label",
    "repeats.r_int32[1000000]",
    "mids[0]",
    "mids[0].leaf.id",
    "mids[1].leaves[2].codes[0]",
    "mids[7].note",
    "name",
    "number",
    "chosen",
    "chosen.label",
    "counts[0].key",
    "counts[1].value",
    "leaves_by_id[0].key",
    "leaves_by_id[2].value.codes[1]",
    "maybe",
    "color",
    "tail.leaf.codes[0]",
    "tail.leaves[9]",
};

// The fixed inputs of every run, built once.
struct Fixture {
  MessageSchema rich = fuzz::richSchema();
  std::vector<std::pair<std::string, FieldPathAndType>> paths;
  std::vector<std::pair<std::vector<int64_t>, TypeSchema>> chains;
};

// Every chain of field numbers from Rich down to four messages deep, each with the declared type
// of its last field; those of the outer two messages again with a type the field does not have,
// taken in turn from a few. Thrown errors are what makes a read slow, so each error path is met
// without paying for every pairing.
void addChains(Fixture& fixture, const MessageSchema& schema, std::vector<int64_t>& chain,
               int depth) {
  static const TypeSchema wrongTypes[] = {
      TypeSchema(TypeSchemaDescription::scalar(TypeSchema::Case::int32)),
      TypeSchema(TypeSchemaDescription::scalar(TypeSchema::Case::fixed64)),
      TypeSchema(TypeSchemaDescription::scalar(TypeSchema::Case::string)),
      TypeSchema(TypeSchemaDescription::scalar(TypeSchema::Case::float_)),
  };
  for (const auto& [number, field] : schema.fieldsByNumber()) {
    chain.push_back(number);
    const TypeSchema type = field.type();
    fixture.chains.emplace_back(chain, type);
    const TypeSchema& wrong = wrongTypes[fixture.chains.size() % std::size(wrongTypes)];
    if (depth <= 2 && !(wrong == type)) fixture.chains.emplace_back(chain, wrong);
    if (const auto nested = type.messageSchema(); nested && depth < 4) {
      addChains(fixture, *nested, chain, depth + 1);
    }
    chain.pop_back();
  }
}

const Fixture& fixture() {
  static const Fixture made = [] {
    Fixture f;
    for (const char* path : kPropertyPaths) {
      tolerate([&] { f.paths.emplace_back(path, resolvePropertyPath(f.rich, path)); });
    }
    std::vector<int64_t> chain;
    addChains(f, f.rich, chain, 1);
    const TypeSchema leaf(TypeSchemaDescription::messageType(
        fuzz::richStore().messageSchema("ostrel.test.Leaf").impl()));
    f.chains.push_back({{999}, leaf});
    f.chains.push_back({{1, 999, 1}, leaf});
    f.chains.push_back({{536870911}, leaf});
    return f;
  }();
  return made;
}

// Touches what a value holds, as a caller printing it would.
void use(const AnyValue& value) {
  (void)value.describe();
  if (value.kind() == AnyValue::Case::enum_) (void)value.enumValue().findName();
}

// Reads every field of the message in `bytes`: single fields by number, repeated fields through
// the iterator and forEachValue. Messages met on the way are read the same way; Rich is not
// recursive, so the depth stays small.
void explore(const MessageSchema& schema, ByteView bytes, int depth) {
  const auto size = static_cast<int64_t>(bytes.size());
  for (const auto& entry : schema.fieldsByNumber()) {
    const int64_t number = entry.first;
    const FieldSchema& field = entry.second;
    const TypeSchema type = field.type();
    const std::optional<MessageSchema> nested = type.messageSchema();
    if (!field.isRepeated()) {
      std::optional<AnyValue> value;
      tolerate([&] { value = Schematizer::value(bytes, number, type); });
      if (value) {
        use(*value);
        if (nested && depth < 8) explore(*nested, value->messageValue().bytes(), depth + 1);
      }
      continue;
    }

    Schematizer::RepeatableFieldIterator iterator(bytes, number, type);
    int64_t elements = 0;
    try {
      while (const std::optional<AnyValue> element = iterator.next()) {
        if (++elements > size) finding("the iterator hands out more elements than bytes");
        use(*element);
        if (nested && depth < 8) explore(*nested, element->messageValue().bytes(), depth + 1);
      }
      if (iterator.next()) finding("an exhausted iterator hands out another element");
    } catch (const Error& first) {
      const std::string text = first.what();
      try {
        iterator.next();
        finding("a failed iterator step succeeds when repeated");
      } catch (const Error& again) {
        if (text != again.what()) finding("a failed iterator step fails differently when repeated");
      }
    }

    Reader reader(bytes);
    int64_t visits = 0;
    tolerate([&] {
      forEachValue(reader, *field.impl(), [&](detail::AnyValueImpl&& value) {
        if (++visits > size) finding("forEachValue hands out more values than bytes");
        use(AnyValue::from(std::move(value)));
      });
    });
  }
}

void firstOf(const std::set<int64_t>& numbers, std::span<const int64_t> path, ByteView bytes) {
  tolerate([&] {
    const std::optional<int64_t> first = ProtoFirstOfHelper::firstOf(numbers, path, bytes);
    if (first && !numbers.contains(*first)) finding("firstOf answers a number not asked for");
  });
}

// Renders `data`; checks that the text is JSON and, when nothing failed to render, that encoding
// it gives a message that renders the same.
void render(const Fixture& f, const SchematizedData& data) {
  std::string compact;
  if (!tolerate([&] { compact = renderJSON(data); })) return;
  std::string indented;
  tolerate([&] { indented = renderJSON(data, {.style = JsonStyle::indented}); });
  if (!nlohmann::json::accept(compact)) finding("the rendering is not JSON");
  if (compact.find("Sch: Error encoding") != std::string::npos) return;
  std::string again;
  try {
    again = renderJSON(parseJSON(f.rich, compact));
  } catch (const Error& e) {
    finding(std::string("a rendering does not encode back: ") + e.what() + "\n" + compact);
  }
  if (again != compact)
    finding("a rendering encoded and rendered again differs:\n" + compact + "\n" + again);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Fixture& f = fixture();
  const ByteView bytes(reinterpret_cast<const std::byte*>(data), size);
  const SchematizedData message = f.rich.schematizedData(toBytes(bytes));

  for (const auto& entry : f.paths) {
    const std::string& text = entry.first;
    const FieldPathAndType& path = entry.second;
    std::optional<std::string> byPath;
    tolerate([&] {
      const std::optional<AnyValue> value = message.value(path);
      byPath = value ? value->describe() : "absent";
    });
    std::optional<std::string> byText;
    tolerate([&] {
      const std::optional<AnyValue> value = message.value(text);
      byText = value ? value->describe() : "absent";
    });
    if (byPath.has_value() != byText.has_value() || (byPath && *byPath != *byText)) {
      finding("a path read as text differs from its resolved form: " + text);
    }
  }
  for (const auto& entry : f.chains) {
    tolerate([&] {
      if (const auto value = Schematizer::value(bytes, entry.first, entry.second)) use(*value);
    });
  }

  explore(f.rich, bytes, 1);

  int64_t visits = 0;
  tolerate([&] {
    forEachPresentField(message.unsafe(), [&](const auto&, detail::AnyValueImpl&&) {
      if (++visits > static_cast<int64_t>(size)) finding("forEachPresentField spins");
    });
  });

  firstOf({5, 6, 7}, {}, bytes);
  const int64_t mid[] = {1};
  const int64_t midLeaf[] = {1, 1};
  const int64_t mids[] = {4};
  firstOf({1, 2, 3}, mid, bytes);
  firstOf({1, 2, 3}, midLeaf, bytes);
  firstOf({2, 3}, mids, bytes);

  render(f, message);
  return 0;
}
