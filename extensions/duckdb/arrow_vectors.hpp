#pragma once

// The columnar projection's Arrow batches copied into DuckDB's vectors. DuckDB's stable C API has
// no Arrow import, so ostrel_scan copies each column of a batch into the vector DuckDB hands it:
// fixed-width values with memcpy, strings and bytes one by one, lists, maps and structs through
// their children.
//
//   Arrow (as columns.hpp makes it)        DuckDB
//   b i I l L f g                          BOOLEAN INTEGER UINTEGER BIGINT UBIGINT FLOAT DOUBLE
//   u U (utf8), z Z (binary)               VARCHAR, BLOB
//   tsu:UTC (Timestamp)                    TIMESTAMP WITH TIME ZONE
//   tDu (Duration)                         INTERVAL
//   +l +L (list), +m (map), +s (struct)    LIST, MAP, STRUCT

#include "duckdb_api.hpp"
#include "ostrel/columns/arrow_c.hpp"

namespace ostrel::duckdb {

// The DuckDB type of an Arrow column; the caller destroys it. Throws std::invalid_argument for a
// format the columnar projection does not make.
duckdb_logical_type logicalTypeOf(const ArrowSchema& schema);

// Copies rows [0, count) of `array` (whose schema is `schema`) into rows [0, count) of `vector`,
// whose type is logicalTypeOf(schema).
void copyColumn(const ArrowSchema& schema, const ArrowArray& array, idx_t count,
                duckdb_vector vector);

}  // namespace ostrel::duckdb
