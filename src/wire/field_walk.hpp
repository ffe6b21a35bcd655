#pragma once

#include <functional>
#include <memory>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/values.hpp"

namespace ostrel {

// Called with each field occurrence's schema and value; may throw to end the walk.
using FieldVisitor =
    std::function<void(const std::shared_ptr<FieldSchemaDescribing>& field, detail::AnyValueImpl&& value)>;

// Visits every value of every known field of `data`, in the order of the bytes: a field that occurs
// twice is visited twice, and each element of a packed run of a repeated field is visited on its
// own. Fields the schema does not know are skipped. Values borrow from data's buffer, as decoding
// does. Materialises every field of the schema; throws the schema's errors, SerializationError for
// malformed bytes or a wire type that does not fit a field's type, and the visitor's failures.
void forEachPresentField(const SchematizedDataDescribing& data, const FieldVisitor& visit);

}  // namespace ostrel
