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
#include "ostrel/manifest/manifest.hpp"
#include "ostrel/output/json_encoding.hpp"
#include "ostrel/output/json_rendering.hpp"
#include "ostrel/paths/property_path.hpp"
#include "ostrel/wire/reader.hpp"
