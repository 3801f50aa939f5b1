#include "programs/common/client/Backup.h"

#include <gtest/gtest.h>

#include "programs/common/client/Failure.h"
#include "tests/programs/common/client/MemorySession.h"

namespace tavix::test {

TEST(Backup, MayBeSettingsTextOrJson) {
  EXPECT_EQ(TextOf(programs::ParseDocument("[a]\nk=1\n", "x")), "[a]\nk=1\n");
  EXPECT_EQ(TextOf(programs::ParseDocument(R"({"a": {"k": 1}})", "x")), "[a]\nk=1\n");
}

TEST(Backup, NamesItsSourceWhenItDoesNotParse) {
  for (const char* text : {"k=1\n", R"({"a": 1})"}) {
    try {
      programs::ParseDocument(text, "x.ini");
      ADD_FAILURE() << text;
    } catch (const programs::Failure& failure) {
      EXPECT_EQ(failure.GetCode(), programs::kExitBadInput);
      EXPECT_EQ(std::string(failure.what()).rfind("x.ini:", 0), 0U) << failure.what();
    }
  }
}

TEST(Backup, LeavesRestrictedGroupsOutUnlessGroupsAreNamed) {
  MemorySession session("[SecureKeys]\nk=1\n[a]\nk=1\n", "[a]\nk=2\n");
  size_t leftOut = 0;
  EXPECT_EQ(TextOf(programs::ReadStore(session, {}, false, leftOut)), "[a]\nk=2\n");
  EXPECT_EQ(leftOut, 1U);
  EXPECT_EQ(TextOf(programs::ReadStore(session, {"Secure*"}, false, leftOut)), "[SecureKeys]\nk=1\n");
  EXPECT_EQ(leftOut, 0U);
}

TEST(Backup, CoverageReadsBack) {
  const std::set<std::string> groups{"", " a ", "b/*", "c\nd", "\xFF"};
  EXPECT_EQ(programs::ReadCoverage(programs::DescribeCoverage(groups) + "[x]\nk=1\n"), groups);
  EXPECT_EQ(programs::DescribeCoverage({"b/*", "c"}), "# This backup covers: b/*\n# This backup covers: c\n");
  EXPECT_EQ(programs::DescribeCoverage({}), "# This backup covers all groups\n");
  EXPECT_EQ(programs::ReadCoverage(programs::DescribeCoverage({})), std::set<std::string>());
}

TEST(Backup, CoverageStandsInCommentsAnywhere) {
  EXPECT_EQ(
      programs::ReadCoverage("[x]\nk=# This backup covers: a\n# This backup covers: b\r\n# This backup covers: c"),
      std::set<std::string>({"b", "c"}));
  EXPECT_EQ(programs::ReadCoverage("{\"a\": {}}"), std::set<std::string>());
}

TEST(Backup, CoverageStandsBehindAByteOrderMark) {
  EXPECT_EQ(programs::ReadCoverage("\xEF\xBB\xBF# This backup covers: a\n"), std::set<std::string>({"a"}));
  EXPECT_EQ(programs::ReadCoverage("abc# This backup covers: a\n"), std::set<std::string>());
}

TEST(Backup, WithCoverageIsCutOffWithoutItsEnd) {
  for (const std::set<std::string>& groups : {std::set<std::string>{"a"}, std::set<std::string>()}) {
    const std::string text = programs::DescribeCoverage(groups) + "[a]\nk=1\n";
    EXPECT_FALSE(programs::IsCutOff(text + programs::MarkEnd()));
    EXPECT_FALSE(programs::IsCutOff(text + "# End of backup\r\n\r\n"));
    for (const char* end : {"", "# End of back", "k=# End of backup\n", "# End of backup\n[b]\n"})
      EXPECT_TRUE(programs::IsCutOff(text + end)) << end;
  }
}

TEST(Backup, WithoutCoverageHasNoEnd) {
  for (const char* text : {"", "[a]\nk=1\n", "{}", "[a]\nk=# This backup covers all groups\n"})
    EXPECT_FALSE(programs::IsCutOff(text)) << text;
}

TEST(Backup, SelectsWhatUsersDeletedByTheNamesOfTheGroups) {
  const core::IniFile layer = DocumentOf("[TavixSettings/Data/DeletedGroups]\na/x=a/x\nb=b\n[a/y]\nk=1\n[c]\nk=1\n");
  EXPECT_EQ(TextOf(programs::SelectUserGroups(layer, {"a/*"})),
            "[TavixSettings/Data/DeletedGroups]\na/x=a/x\n[a/y]\nk=1\n");
  EXPECT_EQ(TextOf(programs::SelectUserGroups(layer, {"TavixSettings/*"})), "");
  EXPECT_EQ(programs::SelectUserGroups(layer, {}).GetGroups(), layer.GetGroups());
}

TEST(Backup, SelectsByNameAndPattern) {
  const core::IniFile all = DocumentOf("[a]\nk=1\n[b/x]\nk=2\n[c]\nk=3\n");
  EXPECT_EQ(TextOf(programs::SelectGroups(all, {"a", "b/*"})), "[a]\nk=1\n[b/x]\nk=2\n");
  EXPECT_EQ(programs::SelectGroups(all, {}).GetGroups(), all.GetGroups());
}

}  // namespace tavix::test
