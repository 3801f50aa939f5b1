#include "tavix/settings/server/DocumentEdit.h"

#include <gtest/gtest.h>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/DocumentTally.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

using core::IniFile;
using settings::server::DocumentEdit;
using settings::server::StoreAccount;

namespace {

// Sets, creates, erases and removes something.
void Fill(DocumentEdit& edit) {
  edit.Set("A", "x", "a value that is longer than a string holds in itself");
  edit.Set("A", "new", "1");
  edit.Erase("A", "y");
  edit.RemoveGroup("B");
  edit.Create("C");
}

}  // namespace

TEST(DocumentEdit, IsCarriedOutWithItsAccountAndItsTally) {
  IniFile document = DocumentOf("[A]\nx=1\ny=2\nz=3\n[B]\nx=1\n");
  StoreAccount account;
  account.CountAnew(document, {});
  DocumentEdit edit;
  Fill(edit);
  const std::ptrdiff_t growth = edit.CountGrowth(document);
  const size_t before = account.GetBytes();
  edit.Prepare(document);
  edit.CarryOut(document, account, account.GetAllTally());
  EXPECT_EQ(TextOf(document), "[A]\nnew=1\nx=a value that is longer than a string holds in itself\nz=3\n[C]\n");
  EXPECT_EQ(account.GetBytes(), StoreAccount::Count(document));
  EXPECT_EQ(account.GetBytes(), before + static_cast<size_t>(growth));
  EXPECT_EQ(account.GetAllTally().CountKeys(), 3u);
  EXPECT_EQ(account.GetAllTally().CountNameBytes(), 2u);
}

TEST(DocumentEdit, ChangesNothingBeforeItIsCarriedOut) {
  IniFile document = DocumentOf("[A]\nx=1\ny=2\n[B]\nx=1\n");
  DocumentEdit edit;
  Fill(edit);
  edit.Prepare(document);
  EXPECT_EQ(TextOf(document), "[A]\nx=1\ny=2\n[B]\nx=1\n");
}

TEST(DocumentEdit, OfAGroupThatIsRemovedNothingElseIsDone) {
  IniFile document = DocumentOf("[A]\nx=1\ny=2\n");
  StoreAccount account;
  account.CountAnew(document, {});
  DocumentEdit edit;
  edit.Set("A", "x", "2");
  edit.Erase("A", "y");
  edit.RemoveGroup("A");
  edit.Prepare(document);
  edit.CarryOut(document, account, account.GetAllTally());
  EXPECT_EQ(TextOf(document), "");
  EXPECT_EQ(account.GetBytes(), 0u);
}

TEST(DocumentEdit, KnowsTheGroupsThatItTouches) {
  DocumentEdit edit;
  Fill(edit);
  for (const char* group : {"A", "B", "C"}) EXPECT_TRUE(edit.Touches(group)) << group;
  EXPECT_FALSE(edit.Touches("D"));
}

}  // namespace tavix::test
