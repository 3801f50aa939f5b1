#include "tavix/settings/server/StoreAmendment.h"

#include <gtest/gtest.h>

#include <string>

#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ServedStore.h"

// Amendments by the store's own host. What clients can ask for is tested with SettingsManager.

namespace tavix::test {

using settings::server::ChangeOrigin;
using settings::server::ChangeTicket;
using settings::server::SettingsManager;
using settings::server::StoreAmendment;

namespace {

const std::string kRecord = std::string("[") + SettingsManager::kDeletedGroups + "]\n";

bool Amend(ServedStore& served, const StoreAmendment& amendment) {
  ChangeTicket ignored = 0;
  return served.store.Amend(amendment, ChangeOrigin(), ignored);
}

}  // namespace

TEST(StoreAmendment, ADroppedGroupGoesAndTheRecordStaysAsItIs) {
  const std::string record = kRecord + "B=B\n";
  ServedStore served({"[A]\nd=1\n[B]\nd=1\n"}, "[A]\nx=1\n[B]\nx=1\n[C]\nx=1\ny=1\n" + record);
  StoreAmendment amendment;
  amendment.drop = DocumentOf("[A]\n[B]\n[C]\nkey=\n" + kRecord);
  amendment.set = DocumentOf("[C]\nx=2\n");
  ASSERT_TRUE(Amend(served, amendment));
  EXPECT_EQ(UserSettingsOf(served.store), "[C]\nx=2\n" + record);
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nd=1\n[C]\nx=2\n");
}

TEST(StoreAmendment, ADroppedGroupMayBeInEveryOtherChange) {
  ServedStore served({}, "[A]\nx=1\n[B]\nx=1\n[C]\nx=1\n" + kRecord + "C=C\n");
  StoreAmendment amendment;
  amendment.drop = DocumentOf("[A]\n[B]\n[C]\n");
  amendment.replace = DocumentOf("[A]\ny=2\n");
  amendment.unset = DocumentOf("[B]\nx=\n[C]\n");
  ASSERT_TRUE(Amend(served, amendment));
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\ny=2\n" + kRecord + "A=A\n");
}

TEST(StoreAmendment, ADroppedGroupMayHaveTheNameOfAPattern) {
  ServedStore served({"[A]\nd=1\n"}, "[A]\nx=1\n[A*]\nx=1\n");
  StoreAmendment amendment;
  amendment.drop = DocumentOf("[A*]\n");
  ASSERT_TRUE(Amend(served, amendment));
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nx=1\n");
}

}  // namespace tavix::test
