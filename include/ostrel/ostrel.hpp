#pragma once

// Everything a user of the library needs; the one header to include.
//
// The jobs and the one way to do each:
// - Load schemas: SchemaStore(schemaManifestFromDescriptorSet(bytes)), schemaManifestFromJSON or
//   schemaManifestFromProtoFiles (manifest/manifest_data.hpp), then store.messageSchema("pkg.M").
// - Read values: schema.schematizedData(bytes).value("a.b[2].c"); for many records, resolve the
//   path once with resolvePropertyPath and read with data.value(path) (wire/schematizer.hpp).
// - Read several paths from each of many records: Projection, in one pass per record; one scalar
//   without an AnyValue: readInt64(bytes, path) and its siblings (wire/projection.hpp); a stream
//   of records (length-prefixed, kcat's, one per input, or from a callback) and Confluent's
//   envelope: RecordSource and decodeConfluent (records/records.hpp).
// - Columns for analytics: ColumnProjection reads paths from many records into Arrow record
//   batches, handed out through Arrow's C Data and C Stream Interfaces (columns/columns.hpp).
// - Iterate a repeated field: Schematizer::RepeatableFieldIterator.
// - Build a message: MessageSchema::buildData.
// - JSON: renderJSON(data, options) for the text, renderJSON(data, sink, options) to stream it;
//   parseJSON(schema, text) for the protobuf encoding of JSON text (output/json.hpp).
// - SQL: sqlSelect writes the text of a query over records stored as blobs;
//   registerSqliteFunctions installs P_GET and the other functions on an SQLite connection
//   (sql/sql.hpp); extensions/ has the loadable ones.
// - Stop long operations when the host asks (a cancel request): setInterruptCheck
//   (core/interrupts.hpp).
// Failures are thrown as ostrel::Error subclasses (core/errors.hpp).

#include "ostrel/columns/columns.hpp"
#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/interrupts.hpp"
#include "ostrel/core/logging.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/manifest/manifest.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/output/json.hpp"
#include "ostrel/output/protobuf_writing.hpp"
#include "ostrel/output/text_format.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/records/records.hpp"
#include "ostrel/sql/sql.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/projection.hpp"
#include "ostrel/wire/reader.hpp"
#include "ostrel/wire/schematizer.hpp"

// Reading libprotobuf's parsed descriptor sets (ostrel/manifest/typed_import.hpp) is left out: it
// brings in libprotobuf's descriptor headers.
