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

TEST(LoggingTest, HandlerReceivesMessagesUntilReplaced) {
  RestoreDefaultHandler restore;
  std::vector<std::string> first;
  std::vector<std::string> second;
  setLogHandler([&](std::string_view message) { first.emplace_back(message); });
  detail::log("Sch: one");
  detail::log("Sch: two");
  setLogHandler([&](std::string_view message) { second.emplace_back(message); });
  detail::log("Sch: three");
  // Back to syslog: neither handler hears of this one.
  setLogHandler(nullptr);
  detail::log("Sch: logging test, to the system log");
  EXPECT_EQ(first, (std::vector<std::string>{"Sch: one", "Sch: two"}));
  EXPECT_EQ(second, (std::vector<std::string>{"Sch: three"}));
}

TEST(LoggingTest, FailingHandlerDoesNotReachTheCaller) {
  RestoreDefaultHandler restore;
  int calls = 0;
  setLogHandler([&](std::string_view) {
    ++calls;
    throw std::runtime_error("logger down");
  });
  EXPECT_NO_THROW(detail::log("Sch: lost"));
  EXPECT_EQ(calls, 1);
}

TEST(LoggingTest, HandlerMayReplaceItself) {
  RestoreDefaultHandler restore;
  std::vector<std::string> later;
  setLogHandler([&](std::string_view) {
    setLogHandler([&](std::string_view message) { later.emplace_back(message); });
  });
  detail::log("Sch: first");
  detail::log("Sch: second");
  EXPECT_EQ(later, std::vector<std::string>{"Sch: second"});
}

}  // namespace
}  // namespace ostrel
