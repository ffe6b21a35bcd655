// The logging hook: messages reach the installed handler, and the default comes back. Swapping
// handlers while other threads log is the reliability tests' part.

#include "ostrel/core/logging.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace ostrel {
namespace {

// Restores the default handler when a test ends, however it ends.
struct RestoreDefaultHandler {
  ~RestoreDefaultHandler() { setLogHandler(nullptr); }
};

// Messages reach the handler installed when they are logged; a handler that throws loses its
// message without reaching the caller; a handler may replace itself; nullptr brings back syslog.
TEST(LoggingTest, HandlerReceivesMessagesUntilReplaced) {
  RestoreDefaultHandler restore;
  std::vector<std::string> first;
  std::vector<std::string> later;
  setLogHandler([&](std::string_view message) {
    first.emplace_back(message);
    if (first.size() == 2) {
      setLogHandler([&](std::string_view message) { later.emplace_back(message); });
    }
  });
  detail::log("Sch: one");
  detail::log("Sch: two");
  detail::log("Sch: three");
  int thrown = 0;
  setLogHandler([&](std::string_view) {
    ++thrown;
    throw std::runtime_error("logger down");
  });
  EXPECT_NO_THROW(detail::log("Sch: lost"));
  EXPECT_EQ(thrown, 1);
  // Back to syslog: no handler hears of this one.
  setLogHandler(nullptr);
  detail::log("Sch: logging test, to the system log");
  EXPECT_EQ(first, (std::vector<std::string>{"Sch: one", "Sch: two"}));
  EXPECT_EQ(later, std::vector<std::string>{"Sch: three"});
}

}  // namespace
}  // namespace ostrel
