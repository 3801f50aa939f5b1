#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/FencedBlocks.h"

namespace tavix::test {

namespace {

enum class Sign : char { kSent = '>', kReceived = '<', kClosed = 'x' };

// A line of a transcript: "> text", "< text" or "x", with a connection's figure in front or without.
struct TranscriptLine {
  explicit TranscriptLine(const std::string& line) {
    const size_t at = line.find_first_of("><x");
    if (at == std::string::npos || at > 1) throw std::runtime_error("No line of a transcript: " + line);
    connection = line.substr(0, at);
    sign = static_cast<Sign>(line[at]);
    text = line.substr(std::min(at + 2, line.size())) + "\n";
  }

  std::string connection;
  Sign sign;
  std::string text;
};

std::vector<TranscriptLine> LinesOf(const FencedBlock& block) {
  return {block.lines.begin(), block.lines.end()};
}

// A line that ends with "=..." shows how a line begins that is another one each time.
void ExpectLine(const std::string& shown, const std::string& line) {
  const std::string rest = "=...\n";
  const bool isBegin = shown.size() > rest.size() && shown.compare(shown.size() - rest.size(), rest.size(), rest) == 0;
  const std::string begin = shown.substr(0, shown.size() - (isBegin ? rest.size() - 1 : 0));
  ASSERT_EQ(isBegin ? line.substr(0, begin.size()) : line, begin);
}

// Plays a transcript against a daemon, each connection opened when it is first named. What follows each other in one
// direction is sent at once.
void Replay(const std::vector<TranscriptLine>& lines, unsigned short port) {
  std::map<std::string, ProtocolClient> clients;
  std::set<std::string> closed;
  for (size_t i = 0; i < lines.size(); ++i) {
    const TranscriptLine& line = lines[i];
    ProtocolClient& client = clients.try_emplace(line.connection, port).first->second;
    if (line.sign == Sign::kSent) {
      std::string text = line.text;
      for (; i + 1 < lines.size() && lines[i + 1].sign == Sign::kSent && lines[i + 1].connection == line.connection;
           ++i)
        text += lines[i + 1].text;
      client.Send(text);
    } else if (line.sign == Sign::kReceived) {
      ExpectLine(line.text, client.ReadLine());
    } else {
      ASSERT_EQ(client.ReadToEnd(), "");
      closed.insert(line.connection);
    }
  }
  for (auto& [name, client] : clients) {
    if (closed.count(name)) continue;
    client.HalfClose();
    EXPECT_EQ(client.ReadToEnd(), "") << "connection " << name << " gets more than the document shows";
  }
}

std::vector<FencedBlock> BlocksOf(const std::string& kind) {
  std::vector<FencedBlock> blocks = ReadFencedBlocks("docs/protocol.md");
  const auto isOther = [&](const FencedBlock& block) { return block.kind != kind; };
  blocks.erase(std::remove_if(blocks.begin(), blocks.end(), isOther), blocks.end());
  return blocks;
}

}  // namespace

void ReplayWith(const FencedBlock& transcript, const std::vector<std::string>& options) {
  SCOPED_TRACE(transcript.place);
  const TemporaryDirectory directory;
  directory.Write("defaults.ini", BlocksOf("ini defaults").at(0).GetText());
  directory.Write("restricted.ini", BlocksOf("ini restricted").at(0).GetText());
  std::vector<std::string> arguments{"--defaults",     "defaults.ini",    "--restricted",
                                     "restricted.ini", "--user-settings", "u.ini"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  Daemon daemon(directory, arguments);
  Replay(LinesOf(transcript), daemon.GetPort());
}

bool Asks(const FencedBlock& transcript, const std::string& request) {
  const std::vector<TranscriptLine> lines = LinesOf(transcript);
  return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return line.text == request; });
}

const std::vector<std::string> kWithHistory{"--history", "65536"};

TEST(ProtocolDocument, EveryTranscriptIsWhatADaemonSays) {
  for (const FencedBlock& transcript : BlocksOf("transcript")) ReplayWith(transcript, {});
}

TEST(ProtocolDocument, EveryTranscriptOfAHistoryIsWhatADaemonSaysThatKeepsOne) {
  const std::vector<FencedBlock> transcripts = BlocksOf("transcript history");
  EXPECT_FALSE(transcripts.empty());
  for (const FencedBlock& transcript : transcripts) ReplayWith(transcript, kWithHistory);
}

// But for the list of features itself, and for trials, which have revisions then.
TEST(ProtocolDocument, EveryOtherTranscriptIsTheSameWithAHistory) {
  for (const FencedBlock& transcript : BlocksOf("transcript")) {
    const bool isOther = !Asks(transcript, "info features\n") && !Asks(transcript, "confirm t-1\n");
    if (isOther) ReplayWith(transcript, kWithHistory);
  }
}

// Behind the line that connects.
TEST(ProtocolDocument, ManualPageShowsWhatADaemonSays) {
  std::vector<FencedBlock> blocks = ReadFencedBlocks("docs/man/tavix-settings.7.scd");
  ASSERT_EQ(blocks.size(), 1U);
  ASSERT_THAT(blocks[0].lines.at(0), testing::StartsWith("$ "));
  blocks[0].lines.erase(blocks[0].lines.begin());
  const TemporaryDirectory directory;
  directory.Write("defaults.ini", BlocksOf("ini defaults").at(0).GetText());
  Daemon daemon(directory, {"--defaults", "defaults.ini"});
  Replay(LinesOf(blocks[0]), daemon.GetPort());
}

TEST(ProtocolDocument, EveryRequestHasATranscript) {
  std::set<std::string> sent;
  for (const FencedBlock& transcript : BlocksOf("transcript")) {
    for (const TranscriptLine& line : LinesOf(transcript)) {
      if (line.sign == Sign::kSent) sent.insert(line.text);
    }
  }
  for (const char* request :
       {"get delimited\n", "get\n",      "merge\n",           "merge nopersist\n", "test-and-merge\n",
        "overwrite\n",     "restore\n",  "subscribe\n",       "serialize ini\n",   "serialize phparray\n",
        "dump\n",          "dump all\n", "info subscribed\n", "info features\n",   "info whoami\n",
        "info refused\n",  "amend\n",    "try 90 t-1\n",      "trial t-3\n",       "confirm t-1\n",
        "revert t-2\n",    "quit\n"})
    EXPECT_THAT(sent, testing::Contains(request));
}

}  // namespace tavix::test
