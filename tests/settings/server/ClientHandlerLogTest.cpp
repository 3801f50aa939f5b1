#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "tavix/core/CoreLogging.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/ClientHandlerDispatcher.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ServedStore.h"

// What handlers log, and how they count.

namespace {

using tavix::osa::Exception;
using tavix::settings::server::ClientHandler;
using tavix::test::CapturedLog;
using tavix::test::ServedStore;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

struct Statistic {
  void* context;
  int level;
  std::string format;
  std::string text;
};

std::vector<Statistic>* g_statistics = nullptr;

void Collect(void* context, int level, const char* format, va_list arguments) {
  char text[200];
  std::vsnprintf(text, sizeof text, format, arguments);
  g_statistics->push_back(Statistic{context, level, format, text});
}

std::vector<Statistic> LoggedStatistics(void* context = nullptr) {
  std::vector<Statistic> statistics;
  g_statistics = &statistics;
  pelko_core_logging_set_sink(Collect);
  ClientHandler::LogStatistics(context);
  pelko_core_logging_set_sink(nullptr);
  return statistics;
}

// How often each command was counted while "act" ran; commands that were not are left out.
template <class Act>
std::map<std::string, int> CountsOf(Act act) {
  const auto countAll = [] {
    std::map<std::string, int> counts;
    for (const Statistic& statistic : LoggedStatistics()) {
      char name[50];
      int count = 0;
      EXPECT_EQ(std::sscanf(statistic.text.c_str(), "ClientHandler stats: dispatch %49s count %d", name, &count), 2);
      counts[name] = count;
    }
    return counts;
  };
  std::map<std::string, int> before = countAll();
  act();
  std::map<std::string, int> difference;
  for (const auto& [name, count] : countAll()) {
    if (count != before[name]) difference[name] = count - before[name];
  }
  return difference;
}

std::vector<std::string> LogOf(const std::string& input) {
  ServedStore served({"[A]\nx=1\n"});
  const CapturedLog log;
  served.Serve(input);
  return log.GetMessages();
}

TEST(ClientHandler, WarnsOfEachLineThatIsNoCommand) {
  EXPECT_THAT(LogOf("bogus\n[A]\nx=1\n.\n"),
              ElementsAre("WARNING MsgDispatcher: Invalid command: bogus",
                          "WARNING MsgDispatcher: Invalid command: [A]", "WARNING MsgDispatcher: Invalid command: x=1"))
      << "the terminator is silent";
}

TEST(ClientHandler, AnInvalidCommandIsItsFirstWord) {
  EXPECT_THAT(LogOf(" bogus more words\r\n"), ElementsAre("WARNING MsgDispatcher: Invalid command: bogus"));
}

TEST(ClientHandler, EmptyLinesAndTerminatorsAreNotLogged) {
  EXPECT_THAT(LogOf("\n \n.\n. x\n"), IsEmpty());
}

TEST(ClientHandler, TracesEachCommandBeforeAndAfter) {
  EXPECT_THAT(LogOf("get delimited\nA\n.\nquit\n"),
              ElementsAre("TRACE MsgDispatcher: Handling command: get",
                          MatchesRegex("TRACE MsgDispatcher: Command get took [0-9]+\\.[0-9]+ seconds"),
                          "TRACE MsgDispatcher: Handling command: quit",
                          MatchesRegex("TRACE MsgDispatcher: Command quit took [0-9]+\\.[0-9]+ seconds")));
}

TEST(ClientHandler, TracesASwitchOfTheSerialization) {
  EXPECT_THAT(LogOf("serialize phparray\n"),
              ElementsAre("TRACE MsgDispatcher: Handling command: serialize",
                          "TRACE ClientHandler: switching to serialization mode: phparray",
                          MatchesRegex("TRACE MsgDispatcher: Command serialize took .* seconds")));
}

TEST(ClientHandler, AnUnknownSerializationIsNotLogged) {
  for (const char* name : {"nonsense", "", "INI"}) {
    EXPECT_THAT(LogOf(std::string("serialize ") + name + "\n"),
                ElementsAre("TRACE MsgDispatcher: Handling command: serialize",
                            MatchesRegex("TRACE MsgDispatcher: Command serialize took .* seconds")));
  }
}

TEST(ClientHandler, ACommandThatThrowsIsNotTraced) {
  ServedStore served;
  const CapturedLog log;
  EXPECT_THROW(served.Serve("merge\nbogus\n.\n"), Exception);
  EXPECT_THAT(log.GetMessages(), ElementsAre("TRACE MsgDispatcher: Handling command: merge"));
}

TEST(ClientHandler, LogsAStatisticForEachCommandInAscendingOrder) {
  std::vector<std::string> names;
  for (const Statistic& statistic : LoggedStatistics()) {
    EXPECT_EQ(statistic.level, 5);
    EXPECT_EQ(statistic.format, "ClientHandler stats: dispatch %s count %d");
    names.push_back(statistic.text.substr(0, statistic.text.rfind(" count ")));
  }
  EXPECT_THAT(names,
              ElementsAre("ClientHandler stats: dispatch amend", "ClientHandler stats: dispatch dump",
                          "ClientHandler stats: dispatch get", "ClientHandler stats: dispatch info",
                          "ClientHandler stats: dispatch merge", "ClientHandler stats: dispatch note",
                          "ClientHandler stats: dispatch overwrite", "ClientHandler stats: dispatch quit",
                          "ClientHandler stats: dispatch restore", "ClientHandler stats: dispatch serialize",
                          "ClientHandler stats: dispatch subscribe", "ClientHandler stats: dispatch test-and-merge"));
}

TEST(ClientHandler, LogsACountBeyondAnIntAsItIs) {
  std::vector<Statistic> statistics;
  g_statistics = &statistics;
  pelko_core_logging_set_sink(Collect);
  for (const unsigned long long count : {2147483647ull, 2147483648ull, 10'000'000'000ull})
    tavix::settings::server::LogCommandCount(nullptr, "get", count);
  pelko_core_logging_set_sink(nullptr);
  ASSERT_EQ(statistics.size(), 3u);
  EXPECT_EQ(statistics[0].format, "ClientHandler stats: dispatch %s count %d");
  EXPECT_EQ(statistics[0].text, "ClientHandler stats: dispatch get count 2147483647");
  EXPECT_EQ(statistics[1].text, "ClientHandler stats: dispatch get count 2147483648");
  EXPECT_EQ(statistics[2].text, "ClientHandler stats: dispatch get count 10000000000");
}

TEST(ClientHandler, PassesTheLogContextOnUntouched) {
  int context = 0;
  for (void* given : {static_cast<void*>(&context), static_cast<void*>(nullptr)}) {
    for (const Statistic& statistic : LoggedStatistics(given)) EXPECT_EQ(statistic.context, given);
  }
}

TEST(ClientHandler, CountsTheCommandsOfAllConnections) {
  const auto counts = CountsOf([] {
    ServedStore first;
    ServedStore second;
    for (ServedStore* served : {&first, &second, &first}) served->Serve("dump\nget\n.\nget\n.\nquit\n");
    first.Serve("merge\n.\ntest-and-merge\n.\n.\nsubscribe\n.\noverwrite\n.\n.\nrestore\n.\nserialize x\ninfo\n");
  });
  const std::map<std::string, int> expected = {{"dump", 3},      {"get", 6},           {"info", 1},    {"merge", 1},
                                               {"overwrite", 1}, {"quit", 3},          {"restore", 1}, {"serialize", 1},
                                               {"subscribe", 1}, {"test-and-merge", 1}};
  EXPECT_EQ(counts, expected);
}

TEST(ClientHandler, UnknownCommandsAreNotCounted) {
  const CapturedLog log;
  EXPECT_THAT(CountsOf([] { ServedStore().Serve("bogus\n\n.\nDUMP\n"); }), IsEmpty());
}

TEST(ClientHandler, ACommandThatThrowsIsNotCounted) {
  EXPECT_THAT(CountsOf([] {
                ServedStore served;
                EXPECT_THROW(served.Serve("serialize phparray\nmerge\nbogus\n.\n"), Exception);
                EXPECT_THROW(served.Serve("overwrite\n.\n[.]\n.\n"), Exception);
              }),
              ElementsAre(testing::Pair("serialize", 1)));
}

TEST(ClientHandler, StatisticsTellOfCommandsUnknownWordsAndNotices) {
  ServedStore served;
  const CapturedLog log;
  ClientHandler::TimeCommands();
  const ClientHandler::Statistics before = ClientHandler::ReadStatistics();
  served.Serve("subscribe\nA\n.\nbogus\nmerge\n[A]\nx=1\n.\nmerge\n[B]\nx=1\n.\n");
  const ClientHandler::Statistics after = ClientHandler::ReadStatistics();
  EXPECT_EQ(after.unknown - before.unknown, 1u);
  EXPECT_EQ(after.notices - before.notices, 1u);
  for (size_t i = 0; i < after.commands.size(); ++i) {
    const std::string& name = after.commands[i].name;
    const unsigned long long expected = name == "merge" ? 2 : name == "subscribe" ? 1 : 0;
    EXPECT_EQ(after.commands[i].count - before.commands[i].count, expected) << name;
    EXPECT_EQ(after.commands[i].seconds > before.commands[i].seconds, expected > 0) << name;
  }
}

}  // namespace
