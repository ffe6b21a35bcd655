#pragma once

// Everything a user of the library needs; the one header to include.
//
// The jobs and the one way to do each:
// - Load schemas: SchemaStore(manifest), the manifest from schemaManifestFromDescriptorSet(bytes),
//   schemaManifestFromJSON(text) or schemaManifestFromProtoFiles(files, includePaths)
//   (manifest/manifest_data.hpp).
// - Look a type up: store.messageSchema("pkg.M") and store.enumSchema("pkg.E") throw for a name
//   the store lacks; store.findMessageSchema and store.findEnumSchema return an empty optional
//   (store/schemas.hpp).
// - Read one value: schema.view(bytes).value("a.b[2].c") borrows the bytes;
//   schema.schematizedData(bytes) keeps a copy and reads the same way. For one path over many
//   records, resolve it once with resolvePropertyPath (paths/property_path.hpp) and read
//   view(record).value(path). Schematizer::value is the low level under these: by field number,
//   without a message schema (wire/schematizer.hpp).
// - Read several paths from each of many records: Projection, one pass per record; one scalar
//   without an AnyValue: readInt64(bytes, path) and its siblings (paths/projection.hpp).
// - A stream of records (length-prefixed, kcat's, one per input, or from a callback) and
//   Confluent's envelope: RecordSource and decodeConfluent (records/records.hpp).
// - Columns for analytics: ColumnProjection reads paths from many records into Arrow record
//   batches, handed out through Arrow's C Data and C Stream Interfaces (columns/columns.hpp).
// - Iterate a repeated field or map by property path: RepeatedField(schema, "items").elements(
//   bytes), a range over the record in place (paths/repeated_field.hpp).
// - Build a message: schema.buildData(valueForField).
// - JSON: renderJSON(data, options) for the text, renderJSON(data, sink, options) to stream it;
//   parseJSON(schema, text) for the protobuf encoding of JSON text (output/json.hpp).
// - Protobuf's text format: renderText(data) and parseText(schema, text) (output/text_format.hpp).
// - Manifests back out of a store: fullManifest(store), manifestEngagementsOnly(store); as JSON
//   or a descriptor set: schemaManifestToJSON, descriptorSetFromManifest.
// - SQL: sqlSelect writes the text of a query over records stored as blobs;
//   registerSqliteFunctions installs P_GET and the other functions on an SQLite connection
//   (sql/sql.hpp); extensions/ has the loadable ones.
// - Stop long operations when the host asks (a cancel request): setInterruptCheck
//   (core/interrupts.hpp).
// Failures are thrown as ostrel::Error subclasses (core/errors.hpp; the SQL helpers' SqlError in
// sql/sql.hpp).

#include "ostrel/columns/columns.hpp"
#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/interrupts.hpp"
#include "ostrel/core/logging.hpp"
#include "ostrel/core/utf8.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/edit/rewrite.hpp"
#include "ostrel/manifest/manifest.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/output/protobuf_writing.hpp"
#include "ostrel/output/text_format.hpp"
#include "ostrel/paths/projection.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/paths/repeated_field.hpp"
#include "ostrel/records/records.hpp"
#include "ostrel/sql/sql.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/reader.hpp"
#include "ostrel/wire/schematizer.hpp"

// Reading libprotobuf's parsed descriptor sets (ostrel/manifest/typed_import.hpp) is left out: it
// brings in libprotobuf's descriptor headers.
