#pragma once

// Everything a user of the library needs.

#include "ostrel/core/bytes.hpp"
#include "ostrel/core/data_value.hpp"
#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/logging.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/core/wire_type.hpp"
#include "ostrel/manifest/builtin_manifest.hpp"
#include "ostrel/manifest/descriptor_set.hpp"
#include "ostrel/manifest/json_manifest.hpp"
#include "ostrel/manifest/manifest.hpp"
#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/output/json_encoding.hpp"
#include "ostrel/output/json_rendering.hpp"
#include "ostrel/output/protobuf_writing.hpp"
#include "ostrel/paths/key_path.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/sql/projection.hpp"
#include "ostrel/sql/sqlite_functions.hpp"
#include "ostrel/store/proto_schema_store.hpp"
#include "ostrel/store/schemas.hpp"
#include "ostrel/wire/field_path.hpp"
#include "ostrel/wire/field_walk.hpp"
#include "ostrel/wire/reader.hpp"
#include "ostrel/wire/schematizer.hpp"
#include "ostrel/wire/value_decoding.hpp"

// Reading libprotobuf's parsed descriptor sets (ostrel/manifest/typed_import.hpp) is left out: it
// brings in libprotobuf's descriptor headers.
