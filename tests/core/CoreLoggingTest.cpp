#include "tavix/core/CoreLogging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedOutput.h"

namespace {

using tavix::core::IniFile;
using tavix::core::Logger;
using tavix::test::BackgroundCall;
using tavix::test::CapturedOutput;
using testing::EndsWith;

struct Received {
  void* context;
  int level;
  const char* format;
  std::string text;
};

std::vector<Received> g_received;

void Receive(void* context, int level, const char* format, va_list arguments) __attribute__((format(printf, 3, 0)));

void Receive(void* context, int level, const char* format, va_list arguments) {
  char text[256];
  std::vsnprintf(text, sizeof text, format, arguments);
  g_received.push_back({context, level, format, text});
}

void Ignore(void*, int, const char*, va_list) {}

// The sink of the host for the length of a test.
class OwnSink {
 public:
  OwnSink() {
    g_received.clear();
    pelko_core_logging_set_sink(Receive);
  }
  ~OwnSink() { pelko_core_logging_set_sink(nullptr); }
};

void LogToStandardOutput(const char* level) {
  Logger::ConfigureLogging(
      IniFile(IniFile::GroupMap{{"Log", {{"log.level", level}, {"log.syslog", "false"}, {"log.stdout", "true"}}}}),
      "Log");
}

TEST(CoreLogging, GoesToTheLoggerNamedCore) {
  CapturedOutput output(STDOUT_FILENO);
  LogToStandardOutput("6");
  pelko_core_logging_log(nullptr, 6, "%d requests, %s", 3, "all served");
  EXPECT_THAT(output.Finish(), EndsWith("Z INFO core: 3 requests, all served\n"));
}

TEST(CoreLogging, TheHostsLevelCounts) {
  CapturedOutput output(STDOUT_FILENO);
  LogToStandardOutput("4");
  pelko_core_logging_log(nullptr, 6, "dropped");
  pelko_core_logging_log(nullptr, 4, "written");
  EXPECT_THAT(output.Finish(),
              testing::AllOf(EndsWith("Z WARNING core: written\n"), testing::Not(testing::HasSubstr("dropped"))));
}

TEST(CoreLogging, AnOwnSinkGetsEverythingUntouched) {
  const OwnSink sink;
  CapturedOutput output(STDOUT_FILENO);
  LogToStandardOutput("3");
  int context = 0;
  const char* format = "a\nb %d";
  pelko_core_logging_log(&context, 8, format, 42);
  EXPECT_EQ(output.Finish(), "");
  ASSERT_EQ(g_received.size(), 1u);
  EXPECT_EQ(g_received[0].context, &context);
  EXPECT_EQ(g_received[0].level, 8);
  EXPECT_EQ(g_received[0].format, format);
  EXPECT_EQ(g_received[0].text, "a\nb 42");
}

TEST(CoreLogging, AnOwnSinkGetsLevelsNobodyKnows) {
  const OwnSink sink;
  for (const int level : {-1, 0, 7, 99}) pelko_core_logging_log(nullptr, level, "x");
  ASSERT_EQ(g_received.size(), 4u);
  EXPECT_EQ(g_received[0].level, -1);
  EXPECT_EQ(g_received[3].level, 99);
}

TEST(CoreLogging, ANullSinkBringsTheDefaultBack) {
  { const OwnSink sink; }
  CapturedOutput output(STDOUT_FILENO);
  LogToStandardOutput("3");
  pelko_core_logging_log(nullptr, 3, "back");
  EXPECT_THAT(output.Finish(), EndsWith("Z ERROR core: back\n"));
  EXPECT_TRUE(g_received.empty());
}

TEST(CoreLogging, TheSinkMayChangeWhileOthersLog) {
  CapturedOutput output(STDOUT_FILENO);
  LogToStandardOutput("3");
  BackgroundCall logging([] {
    for (int i = 0; i < 1000; ++i) pelko_core_logging_log(nullptr, 8, "dropped");
  });
  for (int i = 0; i < 1000; ++i) pelko_core_logging_set_sink(i % 2 ? nullptr : Ignore);
  logging.Join();
  pelko_core_logging_set_sink(nullptr);
  EXPECT_EQ(output.Finish(), "");
}

}  // namespace
