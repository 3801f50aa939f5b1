#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

// A group whose name holds a '*': other programs may make one, and every list takes its name for a pattern.
class PatternNames : public CommandTest {
 protected:
  static constexpr char kBoth[] =
      "[Network/*]\na=1\nb=2\n[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n[Network/Wlan0]\nenabled=false\n";

  PatternNames() { Merge("[Network/*]\na=1\nb=2\n"); }

  void ExpectRefused(const Words& words, const std::string& input = {}) const {
    const Outcome outcome = Run(words, input, {{"EDITOR", "sed -i /b=2/d"}});
    EXPECT_EQ(outcome.status, 2) << testing::PrintToString(words);
    EXPECT_THAT(outcome.errors, testing::HasSubstr("'Network/*'")) << testing::PrintToString(words);
    EXPECT_EQ(Ask("Network/*"), kBoth) << testing::PrintToString(words);
    EXPECT_EQ(AskUser(), "[Network/*]\na=1\nb=2\n.\n") << testing::PrintToString(words);
  }
};

}  // namespace

TEST_F(PatternNames, AreNoGroupsToNameASettingOf) {
  for (const Words& words : std::vector<Words>{{"set", "[Network/*]c=1"},
                                               {"set", "[Network/*]c", "1"},
                                               {"set", "Network/*", "c", "1"},
                                               {"set", "[A]b=1", "--if", "[Network/*]a=1"},
                                               {"unset", "[Network/*]a"},
                                               {"unset", "Network/*", "a"},
                                               {"get", "[Network/*]a"},
                                               {"watch", "[Network/*]a"},
                                               {"wait", "[Network/*]a=2"},
                                               {"wait", "[Network/*]c"},
                                               {"wait", "Network/*", "c"},
                                               {"log-level", "Network/*", "error"}})
    ExpectRefused(words);
}

TEST_F(PatternNames, AreNotReplacedSinceOtherGroupsWouldGoToo) {
  ExpectRefused({"delete", "-y", "Network/*"});
  ExpectRefused({"edit", "Network/*"});
  ExpectRefused({"import", "-", "Network/*", "--replace"},
                "[Network/*]\na=1\n[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n[Network/Wlan0]\nenabled=false\n");
}

TEST_F(PatternNames, AreReadBackedUpAndReset) {
  ExpectRun({"get", "[Network/*]"}, 0,
            "[Network/*]a=1\n[Network/*]b=2\n[Network/Eth0]address=192.168.0.90\n[Network/Eth0]dhcp=true\n"
            "[Network/Wlan0]enabled=false\n",
            "");
  const std::string backup = Run({"export"}).output;
  EXPECT_EQ(Run({"reset", "-y", "Network/*"}).status, 0);
  EXPECT_EQ(Ask("Network/*"), std::string(kBoth).substr(std::string("[Network/*]\na=1\nb=2\n").size()));
  EXPECT_EQ(Run({"import", "--replace"}, backup).errors, "done: 2 differences\n");
  EXPECT_EQ(Ask("Network/*"), kBoth);
}

}  // namespace tavix::test
