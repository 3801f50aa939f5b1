#include "programs/common/client/Revisions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "programs/common/client/Failure.h"
#include "tests/programs/common/client/MemorySession.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

using programs::Author;
using programs::Change;
using programs::HistoryReader;
using programs::ReadRecordedChanges;
using programs::ReadRecordedName;
using programs::RecordedKeys;
using programs::Revision;
using programs::TrialState;
using testing::ElementsAre;

std::string Describe(const Change& change) {
  const auto show = [](const std::optional<std::string>& value) { return value ? "'" + *value + "'" : "-"; };
  return "[" + change.group + "]" + (change.key ? *change.key + " " : "") + show(change.before) + " " +
         show(change.after) + (change.hasCome ? " came" : "");
}

std::vector<std::string> Describe(const std::vector<Change>& changes) {
  std::vector<std::string> texts;
  for (const Change& change : changes) texts.push_back(Describe(change));
  return texts;
}

// Has an answer to each line.
class AnsweringSession : public MemorySession {
 public:
  explicit AnsweringSession(std::map<std::string, std::string> answers)
      : MemorySession("", ""), _answers(std::move(answers)) {}

  Answer Ask(const std::string& line, Effect) override {
    const auto answer = _answers.find(line);
    if (answer == _answers.end()) return {true, "unexpected: " + line, {}};
    return {false, {}, DocumentOf(answer->second)};
  }

 private:
  const std::map<std::string, std::string> _answers;
};

std::vector<uint64_t> NumbersOf(const std::vector<Revision>& revisions) {
  std::vector<uint64_t> numbers;
  for (const Revision& revision : revisions) numbers.push_back(revision.number);
  return numbers;
}

}  // namespace

TEST(Revisions, NameHoldsAGroupAndAKey) {
  EXPECT_EQ(Describe(ReadRecordedName("[Network/Eth0]address")), "[Network/Eth0]address - -");
  EXPECT_EQ(Describe(ReadRecordedName("[a\\x5db]c]d")), "[a]b]c]d - -");
  EXPECT_EQ(Describe(ReadRecordedName("[]k\\x3d1")), "[]k=1 - -");
  EXPECT_EQ(Describe(ReadRecordedName("[a]=")), "[a] - -");
  EXPECT_EQ(ReadRecordedName("[a]=").key, "");
  EXPECT_FALSE(ReadRecordedName("[a]").key.has_value());
  EXPECT_FALSE(ReadRecordedName("").key.has_value());
}

TEST(Revisions, ValuesBeforeAndBehindMakeAChange) {
  const RecordedKeys keys{{"was [a]k", "1"}, {"is [a]k", "2"}, {"is [a]new", "3"}, {"was [b]gone", "4"},
                          {"was [c]", ""},   {"is [d]", ""},   {"by", "daemon"},   {"isolated", "x"}};
  EXPECT_THAT(Describe(ReadRecordedChanges(keys)),
              ElementsAre("[a]k '1' '2'", "[a]new - '3'", "[b]gone '4' -", "[c]- -", "[d]- - came"));
}

TEST(Revisions, AuthorIsWhatTheServerKnows) {
  const Author known = Author::From("unix 1000 100 812");
  EXPECT_EQ(known.connection + known.user + known.group + known.process, "unix1000100812");
  const Author unknown = Author::From("tcp - - -");
  EXPECT_EQ(unknown.connection + unknown.user + unknown.group + unknown.process, "tcp");
  EXPECT_EQ(Author::From("").connection, "");
}

TEST(Revisions, RevisionHasWhatTheAnswerHas) {
  const Revision revision = Revision::From("0000000118", {{"time", "1795311855000000001"},
                                                          {"by", "unix 1000 100 812"},
                                                          {"command", "merge"},
                                                          {"note", "site 4"},
                                                          {"trial", "t-1"},
                                                          {"is [a]k", "2"},
                                                          {"later", "unknown"}});
  EXPECT_EQ(revision.number, 118U);
  EXPECT_EQ(std::chrono::system_clock::to_time_t(revision.time), 1795311855);
  EXPECT_EQ(revision.command + revision.note + revision.trial + revision.omitted, "mergesite 4t-1");
  EXPECT_FALSE(revision.IsGap());
  EXPECT_EQ(revision.settings.size(), 1U);
  EXPECT_TRUE(Revision::From("1", {{"command", "gap"}}).IsGap());
}

TEST(Revisions, TrialHasWhatTheAnswerHas) {
  const TrialState trial = TrialState::From("t-1", {{"state", "pending"},
                                                    {"seconds", "87"},
                                                    {"revision", "118"},
                                                    {"was [a]k", "1"},
                                                    {"is [a]k", "2"},
                                                    {"kept [a]other", ""}});
  EXPECT_TRUE(trial.IsPending());
  EXPECT_EQ(trial.name + trial.seconds, "t-187");
  EXPECT_EQ(trial.revision, 118U);
  EXPECT_THAT(Describe(trial.settings), ElementsAre("[a]k '1' '2'"));
  EXPECT_THAT(Describe(trial.kept), ElementsAre("[a]other - -"));
}

TEST(Revisions, HistoryIsReadInPartsTheLatestFirst) {
  AnsweringSession session(
      {{"history - 2 N*", "[0000000117]\ncommand=merge\n[0000000118]\n[scanned]\nmore=true\nnext=117\n"},
       {"history 117 256 N*", "[scanned]\nmore=true\nnext=50\n"},
       {"history 50 1 N*", "[0000000049]\n[scanned]\nmore=false\nnext=0\n"}});
  HistoryReader history(session, "N*");
  EXPECT_THAT(NumbersOf(history.ReadNext(2)), ElementsAre(118U, 117U));
  EXPECT_TRUE(history.ReadNext(1000).empty());
  EXPECT_FALSE(history.HasEnded());
  EXPECT_THAT(NumbersOf(history.ReadNext(1)), ElementsAre(49U));
  EXPECT_TRUE(history.HasEnded());
}

TEST(Revisions, HistoryEndsWhereTheServerGoesNoFurther) {
  AnsweringSession session(
      {{"history - 1", "[scanned]\nmore=true\nnext=7\n"}, {"history 7 1", "[scanned]\nmore=true\nnext=7\n"}});
  HistoryReader history(session, "");
  history.ReadNext(1);
  EXPECT_FALSE(history.HasEnded());
  history.ReadNext(1);
  EXPECT_TRUE(history.HasEnded());
}

TEST(Revisions, RefusalIsAFailureWithTheReason) {
  AnsweringSession session(std::map<std::string, std::string>{});
  try {
    programs::AskOrFail(session, "rollback 7", programs::Session::Effect::kSettings, "not applied: ");
    FAIL();
  } catch (const programs::Failure& failure) {
    EXPECT_STREQ(failure.what(), "not applied: unexpected: rollback 7");
    EXPECT_EQ(failure.GetCode(), programs::kExitNotApplied);
  }
}

}  // namespace tavix::test
