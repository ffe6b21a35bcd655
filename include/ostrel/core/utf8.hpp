#pragma once

// Text from bytes that should be UTF-8 but may not be: what the library does to a string field's
// payload, offered to hosts that must hand valid UTF-8 on (an error text to a database client).

#include <string>

#include "ostrel/core/values.hpp"

namespace ostrel {

// `bytes` as UTF-8 text, never rejected: each maximal subpart of an invalid sequence becomes one
// U+FFFD, as browsers decode. Valid input is copied unchanged. Strict UTF-8: no overlong forms, no
// surrogates, nothing above U+10FFFF.
std::string decodeUtf8Lossy(ByteView bytes);

}  // namespace ostrel
