#pragma once

#include <atomic>
#include <memory>
#include <utility>

namespace ostrel::detail {

// One lazily materialised entry: a manifest until its schema is made, then the schema, for good.
// Threads read a materialised entry without a lock; making the schema is the owner's job, under
// the owner's mutex, which also guards manifest() and publish().
//
// The schema is published with release ordering after it is complete, and read with acquire
// ordering, so a thread that sees it sees all of it. Once published it never changes, so the
// reference schema() returns stays valid as long as the slot.
template <typename Manifest, typename Schema>
class LazySlot {
 public:
  explicit LazySlot(Manifest manifest) : manifest_(std::move(manifest)) {}
  LazySlot(const LazySlot&) = delete;
  LazySlot& operator=(const LazySlot&) = delete;

  // Whether the schema has been published; any thread, no lock.
  bool materialised() const noexcept { return ready_.load(std::memory_order_acquire); }
  // The published schema; only after materialised() returned true (on this thread, or under the
  // owner's mutex).
  const std::shared_ptr<Schema>& schema() const noexcept { return schema_; }

  // The manifest, while not materialised; under the owner's mutex.
  const Manifest& manifest() const noexcept { return manifest_; }
  Manifest& manifest() noexcept { return manifest_; }
  // Publishes `schema` in place of the manifest, which is dropped; under the owner's mutex.
  const std::shared_ptr<Schema>& publish(std::shared_ptr<Schema> schema) {
    schema_ = std::move(schema);
    manifest_ = Manifest{};
    ready_.store(true, std::memory_order_release);
    return schema_;
  }
  // Hands the schema over to the caller, leaving the slot empty; only when no other thread can
  // reach the slot (its owner is being destroyed).
  std::shared_ptr<Schema> take() noexcept {
    ready_.store(false, std::memory_order_relaxed);
    return std::move(schema_);
  }

 private:
  Manifest manifest_;
  std::shared_ptr<Schema> schema_;
  std::atomic<bool> ready_{false};
};

}  // namespace ostrel::detail
