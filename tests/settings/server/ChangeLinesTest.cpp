#include "tavix/settings/server/ChangeLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DocumentText.h"

namespace tavix::test {

using settings::server::MakeChangeLines;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(ChangeLines, CountAndNameGroupsWithoutValues) {
  EXPECT_THAT(MakeChangeLines("merge", {}, DocumentOf("[B]\nx=1\ny=2\n[A]\nz=3\n"), false),
              ElementsAre("merge: 2 groups, 3 keys: A, B"));
  EXPECT_THAT(MakeChangeLines("merge", {}, DocumentOf("[A]\nz=3\n"), false), ElementsAre("merge: 1 group, 1 key: A"));
}

TEST(ChangeLines, NameAGroupThatWentAndCameOnce) {
  EXPECT_THAT(MakeChangeLines("overwrite", {"A", "C*"}, DocumentOf("[A]\n[B]\nx=1\n"), false),
              ElementsAre("overwrite: 3 groups, 1 key: A, B, C*"));
}

TEST(ChangeLines, WithValuesHaveALineForEach) {
  EXPECT_THAT(MakeChangeLines("merge", {}, DocumentOf("[A]\nx=1\n[B]\ny=two words\n"), true),
              ElementsAre("merge: 2 groups, 2 keys: A, B", "merge: [A]x=1", "merge: [B]y=two words"));
}

TEST(ChangeLines, LeaveOutRestrictedGroups) {
  const core::IniFile settings = DocumentOf("[A]\nx=1\n[Secure/B]\nkey=hidden\n");
  EXPECT_THAT(MakeChangeLines("overwrite", {"Secure/C"}, settings, true),
              ElementsAre("overwrite: 1 group, 1 key: A", "overwrite: [A]x=1"));
  EXPECT_THAT(MakeChangeLines("merge", {}, DocumentOf("[Secure/B]\nkey=hidden\n"), true), IsEmpty());
}

TEST(ChangeLines, OfAChangeOfNothingAreNone) {
  EXPECT_THAT(MakeChangeLines("merge", {}, {}, true), IsEmpty());
}

TEST(ChangeLines, CountWhatThereAreTooManyOf) {
  core::IniFile settings;
  for (int i = 10; i < 99; ++i) settings.SetValue("G" + std::to_string(i), "k", std::to_string(i));
  const std::vector<std::string> lines = MakeChangeLines("merge", {}, settings, true);
  ASSERT_EQ(lines.size(), 66u);
  EXPECT_EQ(lines.front(),
            "merge: 89 groups, 89 keys: G10, G11, G12, G13, G14, G15, G16, G17, G18, G19, G20, G21, G22, G23, G24, "
            "G25 and 73 more");
  EXPECT_EQ(lines[64], "merge: [G73]k=73");
  EXPECT_EQ(lines.back(), "merge: 25 more");
}

}  // namespace tavix::test
