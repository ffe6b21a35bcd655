#pragma once

// How p_get's values become DuckDB values: a tree of column types made once from a schema (when
// a query is bound), and the values as JSON text that DuckDB's from_json reads into that type
// (DuckDB learns the type from ostrel_value_type at bind time):
//
//   int64, sint64, sfixed64  BIGINT       uint64, fixed64  UBIGINT
//   int32, sint32, sfixed32  INTEGER      uint32, fixed32  UINTEGER
//   double DOUBLE, float FLOAT, bool BOOLEAN, string VARCHAR, bytes VARCHAR holding base64
//   (from_base64 turns it into the BLOB: no JSON text carries bytes as they are), enum VARCHAR
//   (its name, else the number as text), message STRUCT (one member per field, by the declared
//   names), repeated LIST, map MAP, google.protobuf.Timestamp TIMESTAMP WITH TIME ZONE, Duration
//   INTERVAL, the wrappers their value, Struct, Value, ListValue, Any and FieldMask VARCHAR
//   holding their JSON text. Below four levels of STRUCT a message is VARCHAR holding its JSON
//   text: the columnar projection's types, which ostrel_scan reads through, but for bytes.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/wire/reader.hpp"

namespace ostrel::duckdb {

enum class ColumnKind : uint8_t {
  bigint,
  ubigint,
  integer,
  uinteger,
  double_,
  float_,
  boolean,
  varchar,
  blob,
  enumName,
  timestamp,
  interval,
  // A wrapper message (Int64Value, ...): the value of its field 1, `element` typed.
  wrapper,
  json,
  struct_,
  list,
  map,
};

struct ColumnType {
  struct Member {
    std::string name;
    std::shared_ptr<FieldSchemaDescribing> field;
    std::unique_ptr<ColumnType> type;
  };

  ColumnKind kind = ColumnKind::varchar;
  // struct_: one member per field, by field number. list and wrapper: `element`, with the
  // wrapper's field in `valueField`. map: `key` and `value`, with the entry message's fields.
  std::vector<Member> members;
  std::unique_ptr<ColumnType> element;
  std::unique_ptr<ColumnType> key;
  std::unique_ptr<ColumnType> value;
  const FieldSchemaDescribing* keyField = nullptr;
  const FieldSchemaDescribing* valueField = nullptr;
  // The message of struct_, json and timestamp; the enum of enumName.
  std::shared_ptr<MessageSchemaDescribing> message;
  std::shared_ptr<EnumSchemaDescribing> enumeration;
};

// The column type of one value of `type`, and of a whole field (a LIST or MAP when repeated).
// Throws the schema's errors.
std::unique_ptr<ColumnType> columnTypeOf(const TypeSchemaDescription& type);
std::unique_ptr<ColumnType> columnTypeOf(const FieldSchemaDescribing& field);

// The type of appendJson's values as DuckDB's SQL writes it, for example
// STRUCT("sku" VARCHAR, "quantity" UINTEGER)[].
std::string sqlType(const ColumnType& type);

// Appends `value`, of `type`'s field type, as the JSON text from_json reads into sqlType(type):
// timestamps and non-finite floats as text, bytes as base64 text (DuckDB's JSON reader takes
// nothing but UTF-8). Throws
// the errors of reading nested messages, and SerializationError for a timestamp out of DuckDB's
// range.
void appendJson(const ColumnType& type, const detail::AnyValueImpl& value, std::string& out);

// Appends the JSON text of field `field` of the message in `message`: every element of a repeated
// field ([] or {} when there is none), else the first occurrence (null when absent).
void appendFieldJson(const ColumnType& type, const FieldSchemaDescribing& field, ByteView message,
                     std::string& out);

// The microseconds since the epoch of a google.protobuf.Timestamp message's bytes. Throws
// SerializationError for malformed bytes or a time DuckDB cannot hold.
int64_t timestampMicros(ByteView message);

}  // namespace ostrel::duckdb
