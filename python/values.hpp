#pragma once

// Records in, Python values out: the reads of one record behind MessageSchema.get, has, iterate
// and to_dict, and the buffer a record is borrowed through.

#include <pybind11/pybind11.h>

#include <optional>
#include <string>
#include <string_view>

#include "ostrel/ostrel.hpp"

namespace ostrel::python {

// A record borrowed from any object with the buffer protocol (bytes, bytearray, memoryview, numpy
// arrays, mmap), held for the duration of one call. While it is held a bytearray cannot be
// resized, so its bytes stay where they are even with the GIL released.
class RecordBuffer {
 public:
  // Throws TypeError for an object without the buffer protocol (str included) or a buffer that
  // is not contiguous.
  explicit RecordBuffer(const pybind11::handle& object);
  ~RecordBuffer() { PyBuffer_Release(&view_); }
  RecordBuffer(const RecordBuffer&) = delete;
  RecordBuffer& operator=(const RecordBuffer&) = delete;

  ByteView bytes() const noexcept {
    return {static_cast<const std::byte*>(view_.buf), static_cast<size_t>(view_.len)};
  }

 private:
  Py_buffer view_{};
};

// The value as Python holds it: int, float, bool, str, bytes, an enum's name (its number when the
// enum has no name for it), a dict of the fields present for a message, a list for a repeated
// field and a dict for a map field.
pybind11::object toPython(const AnyValue& value, ReadMode mode);

// The fields present in a message, by name.
pybind11::dict messageToDict(const SchematizedData& data, ReadMode mode);

// The repeated field a path ends at when its last component names one without an index, with
// the path of the message holding it ("" for the record itself); no value for any other path.
struct RepeatedTarget {
  std::string containerPath;
  FieldSchema field;
};
std::optional<RepeatedTarget> repeatedTarget(const MessageSchema& schema, std::string_view path);

// The bytes of the message holding a repeated target's elements, or no value when it is absent.
// `holder` keeps a nested message's bytes alive.
std::optional<ByteView> containerBytes(const MessageSchema& schema, ByteView record,
                                       const RepeatedTarget& target, ReadMode mode,
                                       std::optional<AnyValue>& holder);

// Every element of a repeated field of the message `container`, as a list, or as a dict for a map
// field.
pybind11::object repeatedToPython(ByteView container, const FieldSchema& field, ReadMode mode);

// Whether a message schema is a map's entry (map_entry in its options).
bool isMapEntry(const MessageSchema& schema);

}  // namespace ostrel::python
