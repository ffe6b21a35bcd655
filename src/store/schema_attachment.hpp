#pragma once

#include <atomic>
#include <memory>

namespace ostrel::detail {

// What another subsystem derives from a message schema once and keeps with it (the JSON
// renderer's plan), so that every call and every thread reuses it and it dies with the schema.
class SchemaAttachment {
 public:
  virtual ~SchemaAttachment() = default;
  // Forgets whatever refers to the resolved types of the schema's fields: the store cuts those
  // references of recursive types when it goes. Called only by the store's destructor, while no
  // other thread reads through the schema.
  virtual void releaseTypes() noexcept {}
};

// One attachment, published once without a lock. Readers load it with acquire ordering; of
// threads that make it at the same time, the first to publish wins and the others drop theirs.
class AttachmentSlot {
 public:
  AttachmentSlot() = default;
  AttachmentSlot(const AttachmentSlot&) = delete;
  AttachmentSlot& operator=(const AttachmentSlot&) = delete;
  ~AttachmentSlot() { delete value_.load(std::memory_order_acquire); }

  // The published attachment, or null.
  SchemaAttachment* get() const noexcept { return value_.load(std::memory_order_acquire); }

  // Publishes `made` unless another attachment was published first; returns the one that stays.
  SchemaAttachment* publish(std::unique_ptr<SchemaAttachment> made) noexcept {
    SchemaAttachment* expected = nullptr;
    if (value_.compare_exchange_strong(expected, made.get(), std::memory_order_acq_rel,
                                       std::memory_order_acquire)) {
      return made.release();
    }
    return expected;
  }

 private:
  std::atomic<SchemaAttachment*> value_{nullptr};
};

}  // namespace ostrel::detail
