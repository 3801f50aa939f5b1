#include "programs/server/history/RollbackPlan.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

using Value = std::optional<std::string>;

const std::string kRecord = settings::server::SettingsManager::kDeletedGroups;

class Plan {
 public:
  explicit Plan(const std::string& pattern = "") : _filter(pattern) {}

  void Add(const std::string& group, const Value& key, const Value& now, const Value& then) {
    _plan.Add(group, key ? &*key : nullptr, now ? &*now : nullptr, then ? &*then : nullptr);
  }

  std::string GetWas() const { return TextOf(_plan.GetDifference().was); }
  std::string GetIs() const { return TextOf(_plan.GetDifference().is); }
  std::string GetSet() const { return TextOf(_plan.MakeAmendment().set); }
  std::string GetUnset() const { return TextOf(_plan.MakeAmendment().unset); }
  std::string GetDrop() const { return TextOf(_plan.MakeAmendment().drop); }
  bool IsEmpty() const { return _plan.IsEmpty(); }
  void Clear() { _plan.Clear(); }

 private:
  const daemon::SettingsFilter _filter;
  daemon::RollbackPlan _plan{_filter};
};

}  // namespace

TEST(RollbackPlan, SetsWhatIsToBeThereAndUnsetsWhatIsNot) {
  Plan plan;
  plan.Add("A", "changed", "2", "1");
  plan.Add("A", "gone", {}, "1");
  plan.Add("A", "new", "2", {});
  EXPECT_EQ(plan.GetWas(), "[A]\nchanged=2\nnew=2\n");
  EXPECT_EQ(plan.GetIs(), "[A]\nchanged=1\ngone=1\n");
  EXPECT_EQ(plan.GetSet(), "[A]\nchanged=1\ngone=1\n");
  EXPECT_EQ(plan.GetUnset(), "[A]\nnew=\n");
  EXPECT_EQ(plan.GetDrop(), "");
}

TEST(RollbackPlan, TakesNothingThatIsTheSame) {
  Plan plan;
  plan.Add("A", "x", "1", "1");
  plan.Add("A", "y", {}, {});
  plan.Add("B", {}, "", "");
  plan.Add("C", {}, {}, {});
  EXPECT_TRUE(plan.IsEmpty());
  EXPECT_EQ(plan.GetSet(), "");
}

TEST(RollbackPlan, BringsGroupsWithoutKeysBackAndTakesThemAway) {
  Plan plan;
  plan.Add("Came", {}, "", {});
  plan.Add("Went", {}, {}, "");
  plan.Add("Filled", {}, {}, "");
  plan.Add("Filled", "x", "1", {});
  plan.Add("Emptied", {}, "", {});
  plan.Add("Emptied", "x", {}, "1");
  EXPECT_EQ(plan.GetWas(), "[Came]\n[Emptied]\n[Filled]\nx=1\n");
  EXPECT_EQ(plan.GetIs(), "[Emptied]\nx=1\n[Filled]\n[Went]\n");
  EXPECT_EQ(plan.GetSet(), "[Emptied]\nx=1\n[Filled]\n[Went]\n");
  EXPECT_EQ(plan.GetUnset(), "[Filled]\nx=\n");
  EXPECT_EQ(plan.GetDrop(), "[Came]\n");
}

TEST(RollbackPlan, NeverTouchesRestrictedGroups) {
  Plan plan;
  plan.Add("Secure/A", "x", "2", "1");
  plan.Add("TrustedA", {}, "", {});
  EXPECT_TRUE(plan.IsEmpty());
}

TEST(RollbackPlan, TakesWhatMatchesAlone) {
  Plan plan("Network/*");
  plan.Add("Network/A", "x", "2", "1");
  plan.Add("Video", "x", "2", "1");
  EXPECT_EQ(plan.GetIs(), "[Network/A]\nx=1\n");
}

TEST(RollbackPlan, TakesMembersOfTheRecordThatMatchByKeyOrByValue) {
  Plan plan("Network/*");
  plan.Add(kRecord, "Network/A", "Network/A", {});
  plan.Add(kRecord, "1", "Network/B", {});
  plan.Add(kRecord, "2", {}, "Network/C*");
  plan.Add(kRecord, "Video", "Video", {});
  plan.Add(kRecord, "*", "*", {});
  EXPECT_EQ(plan.GetSet(), "[" + kRecord + "]\n2=Network/C*\n");
  EXPECT_EQ(plan.GetUnset(), "[" + kRecord + "]\n1=\nNetwork/A=\n");
}

TEST(RollbackPlan, OfTheRecordItselfTakesAllMembers) {
  Plan plan(kRecord);
  plan.Add(kRecord, "Video", "Video", {});
  plan.Add("Video", "x", {}, "1");
  EXPECT_EQ(plan.GetUnset(), "[" + kRecord + "]\nVideo=\n");
  EXPECT_EQ(plan.GetSet(), "");
}

TEST(RollbackPlan, DoesNotDropARecordWithoutMembers) {
  Plan plan;
  plan.Add(kRecord, {}, "", {});
  plan.Add(kRecord, {}, {}, "");
  EXPECT_TRUE(plan.IsEmpty());
}

TEST(RollbackPlan, BeginsAnew) {
  Plan plan;
  plan.Add("A", "x", "2", "1");
  plan.Clear();
  EXPECT_TRUE(plan.IsEmpty());
}

}  // namespace tavix::test
