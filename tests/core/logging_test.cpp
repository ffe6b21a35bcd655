// The logging hook: messages reach the installed handler, and the default comes back.

#include "ostrel/core/logging.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
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

TEST(LoggingTest, HandlersCanBeSwappedWhileOtherThreadsLog) {
  RestoreDefaultHandler restore;
  std::atomic<int> heard = 0;
  const auto count = [&](std::string_view) { heard.fetch_add(1); };
  setLogHandler(count);
  std::vector<std::thread> loggers;
  for (int t = 0; t < 2; ++t) {
    loggers.emplace_back([] {
      for (int i = 0; i < 1000; ++i) detail::log("Sch: busy");
    });
  }
  for (int i = 0; i < 200; ++i) setLogHandler(count);
  for (std::thread& logger : loggers) logger.join();
  EXPECT_EQ(heard.load(), 2000);
}

}  // namespace
}  // namespace ostrel
