#pragma once

#include "ostrel/manifest/manifest.hpp"

namespace ostrel {

// The part of descriptor.proto the library needs to read descriptor sets: the seven descriptor
// messages it walks, the five options messages (deliberately without fields: options travel as raw
// bytes, interpreted only against what a caller's manifest defines) and the Label and Type enums.
// Built once, on first use, thread-safely; immutable afterwards.
const SchemaManifest& builtinDescriptorManifest();

}  // namespace ostrel
