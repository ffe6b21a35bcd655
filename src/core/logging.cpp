#include "ostrel/core/logging.hpp"

#include <syslog.h>

#include <memory>
#include <mutex>
#include <utility>

namespace ostrel {
namespace {

struct HandlerSlot {
  std::mutex mutex;
  // Null while the default, syslog, is in force.
  std::shared_ptr<const LogHandler> handler;
};

HandlerSlot& handlerSlot() {
  // Never destroyed, so that logging from static destructors of other objects stays safe.
  static HandlerSlot* const slot = new HandlerSlot;
  return *slot;
}

void logToSyslog(std::string_view message) noexcept {
  ::syslog(LOG_USER | LOG_ERR, "schematizer: %.*s", static_cast<int>(message.size()),
           message.data());
}

}  // namespace

void setLogHandler(LogHandler handler) {
  std::shared_ptr<const LogHandler> next;
  if (handler) next = std::make_shared<const LogHandler>(std::move(handler));
  HandlerSlot& slot = handlerSlot();
  const std::lock_guard lock(slot.mutex);
  // The old handler ends up in `next` and is destroyed after the lock is released: a handler
  // whose destructor logs must not find the mutex held.
  slot.handler.swap(next);
}

namespace detail {

void log(std::string_view message) noexcept {
  std::shared_ptr<const LogHandler> handler;
  {
    HandlerSlot& slot = handlerSlot();
    const std::lock_guard lock(slot.mutex);
    handler = slot.handler;
  }
  // Called outside the lock so that a slow handler does not hold up other threads and a handler
  // may replace itself.
  if (!handler) {
    logToSyslog(message);
    return;
  }
  try {
    (*handler)(message);
  } catch (...) {
  }
}

}  // namespace detail
}  // namespace ostrel
