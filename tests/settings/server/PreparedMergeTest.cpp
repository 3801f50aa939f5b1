#include "tavix/settings/server/PreparedMerge.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

using core::IniFile;
using settings::server::PreparedMerge;
using settings::server::StoreAccount;

namespace {

using Names = std::set<std::string>;

// A document, and what a store knows of it.
struct CountedDocument {
  explicit CountedDocument(IniFile content) : document(std::move(content)) { account.CountAnew(document, {}); }

  void Merge(PreparedMerge& merge) { merge.CarryOut(document, account, account.GetAllTally()); }

  void ExpectCounted() const {
    StoreAccount anew;
    anew.CountAnew(document, {});
    EXPECT_EQ(account.GetBytes(), anew.GetBytes());
    EXPECT_EQ(account.GetAllTally().CountKeys(), anew.GetAllTally().CountKeys());
    EXPECT_EQ(account.GetAllTally().CountNameBytes(), anew.GetAllTally().CountNameBytes());
  }

  IniFile document;
  StoreAccount account;
};

}  // namespace

TEST(PreparedMerge, ChangesNothingBeforeItIsCarriedOut) {
  CountedDocument counted(DocumentOf("[A]\nx=1\n"));
  PreparedMerge merge;
  merge.Prepare(counted.document, DocumentOf("[A]\nx=2\ny=1\n[B]\n"), {});
  EXPECT_EQ(TextOf(counted.document), "[A]\nx=1\n");
  counted.ExpectCounted();
}

TEST(PreparedMerge, IsAMergeAndCountsIt) {
  RandomDocuments documents(17);
  for (int step = 0; step < 200; ++step) {
    CountedDocument counted(IniFile(documents.Next()));
    const IniFile settings(documents.Next());
    IniFile expected = counted.document;
    expected.MergeSettings(settings);
    PreparedMerge merge;
    merge.Prepare(counted.document, settings, {});
    counted.Merge(merge);
    ASSERT_EQ(TextOf(counted.document), TextOf(expected));
    counted.ExpectCounted();
  }
}

TEST(PreparedMerge, MakesGroupsAnewThatAreRemovedBefore) {
  CountedDocument counted(DocumentOf("[A]\nx=1\ny=1\n[B]\nx=1\n"));
  PreparedMerge merge;
  merge.Prepare(counted.document, DocumentOf("[A]\nx=2\n[B]\ny=2\n"), Names{"A"});
  counted.account.RemoveGroup(counted.document, counted.account.GetAllTally(), "A");
  counted.Merge(merge);
  EXPECT_EQ(TextOf(counted.document), "[A]\nx=2\n[B]\nx=1\ny=2\n");
  counted.ExpectCounted();
}

TEST(PreparedMerge, AddsFurtherKeysOfAGroupThatIsNew) {
  CountedDocument counted(IniFile{});
  PreparedMerge merge;
  merge.Prepare(counted.document, DocumentOf("[A]\nx=1\n"), {});
  merge.Prepare(counted.document, DocumentOf("[A]\ny=1\n"), {});
  counted.Merge(merge);
  EXPECT_EQ(TextOf(counted.document), "[A]\nx=1\ny=1\n");
  counted.ExpectCounted();
}

// A plan for many groups may have brought the group in the meantime.
TEST(PreparedMerge, AddsKeysToAGroupThatHasComeSince) {
  CountedDocument counted(IniFile{});
  PreparedMerge merge;
  merge.Prepare(counted.document, DocumentOf("[A]\nx=1\n"), {});
  PreparedMerge other;
  other.Prepare(counted.document, DocumentOf("[A]\ny=1\n"), {});
  counted.Merge(other);
  counted.Merge(merge);
  EXPECT_EQ(TextOf(counted.document), "[A]\nx=1\ny=1\n");
  counted.ExpectCounted();
}

}  // namespace tavix::test
