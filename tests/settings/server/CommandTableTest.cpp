#include "tavix/settings/server/CommandTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/RequestFramer.h"

namespace {

using tavix::settings::server::ClientHandler;
using tavix::settings::server::CommandTable;
using tavix::settings::server::RequestFramer;

TEST(CommandTable, FindsEachOfItsWordsAndNoOther) {
  for (const CommandTable::Command& command : CommandTable()) {
    EXPECT_EQ(CommandTable::Find(command.word), &command);
    EXPECT_EQ(CommandTable::Find(std::string(command.word) + "s"), nullptr);
  }
  EXPECT_EQ(CommandTable::Find(""), nullptr);
}

TEST(CommandTable, IsInAscendingOrderAsStatisticsAre) {
  const auto isBefore = [](const auto& a, const auto& b) { return std::string(a.word) < b.word; };
  EXPECT_TRUE(std::is_sorted(CommandTable::begin(), CommandTable::end(), isBefore));
  const auto statistics = ClientHandler::ReadStatistics();
  ASSERT_EQ(statistics.commands.size(), static_cast<size_t>(CommandTable::end() - CommandTable::begin()));
  for (size_t i = 0; i < statistics.commands.size(); ++i)
    EXPECT_EQ(statistics.commands[i].name, CommandTable::begin()[i].word);
}

TEST(CommandTable, TellsTheFramerWhatFollowsEachCommand) {
  for (const CommandTable::Command& command : CommandTable()) {
    std::string request = std::string(command.word) + "\n";
    for (const char* part = command.parts; *part != '\0'; ++part) request += ".\n";
    RequestFramer framer;
    EXPECT_EQ(framer.FindEnd(request + "next\n"), request.size()) << command.word;
    EXPECT_TRUE(framer.IsCommand());
  }
}

// How long a request of that command takes shows in its line, its size or its patterns.
TEST(CommandTable, TellsWhichRequestsMayTakeLong) {
  const std::string large(33 * 1024, 'x');
  const std::string medium(9 * 1024, 'x');
  for (const CommandTable::Command& command : CommandTable()) {
    SCOPED_TRACE(command.word);
    using Duration = CommandTable::Duration;
    const std::string word = command.word;
    const bool isLong = command.duration == Duration::kLong;
    EXPECT_EQ(CommandTable::IsLong(word + "\nA\n.\n"), isLong);
    EXPECT_EQ(CommandTable::IsLong(word + "\nA*\n.\n"), isLong || command.duration == Duration::kByPattern);
    EXPECT_EQ(CommandTable::IsLong(word + "\n" + medium), isLong || command.duration == Duration::kBySubscription);
    EXPECT_EQ(CommandTable::IsLong(word + " subscribed\n"), isLong || command.duration == Duration::kIfSubscribed);
    EXPECT_TRUE(CommandTable::IsLong(word + "\n" + large));
  }
  EXPECT_FALSE(CommandTable::IsLong("unknown A*\n"));
}

TEST(CommandTable, TellsWhichRequestsAreForTheirClientOnly) {
  for (const char* request : {"get\nA\n.\n", "get delimited\nA\n.\n", "dump\n", "dump all\n", "info server\n",
                              " info subscribed\n", "subscribe\nA\n.\n"})
    EXPECT_TRUE(CommandTable::IsForClientOnly(request)) << request;
  for (const char* request : {"merge\n.\n", "test-and-merge\n.\n.\n", "amend\n.\n.\n.\n.\n.\n", "restore\nA\n.\n",
                              "overwrite\nA\n.\n.\n", "serialize ini\n", "note get\n", "quit\n", "\n", "gets\n"})
    EXPECT_FALSE(CommandTable::IsForClientOnly(request)) << request;
}

TEST(CommandTable, TellsTheFramerWhichCommandSetsTheFormOfPayloads) {
  for (const CommandTable::Command& command : CommandTable()) {
    RequestFramer framer;
    std::string line = std::string(command.word) + " phparray\n";
    for (const char* part = command.parts; *part != '\0'; ++part) line += ".\n";
    EXPECT_EQ(framer.FindEnd(line), line.size());
    const bool isPhpArray = framer.FindEnd("merge\na:0:{}") > 0;
    EXPECT_EQ(isPhpArray, command.effect == CommandTable::Effect::kSetsSerialization) << command.word;
  }
}

}  // namespace
