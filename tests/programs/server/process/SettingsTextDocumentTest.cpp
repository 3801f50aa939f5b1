#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/FencedBlocks.h"

namespace tavix::test {

namespace {

// A text of the document, and what it shows next: how the text is written back, or the error.
struct Example {
  FencedBlock text;
  FencedBlock outcome;
};

std::vector<Example> ExamplesOf(const std::string& kind) {
  const std::vector<FencedBlock> blocks = ReadFencedBlocks("docs/settings-text.md");
  std::vector<Example> examples;
  for (size_t i = 0; i + 1 < blocks.size(); ++i) {
    if (blocks[i].kind == kind) examples.push_back({blocks[i], blocks[i + 1]});
  }
  return examples;
}

}  // namespace

TEST(SettingsTextDocument, EveryTextIsWrittenBackAsShown) {
  const std::vector<Example> examples = ExamplesOf("ini");
  EXPECT_FALSE(examples.empty());
  for (const Example& example : examples) {
    SCOPED_TRACE(example.text.place);
    ASSERT_EQ(example.outcome.kind, "ini written");
    const TemporaryDirectory directory;
    directory.Write("site.ini", example.text.GetText());
    Daemon daemon(directory, {"--defaults", "site.ini"});
    EXPECT_EQ(Converse(daemon.GetPort(), "dump all\n"), example.outcome.GetText() + ".\n");
  }
}

TEST(SettingsTextDocument, EveryErrorIsAsShown) {
  const std::vector<Example> examples = ExamplesOf("ini broken");
  EXPECT_FALSE(examples.empty());
  for (const Example& example : examples) {
    SCOPED_TRACE(example.text.place);
    const TemporaryDirectory directory;
    directory.Write("site.ini", example.text.GetText());
    DaemonProcess daemon(ServerProgram(), directory.GetPath(), {"--check", "--defaults", "site.ini"});
    EXPECT_EQ(daemon.AwaitEnd(), 78);
    EXPECT_EQ(daemon.GetErrors(), "tavix-settings-server: " + example.outcome.GetText());
  }
}

}  // namespace tavix::test
