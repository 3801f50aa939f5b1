#include <algorithm>
#include <map>
#include <sstream>

#include "tests/programs/cli/process/CommandTest.h"
#include "tests/programs/cli/process/DocumentTerminal.h"

// What documents show of sessions is what happens.

namespace tavix::test {

namespace {

using Kind = TerminalStep::Kind;

struct PlacedStep {
  std::string terminal;
  TerminalStep step;
};

constexpr char kConsole[] = "console";

bool IsConsole(const FencedBlock& block) {
  return block.kind.rfind(kConsole, 0) == 0;
}

std::vector<PlacedStep> ReadSession(const std::string& document) {
  std::vector<PlacedStep> session;
  for (const FencedBlock& block : ReadFencedBlocks(document)) {
    if (!IsConsole(block)) continue;
    for (const TerminalStep& step : StepsOf(block)) session.push_back({block.kind.substr(sizeof kConsole - 1), step});
  }
  return session;
}

// Whether the step's command is not seen at work, or interrupted, later.
bool Ends(const std::vector<PlacedStep>& session, size_t index) {
  if (session[index].step.kind == Kind::kInterrupt) return true;
  const auto next = std::find_if(session.begin() + static_cast<std::ptrdiff_t>(index) + 1, session.end(),
                                 [&](const PlacedStep& later) { return later.terminal == session[index].terminal; });
  return next == session.end() || next->step.kind == Kind::kCommand;
}

std::vector<std::string> SortedLinesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    if (line.rfind("<end of command", 0) != 0) lines.push_back(line);
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

}  // namespace

TEST(TutorialDocument, EveryCommandDoesWhatIsShown) {
  const TemporaryDirectory directory;
  const TemporaryDirectory tools;
  const std::vector<PlacedStep> session = ReadSession("docs/tutorial.md");
  EXPECT_GT(session.size(), 30U);
  std::map<std::string, DocumentTerminal> terminals;
  for (size_t i = 0; i < session.size() && !testing::Test::HasFailure(); ++i) {
    const std::string& name = session[i].terminal;
    terminals.try_emplace(name, directory, tools, "terminal" + std::to_string(terminals.size()))
        .first->second.Play(session[i].step, Ends(session, i));
  }
}

TEST(TutorialDocument, HasNoBlockThatIsNotPlayed) {
  for (const FencedBlock& block : ReadFencedBlocks("docs/tutorial.md")) EXPECT_TRUE(IsConsole(block)) << block.place;
}

// Two programs write to one terminal there: whose line comes first is anybody's guess.
TEST(ReadmeDocument, TheSessionIsWhatHappens) {
  const TemporaryDirectory directory;
  const TemporaryDirectory tools;
  const std::string device = TAVIX_SOURCE_DIR "/examples/device/";
  const Daemon daemon(directory, {"--defaults", device + "defaults.d", "--restricted", device + "restricted.d"});
  DocumentTerminal terminal(directory, tools, "terminal", daemon.AwaitAddresses().front());
  std::string expected;
  for (const PlacedStep& placed : ReadSession("README.md")) {
    terminal.Type(placed.step.command);
    terminal.AwaitEndOfCommand();
    for (const std::string& line : SortedLinesOf(placed.step.output)) terminal.AwaitLine(line);
    expected += placed.step.output;
  }
  EXPECT_NE(expected, "");
  EXPECT_EQ(SortedLinesOf(terminal.GetOutput()), SortedLinesOf(expected));
}

}  // namespace tavix::test
