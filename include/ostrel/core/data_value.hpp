#pragma once

#include <memory>

#include "ostrel/core/bytes.hpp"

namespace ostrel {

// A byte container from which an owned copy of the bytes can be taken.
class DataValueDescribing {
 public:
  virtual ~DataValueDescribing() = default;

  // The bytes held. Valid while this container (and, for a borrowed one, its buffer) is alive.
  virtual ByteView view() const noexcept = 0;

  // An owned copy of exactly the bytes held; an empty container gives an empty buffer.
  Bytes copy() const { return toBytes(view()); }
};

// A borrowed view of someone else's bytes; valid while that buffer is alive and unchanged.
class BorrowedData final : public DataValueDescribing {
 public:
  BorrowedData() = default;
  explicit BorrowedData(ByteView bytes) noexcept : bytes_(bytes) {}
  ByteView view() const noexcept override { return bytes_; }

 private:
  ByteView bytes_;
};

// An owned, immutable buffer. Copies share the buffer.
class OwnedData final : public DataValueDescribing {
 public:
  OwnedData() : bytes_(std::make_shared<const Bytes>()) {}
  explicit OwnedData(Bytes bytes) : bytes_(std::make_shared<const Bytes>(std::move(bytes))) {}
  ByteView view() const noexcept override { return *bytes_; }
  const Bytes& bytes() const noexcept { return *bytes_; }

 private:
  std::shared_ptr<const Bytes> bytes_;
};

}  // namespace ostrel
