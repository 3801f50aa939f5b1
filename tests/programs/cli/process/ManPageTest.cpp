#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>

#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

using testing::HasSubstr;

class ManPage : public CommandTest {
 protected:
  // The candidates of the completion, which knows all there is, without their descriptions.
  Words FindCandidates(const Words& words) const {
    std::istringstream lines(Complete(words));
    Words candidates;
    for (std::string line; std::getline(lines, line);) candidates.push_back(line.substr(0, line.find('\t')));
    return candidates;
  }

  static std::string ReadPage() {
    std::ifstream file(std::string(TAVIX_SOURCE_DIR) + "/docs/man/tavix-settings.1.scd");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Commands that only hold others.
  static constexpr const char* kGroups[] = {"bridge", "resource"};

  std::set<std::string> FindAllOptions() const {
    std::set<std::string> options;
    for (const std::string& command : FindCandidates({""})) {
      for (const std::string& option : FindCandidates({command, "--"})) options.insert(option);
    }
    for (const char* group : kGroups) {
      for (const std::string& command : FindCandidates({group, ""})) {
        for (const std::string& option : FindCandidates({group, command, "--"})) options.insert(option);
      }
    }
    return options;
  }
};

}  // namespace

TEST_F(ManPage, NamesEveryCommand) {
  const std::string page = ReadPage();
  const Words commands = FindCandidates({""});
  EXPECT_GT(commands.size(), 19U);
  for (const std::string& command : commands) {
    const bool isGroup = std::find(std::begin(kGroups), std::end(kGroups), command) != std::end(kGroups);
    EXPECT_THAT(page, HasSubstr("*" + command + (isGroup ? " " : "*")));
  }
  for (const std::string group : kGroups) {
    for (const std::string& command : FindCandidates({group, ""}))
      EXPECT_THAT(page, HasSubstr("*" + group + " " + command + "*"));
  }
}

TEST_F(ManPage, NamesEveryOptionAndNoOther) {
  const std::string page = ReadPage();
  const std::set<std::string> options = FindAllOptions();
  EXPECT_GE(options.size(), 30U);
  for (const std::string& option : options) EXPECT_THAT(page, HasSubstr("*" + option + "*"));
  const std::regex bold("\\*(--[a-z-]+)");
  for (std::sregex_iterator at(page.begin(), page.end(), bold), end; at != end; ++at)
    EXPECT_EQ(options.count((*at)[1]), 1U) << (*at)[1];
}

TEST_F(ManPage, NamesEveryExitStatus) {
  for (const char* status : {"*0*", "*1*", "*2*", "*3*", "*4*", "*5*", "*6*", "*7*", "*9*", "*130*"})
    EXPECT_THAT(ReadPage(), HasSubstr(status));
}

}  // namespace tavix::test
