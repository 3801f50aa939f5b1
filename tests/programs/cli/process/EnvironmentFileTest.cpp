#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

// The environment names a file in place of a daemon, as it does for programs that use the library.
class EnvironmentFile : public CommandTest {
 protected:
  static constexpr char kText[] = "[A]\nx=1\n[B]\ny=2\n";
  static constexpr char kNotice[] = "TAVIX_SETTINGS_LOCALFILE is set: reading file 'my file.ini', no server\n";
  static constexpr char kRefusal[] =
      "tavix-settings: TAVIX_SETTINGS_LOCALFILE names 'my file.ini', which is read and never written\n"
      "hint: --local 'my file.ini' changes the file\n";

  EnvironmentFile() { _directory.Write("my file.ini", kText); }

  Outcome RunWith(const std::string& file, const Words& words, const std::string& input = {}) const {
    return Run(words, input, {{"TAVIX_SETTINGS_LOCALFILE", file}});
  }

  void ExpectOutcome(const Outcome& outcome, int status, const std::string& output, const std::string& errors) const {
    EXPECT_EQ(outcome.output, output);
    EXPECT_EQ(outcome.errors, errors);
    EXPECT_EQ(outcome.status, status);
  }
};

}  // namespace

TEST_F(EnvironmentFile, IsReadAndReported) {
  ExpectOutcome(RunWith("my file.ini", {"get", "[A]x"}), 0, "1\n", kNotice);
  ExpectOutcome(RunWith("my file.ini", {"-q", "list"}), 0, "A  1\nB  1\n", "");
  ExpectOutcome(RunWith("my file.ini", {"set", "--dry-run", "[A]x=2"}), 0, "-[A]x=1\n+[A]x=2\n", kNotice);
  ExpectOutcome(RunWith("my file.ini", {"subscribers"}), 2, "",
                std::string(kNotice) + "tavix-settings: a file has no subscribers: unset TAVIX_SETTINGS_LOCALFILE\n");
}

TEST_F(EnvironmentFile, IsNeverWrittenAndNeitherIsTheDaemon) {
  for (const Words& words : std::vector<Words>{{"set", "[A]x=2"},
                                               {"set", "[A]x=2", "--if", "[A]x=1"},
                                               {"unset", "[A]x"},
                                               {"unset", "[A]missing"},
                                               {"log-level", "A", "trace"},
                                               {"resource", "reserve", "R", "1", "-c", "Me"},
                                               {"resource", "release", "R", "-c", "Me"},
                                               {"delete", "*"},
                                               {"reset", "*"},
                                               {"edit", "A"},
                                               {"import", "--replace"},
                                               {"log-level", "A", "trace", "--create"}})
    ExpectOutcome(RunWith("my file.ini", words, "[A]\nx=3\n"), 2, "", kNotice + std::string(kRefusal));
  EXPECT_EQ(_directory.Read("my file.ini"), kText);
  EXPECT_EQ(AskUser(), ".\n");
}

TEST_F(EnvironmentFile, IsNoBookOfResources) {
  _directory.Write("my file.ini", "[Resources/R]\nTotalAvailable=10\n");
  ExpectOutcome(RunWith("my file.ini", {"resource", "reserve", "R", "1", "-c", "Me"}), 2, "",
                kNotice + std::string(kRefusal));
}

TEST_F(EnvironmentFile, MustExistAndHaveAName) {
  ExpectOutcome(RunWith("gone.ini", {"list"}), 3, "",
                "TAVIX_SETTINGS_LOCALFILE is set: reading file 'gone.ini', no server\n"
                "tavix-settings: there is no file 'gone.ini'\n");
  for (const Words& words : std::vector<Words>{{"list"}, {"set", "[A]x=2"}})
    ExpectOutcome(RunWith("", words), 2, "",
                  "tavix-settings: TAVIX_SETTINGS_LOCALFILE: expected a file's name, found an empty text\n"
                  "hint: unset it, or give --server or --local\n");
  for (const Words& words : std::vector<Words>{{"list"}, {"set", "[A]x=2"}})
    ExpectOutcome(RunWith("-", words, kText), 2, "",
                  "tavix-settings: TAVIX_SETTINGS_LOCALFILE: '-' is no file; one of that name is './-'\n");
  EXPECT_EQ(RunWith("", {"help"}).status, 0);
  EXPECT_EQ(AskUser(), ".\n");
}

TEST_F(EnvironmentFile, GivesWayToAStoreThatAnOptionNames) {
  ExpectOutcome(RunWith("my file.ini", {"-s", _address, "get", "[Network/Eth0]dhcp"}), 0, "true\n", "");
  ExpectOutcome(RunWith("my file.ini", {"--local", "my file.ini", "set", "[A]x=2"}), 0, "", "done: 1 setting\n");
  EXPECT_EQ(_directory.Read("my file.ini"), "[A]\nx=2\n[B]\ny=2\n");
}

TEST_F(EnvironmentFile, CompletesGroups) {
  const std::string candidates = AskAgainWhile("", [&] {
    return RunWith("my file.ini", {"__complete", "show", ""}).output;
  });
  EXPECT_EQ(candidates, "A\nB\n");
}

}  // namespace tavix::test
