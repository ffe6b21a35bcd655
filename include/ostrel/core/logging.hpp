#pragma once

// The library's diagnostics. Everything the library logs belongs to the category "schematizer" and
// starts with "Sch: ", so that its lines can be picked out of a shared log.
//
// By default messages go to the system log through syslog(3), facility LOG_USER, priority LOG_ERR,
// as "schematizer: " followed by the message. The library never calls openlog(3): the identity and
// options of the process's connection to the log belong to the application, so the category
// travels inside the message instead. An application with a logger of its own routes the library's
// messages there with setLogHandler.

#include <functional>
#include <string_view>

namespace ostrel {

// Receives one message, "Sch: " included, without a trailing newline. The text is valid only
// during the call. It may be called from any thread that uses the library, by several at once.
using LogHandler = std::function<void(std::string_view message)>;

// Sends every later message to `handler`; an empty handler (nullptr) restores syslog. Safe to call
// from any thread, also while other threads log: a message goes either to the old handler or to
// the new one. A handler may itself call setLogHandler.
void setLogHandler(LogHandler handler);

namespace detail {

// Logs `message`, which already starts with "Sch: ". Never throws: a failing handler loses the
// message rather than disturbing the operation that reported it.
void log(std::string_view message) noexcept;

}  // namespace detail
}  // namespace ostrel
