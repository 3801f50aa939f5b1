#include "tavix/settings/server/DeletedGroupsRecord.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

using core::IniFile;
using settings::server::DeletedGroupsRecord;

namespace {

using Names = std::set<std::string>;

// The record of a user layer, which is changed with it.
class RecordedLayer {
 public:
  explicit RecordedLayer(const std::string& members = "") : _layer(DocumentOf("[R]\n" + members)) {
    _record.Read(_layer);
  }

  // Returns what was added, as settings text.
  std::string Change(bool isRemoved, const IniFile& settings, const Names& members) {
    DeletedGroupsRecord::Change change = _record.Plan(_layer, isRemoved, settings, members);
    if (isRemoved) _layer.RemoveGroup("R");
    _layer.MergeSettings(settings);
    _layer.MergeSettings(change.added);
    const std::string added = TextOf(change.added);
    _record.CarryOut(change);
    return added;
  }

  std::string Add(const Names& members) { return Change(false, {}, members); }

  std::string GetText() const { return TextOf(_layer); }
  size_t CountPatterns() const { return _record.CountPatterns(); }

  // What is known of the record is what it holds.
  void ExpectKnown(const Names& members) const {
    DeletedGroupsRecord anew("R");
    anew.Read(_layer);
    EXPECT_EQ(_record.CountPatterns(), anew.CountPatterns());
    EXPECT_EQ(TextOf(_record.Plan(_layer, false, {}, members).added),
              TextOf(anew.Plan(_layer, false, {}, members).added));
  }

 private:
  IniFile _layer;
  DeletedGroupsRecord _record{"R"};
};

}  // namespace

TEST(DeletedGroupsRecord, AddsWhatItDoesNotHoldUnderItsOwnText) {
  RecordedLayer layer("A=A\n1=B\n");
  EXPECT_EQ(layer.Add({"A", "B", "C*"}), "[R]\nC*=C*\n");
  EXPECT_EQ(layer.Add({"A", "B", "C*"}), "");
  EXPECT_EQ(layer.CountPatterns(), 1u);
}

TEST(DeletedGroupsRecord, AddsAMemberWhoseTextIsTakenAsAKeyUnderAnother) {
  RecordedLayer layer("A=B\n");
  EXPECT_EQ(layer.Add({"A", "A~", "B"}), "[R]\nA~=A\nA~~=A~\n");
  EXPECT_EQ(layer.Add({"A", "A~", "B"}), "");
}

TEST(DeletedGroupsRecord, KnowsMembersThatASettingReplaces) {
  RecordedLayer layer("1=A\n2=A\n3=P*\n");
  layer.Change(false, DocumentOf("[R]\n1=C\n3=D\n"), {});
  EXPECT_EQ(layer.CountPatterns(), 0u);
  EXPECT_EQ(layer.Add({"A", "C", "D"}), "");
  layer.Change(false, DocumentOf("[R]\n2=C\n"), {});
  EXPECT_EQ(layer.Add({"A"}), "[R]\nA=A\n");
}

TEST(DeletedGroupsRecord, AddsTheMembersBehindTheSettings) {
  RecordedLayer layer;
  EXPECT_EQ(layer.Change(false, DocumentOf("[R]\n1=A\nB=C\n"), {"A", "B", "C"}), "[R]\nB~=B\n");
  EXPECT_EQ(layer.GetText(), "[R]\n1=A\nB=C\nB~=B\n");
}

TEST(DeletedGroupsRecord, ForgetsWhatIsRemoved) {
  RecordedLayer layer("1=A\n2=P*\n");
  layer.Change(true, DocumentOf("[R]\n3=Q*\n"), {});
  EXPECT_EQ(layer.CountPatterns(), 1u);
  EXPECT_EQ(layer.Add({"A", "Q*"}), "[R]\nA=A\n");
}

TEST(DeletedGroupsRecord, KnowsWhatItHoldsAfterAnyChanges) {
  RandomDocuments random(23);
  const Names all{"", "1", "2", "A", "A*", "A~", "B*", "B*~"};
  const auto pick = [&] { return *std::next(all.begin(), static_cast<long>(random.Below(all.size()))); };
  RecordedLayer layer;
  for (int step = 0; step < 500 && !testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE(step);
    IniFile settings;
    for (size_t left = random.Below(3); left > 0; --left) settings.SetValue("R", pick(), pick());
    Names members;
    for (size_t left = random.Below(3); left > 0; --left) members.insert(pick());
    layer.Change(random.Below(10) == 0, settings, members);
    layer.ExpectKnown(all);
  }
}

}  // namespace tavix::test
