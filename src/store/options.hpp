#pragma once

#include <memory>
#include <optional>

#include "ostrel/core/describing.hpp"
#include "ostrel/manifest/manifest.hpp"

namespace ostrel::detail {

// Raw options bytes paired with the store's schema of their options message, when the record has
// options and the store knows that message; otherwise none. Fails as the store's lookup fails.
inline std::optional<SchematizedData> schematizeOptions(
    const RawOptions& raw, const SchemaStoreDescribing& store,
    bool (SchemaStoreDescribing::*has)() const,
    std::shared_ptr<MessageSchemaDescribing> (SchemaStoreDescribing::*lookup)() const) {
  if (!raw || !(store.*has)()) return std::nullopt;
  return (store.*lookup)()->schematizedData(*raw);
}

// The raw bytes of schematized options, for turning a schema back into its manifest.
inline RawOptions rawOptions(const std::optional<SchematizedData>& options) {
  if (!options) return std::nullopt;
  return options->data();
}

}  // namespace ostrel::detail
