#include "programs/cli/session/LocalAmendment.h"

#include <gtest/gtest.h>

#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

using programs::cli::ApplyAmendment;
using settings::Amendment;

constexpr char kBefore[] = "[a]\nk=1\nl=2\n[b]\nk=1\n[empty]\n";

// What it makes of that; "failure" when a condition does not hold.
std::string Apply(const Amendment& amendment) {
  const auto after = ApplyAmendment(amendment, DocumentOf(kBefore));
  return after ? TextOf(*after) : "failure";
}

}  // namespace

TEST(LocalAmendment, DependsOnWhatIsThere) {
  Amendment amendment;
  amendment.present = DocumentOf("[a]\nk=1\n[nothing]\n");
  EXPECT_EQ(Apply(amendment), kBefore);
  for (const char* present : {"[a]\nk=2\n", "[a]\nm=1\n", "[c]\nk=1\n"}) {
    amendment.present = DocumentOf(present);
    EXPECT_EQ(Apply(amendment), "failure") << present;
  }
}

TEST(LocalAmendment, DependsOnWhatIsNotThere) {
  Amendment amendment;
  amendment.absent = DocumentOf("[a]\nm=\n[c]\nk=\n[d]\n");
  EXPECT_EQ(Apply(amendment), kBefore);
  for (const char* absent : {"[a]\nk=\n", "[a]\nk=7\n", "[b]\n", "[empty]\n"}) {
    amendment.absent = DocumentOf(absent);
    EXPECT_EQ(Apply(amendment), "failure") << absent;
  }
}

TEST(LocalAmendment, ReplacesSetsAndUnsets) {
  Amendment amendment;
  amendment.replace = DocumentOf("[b]\nl=3\n[empty]\n");
  amendment.set = DocumentOf("[c]\nk=1\n");
  amendment.unset = DocumentOf("[a]\nk=\n[nothing]\n");
  EXPECT_EQ(Apply(amendment), "[a]\nl=2\n[b]\nl=3\n[c]\nk=1\n");
}

TEST(LocalAmendment, TakesAGroupWithItsLastKey) {
  Amendment amendment;
  amendment.unset = DocumentOf("[a]\n[b]\nk=\n");
  EXPECT_EQ(Apply(amendment), "[empty]\n");
}

TEST(LocalAmendment, NamesTheGroupsThatItTouches) {
  const Amendment amendment{DocumentOf("[a]\n"), DocumentOf("[b]\n"), DocumentOf("[c]\n"), DocumentOf("[d]\n"),
                            DocumentOf("[e]\n")};
  EXPECT_EQ(programs::cli::FindGroups(amendment), std::set<std::string>({"a", "b", "c", "d", "e"}));
}

}  // namespace tavix::test
