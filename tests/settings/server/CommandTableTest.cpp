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
  ASSERT_EQ(statistics.commands.size(), CommandTable::kCount);
  for (size_t i = 0; i < CommandTable::kCount; ++i)
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

}  // namespace
