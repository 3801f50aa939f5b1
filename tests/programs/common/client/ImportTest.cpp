#include "programs/common/client/Import.h"

#include <gtest/gtest.h>

#include "programs/common/client/Failure.h"
#include "tests/programs/common/client/MemorySession.h"

namespace tavix::test {

namespace {

using programs::ExitCode;
using programs::Import;
using programs::ImportOptions;

using Names = std::set<std::string>;

const char kFiles[] = "[a]\nk=1\n[b]\nk=1\n[SecureKeys]\nk=1\n";

void Confirm(const Import::Gone&) {}

// Gives its user layer away group by group alone, as a large one has to be read.
class StreamedSession : public MemorySession {
 public:
  using MemorySession::MemorySession;
  core::IniFile GetUserSettings() override { throw std::logic_error("the whole user layer was asked for"); }
  void GetEachOfUser(const TakeGroup& take) override {
    for (auto group = user.begin(); group != user.end(); ++group) {
      core::IniFile part;
      part.MergeGroup(group);
      take(part);
    }
  }
};

// What a failed import ends with.
ExitCode CodeOf(MemorySession& session, const std::string& document, const ImportOptions& options) {
  try {
    Import(session, DocumentOf(document), "backup", options).Run(Confirm);
  } catch (const programs::Failure& failure) {
    return failure.GetCode();
  }
  return programs::kExitDone;
}

}  // namespace

TEST(Import, SetsWhatTheDocumentHolds) {
  MemorySession session(kFiles, "");
  Import import(session, DocumentOf("[a]\nk=2\n[c]\nk=3\n"), "backup", {});
  EXPECT_EQ(import.Run(Confirm).differences, 2U);
  EXPECT_EQ(TextOf(session.Get({"a", "b", "c"})), "[a]\nk=2\n[b]\nk=1\n[c]\nk=3\n");
}

TEST(Import, TakesAwayWhatTheDocumentLacksWhenItReplaces) {
  MemorySession session(kFiles, "");
  ImportOptions options;
  options.replaces = true;
  Import(session, DocumentOf("[a]\nk=2\n"), "backup", options).Run(Confirm);
  EXPECT_EQ(TextOf(session.Get({"*"})), "[SecureKeys]\nk=1\n[a]\nk=2\n");
}

TEST(Import, BringsBackTheGroupsThatWereNamedAlone) {
  MemorySession session(kFiles, "");
  ImportOptions options;
  options.groups = {"b*"};
  Import(session, DocumentOf("[a]\nk=2\n[b]\nk=2\n"), "backup", options).Run(Confirm);
  EXPECT_EQ(TextOf(session.Get({"a", "b"})), "[a]\nk=1\n[b]\nk=2\n");
}

TEST(Import, PutsTheUserLayerBack) {
  MemorySession session(kFiles, "[a]\nk=2\n[b]\nk=2\n");
  ImportOptions options;
  options.replaces = true;
  options.isUserLayer = true;
  Import(session, DocumentOf("[a]\nk=3\n"), "backup", options).Run(Confirm);
  EXPECT_EQ(TextOf(session.user), "[a]\nk=3\n");
}

TEST(Import, NeverKeepsTheWholeUserLayer) {
  StreamedSession session(kFiles, "[a]\nk=1\nown=1\n[c]\n[d]\nk=1\n");
  ImportOptions options;
  options.replaces = true;
  options.isUserLayer = true;
  Import import(session, DocumentOf("[a]\nk=2\n[d]\nk=1\n[e]\n"), "backup", options);
  std::string changes;
  import.FindDifferences([&](const programs::Change& change) {
    changes += (changes.empty() ? "" : " ") + change.group + "/" + change.key.value_or("");
});
EXPECT_EQ(changes, "a/k a/own c/ e/");
EXPECT_EQ(import.FindGone().reset, Names({"c"}));
EXPECT_EQ(import.Run(Confirm).differences, 4U);
EXPECT_EQ(TextOf(session.user), "[a]\nk=2\n[d]\nk=1\n[e]\n");
}  // namespace tavix::test

TEST(Import, CountsARecordOfDeletionsThatComesAndGoes) {
  const std::string record = "[TavixSettings/Data/DeletedGroups]\na=a\n";
  MemorySession session(kFiles, record);
  ImportOptions options;
  options.replaces = true;
  options.isUserLayer = true;
  Import import(session, DocumentOf("[b]\nk=2\n"), "backup", options);
  size_t differences = 0;
  import.FindDifferences([&](const programs::Change&) { ++differences;
});
EXPECT_EQ(differences, 3U);  // the record, its name, and the setting
EXPECT_EQ(import.Run(Confirm).differences, differences);
}

TEST(Import, FindsDifferencesWithoutWriting) {
  MemorySession session(kFiles, "");
  Import import(session, DocumentOf("[a]\nk=2\n"), "backup", {});
  std::vector<programs::Change> changes;
  import.FindDifferences([&](const programs::Change& change) { changes.push_back(change);
});
ASSERT_EQ(changes.size(), 1U);
EXPECT_EQ(changes[0].before, "1");
EXPECT_EQ(changes[0].after, "2");
EXPECT_EQ(session.writes, 0U);
}

TEST(Import, WritesNothingThatIsNotConfirmed) {
  MemorySession session(kFiles, "");
  ImportOptions options;
  options.replaces = true;
  Import import(session, {}, "backup", options);
  EXPECT_TRUE(import.IsEmpty());
  EXPECT_EQ(import.FindGone().deleted, Names({"a", "b"}));
  EXPECT_THROW(import.Run([](const Import::Gone& gone) {
    EXPECT_EQ(gone.deleted, Names({"a", "b"}));
    throw std::runtime_error("no");
  }),
               std::runtime_error);
  EXPECT_EQ(session.writes, 0U);
}

TEST(Import, FindsWhichGroupsGo) {
  MemorySession session(kFiles, "[c]\nk=1\n");
  ImportOptions options;
  EXPECT_TRUE(Import(session, DocumentOf("[a]\nk=2\n"), "backup", options).FindGone().IsEmpty());
  options.replaces = true;
  const Import::Gone gone = Import(session, DocumentOf("[a]\nk=2\n"), "backup", options).FindGone();
  EXPECT_EQ(gone.deleted, Names({"b", "c"}));
  EXPECT_EQ(gone.reset, Names());
}

TEST(Import, FindsWhichGroupsTheUserLayerLosesAndWhichItsRecordDeletes) {
  const std::string record = "[TavixSettings/Data/DeletedGroups]\n";
  MemorySession session(kFiles, record + "gone=gone\nback=back\n[c]\nk=1\n[back]\nk=1\n[again]\nk=1\n");
  ImportOptions options;
  options.replaces = true;
  options.isUserLayer = true;
  const std::string document = record + "a=a\nback=back\nagain=again\nnever=never\nb=b\n[b]\nk=2\n";
  Import import(session, DocumentOf(document), "backup", options);
  EXPECT_EQ(import.FindGone().deleted, Names({"a", "again", "back"}));
  EXPECT_EQ(import.FindGone().reset, Names({"c"}));
}

TEST(Import, CarriesOutTheDeletionsOfTheGroupsThatWereNamedAlone) {
  MemorySession session(kFiles, "");
  ImportOptions options;
  options.groups = {"TavixSettings/*", "b"};
  const std::string record = "[TavixSettings/Data/DeletedGroups]\na=a\nb=b\n";
  Import(session, DocumentOf(record), "backup", options).Run(Confirm);
  EXPECT_EQ(TextOf(session.Get({"a", "b"})), "[a]\nk=1\n");
}

TEST(Import, RefusesRestrictedGroupsThatDiffer) {
  MemorySession session(kFiles, "");
  EXPECT_EQ(CodeOf(session, "[SecureKeys]\nk=2\n[a]\nk=2\n", {}), programs::kExitRefused);
  EXPECT_EQ(session.writes, 0U);
  EXPECT_EQ(CodeOf(session, "[SecureKeys]\nk=1\n[a]\nk=2\n", {}), programs::kExitDone);
}

TEST(Import, RefusesABackupOfTheUserLayerForTheWholeStore) {
  MemorySession session(kFiles, "");
  ImportOptions options;
  options.replaces = true;
  EXPECT_EQ(CodeOf(session, "[TavixSettings/Data/DeletedGroups]\na=a\n", options), programs::kExitUsage);
}

TEST(Import, RefusesNamesThatCannotBeSent) {
  MemorySession session(kFiles, "");
  EXPECT_EQ(CodeOf(session, "[a\\nb]\nk=2\n", {}), programs::kExitBadInput);
}

}  // namespace tavix::test
