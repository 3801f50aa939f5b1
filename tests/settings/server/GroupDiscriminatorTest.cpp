#include "tavix/settings/server/GroupDiscriminator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tests/support/DocumentText.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::server::GroupDiscriminator;
using tavix::test::DocumentOf;
using tavix::test::TextOf;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kMixed[] = "[A]\nx=1\n[Net/SecureKeys]\nk=1\n[Trusted/X]\nk=2\n[Z]\ny=2\n";

TEST(GroupDiscriminator, ANameThatHoldsSecureOrTrustedIsRestricted) {
  for (const char* group : {"Secure", "Trusted", "Net/SecureKeys", "TrustedHosts", "xTrustedy", "xSecure",
                            "TrustedNetworks/SecureBoot", "SecureSecure", "Secure*"}) {
    EXPECT_TRUE(GroupDiscriminator::IsRestrictedGroup(group)) << group;
  }
}

TEST(GroupDiscriminator, EveryOtherNameIsNot) {
  for (const char* group : {"", "secure", "SECURE", "trusted", "Secur", "Sec/ure", "Trust/ed", "Trus*ted", "*"}) {
    EXPECT_FALSE(GroupDiscriminator::IsRestrictedGroup(group)) << group;
  }
}

TEST(GroupDiscriminator, NeitherKeysNorValuesMakeAGroupRestricted) {
  IniFile document = DocumentOf("[A]\nSecure=Trusted\n");
  GroupDiscriminator::FilterOutRestrictedGroups(document);
  EXPECT_EQ(TextOf(document), "[A]\nSecure=Trusted\n");
}

TEST(GroupDiscriminator, MergesTheUnrestrictedGroups) {
  IniFile document;
  GroupDiscriminator::MergeUnrestrictedGroups(document, DocumentOf("[A]\nx=1\n[Trusted/X]\nk=2\n"));
  EXPECT_EQ(TextOf(document), "[A]\nx=1\n");
}

TEST(GroupDiscriminator, MergingKeepsWhatIsThereAndOverridesWhatIsGiven) {
  IniFile document = DocumentOf("[A]\nx=0\ny=0\n[Secure/B]\nk=0\n");
  GroupDiscriminator::MergeUnrestrictedGroups(document, DocumentOf("[A]\nx=1\n[Secure/B]\nk=1\n"));
  EXPECT_EQ(TextOf(document), "[A]\nx=1\ny=0\n[Secure/B]\nk=0\n") << "a restricted group that is there is untouched";
}

TEST(GroupDiscriminator, FiltersASetOfNames) {
  std::set<std::string> groups = {"A", "Secure", "Secure*", "Trusted/X", "secure"};
  GroupDiscriminator::FilterOutRestrictedGroups(groups);
  EXPECT_THAT(groups, ElementsAre("A", "secure"));
}

TEST(GroupDiscriminator, FiltersADocument) {
  IniFile document = DocumentOf(kMixed);
  GroupDiscriminator::FilterOutRestrictedGroups(document);
  EXPECT_EQ(TextOf(document), "[A]\nx=1\n[Z]\ny=2\n");
}

TEST(GroupDiscriminator, FiltersADocumentOfRestrictedGroupsToNothing) {
  IniFile document = DocumentOf("[Secure/A]\n[Secure/B]\n[Trusted/C]\n");
  GroupDiscriminator::FilterOutRestrictedGroups(document);
  EXPECT_TRUE(document.IsEmpty());
}

TEST(GroupDiscriminator, FilteringOutSecureGroupsKeepsTrustedOnes) {
  IniFile document = DocumentOf("[A]\nx=1\n[Trusted/Secure]\nk=0\n[Trusted/X]\nk=2\n[Secure/Y]\nk=3\n");
  GroupDiscriminator::FilterOutSecureGroups(document);
  EXPECT_EQ(TextOf(document), "[A]\nx=1\n[Trusted/X]\nk=2\n");
}

TEST(GroupDiscriminator, FilteringNothingChangesNothing) {
  std::set<std::string> groups;
  IniFile document;
  GroupDiscriminator::FilterOutRestrictedGroups(groups);
  GroupDiscriminator::FilterOutRestrictedGroups(document);
  GroupDiscriminator::FilterOutSecureGroups(document);
  GroupDiscriminator::MergeUnrestrictedGroups(document, IniFile());
  EXPECT_THAT(groups, IsEmpty());
  EXPECT_TRUE(document.IsEmpty());
}

}  // namespace
