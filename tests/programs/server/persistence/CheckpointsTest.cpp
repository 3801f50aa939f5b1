#include "programs/server/persistence/Checkpoints.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"
#include "tests/support/PowerCuts.h"

// Copies of the user settings under names.

namespace tavix::test {

using daemon::Checkpoints;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char kOne[] = "user.ini.checkpoint.one";
constexpr char kNew[] = "user.ini.new.checkpoint";

struct Checkpoint : testing::Test {
  MemoryFiles files;
  Checkpoints checkpoints{files, kUserFile, 2};

  static void Save(Checkpoints& checkpoints, const std::string& name, uint64_t revision, const std::string& settings) {
    core::StringOstream text;
    Checkpoints::Begin(text, revision);
    text << settings;
    checkpoints.Save(name, text);
  }
  void Save(const std::string& name, uint64_t revision, const std::string& settings) {
    Save(checkpoints, name, revision, settings);
  }

  template <class Call>
  static std::string ReasonOf(Call call) {
    try {
      call();
    } catch (const Checkpoints::Refused& refusal) {
      return refusal.what();
    }
    return "";
  }
  std::string WhyNotSaved(const std::string& name) {
    return ReasonOf([&] { Save(name, 1, "[A]\nx=1\n"); });
  }
};

}  // namespace

TEST_F(Checkpoint, HoldsTheSettingsAndTheirRevision) {
  Save("one", 118, "[A]\nx=1\n");
  const auto loaded = checkpoints.Load("one");
  EXPECT_EQ(TextOf(loaded.settings), "[A]\nx=1\n");
  EXPECT_EQ(loaded.revision, 118u);
  EXPECT_GT(loaded.time, 0);
  EXPECT_EQ(loaded.bytes, files.Get(kOne).size());
  EXPECT_THAT(files.GetNames(), ElementsAre(kOne));
}

TEST_F(Checkpoint, OfANameTakesThePlaceOfTheOneBefore) {
  Save("one", 1, "[A]\nx=1\n");
  Save("two", 1, "[A]\nx=1\n");
  Save("one", 2, "[A]\nx=2\n");
  EXPECT_EQ(TextOf(checkpoints.Load("one").settings), "[A]\nx=2\n");
  EXPECT_EQ(checkpoints.List().at("one").revision, 2u);
  EXPECT_EQ(checkpoints.List().size(), 2u);
}

TEST_F(Checkpoint, BeyondTheLimitIsRefused) {
  Save("one", 1, "");
  Save("two", 1, "");
  EXPECT_EQ(WhyNotSaved("three"), "2 checkpoints are kept already: forget one of them");
  checkpoints.Forget("one");
  EXPECT_EQ(WhyNotSaved("three"), "");
}

TEST_F(Checkpoint, IsRefusedWhereNoneAreMadeAndThoseBeforeStay) {
  Save("one", 1, "[A]\nx=1\n");
  Checkpoints none(files, kUserFile, 0);
  EXPECT_EQ(ReasonOf([&] { Save(none, "one", 1, ""); }), "this server makes no checkpoints: it needs --checkpoints N");
  EXPECT_EQ(TextOf(none.Load("one").settings), "[A]\nx=1\n");
  none.Forget("one");
  EXPECT_TRUE(none.List().empty());
}

TEST_F(Checkpoint, HasANameThatIsNoPath) {
  const std::string longest(64, 'x');
  for (const std::string& name : {longest, std::string("Az09._-"), std::string("...")}) {
    EXPECT_EQ(WhyNotSaved(name), "") << name;
    checkpoints.Forget(name);
  }
  for (const std::string& name : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                                  std::string("a b"), std::string("\xc3\xa4"), longest + "x"}) {
    const std::string reason = "'" + name + "' is no name of a checkpoint: 1 to 64 of A-Z a-z 0-9 . _ -";
    EXPECT_EQ(WhyNotSaved(name), reason);
    EXPECT_EQ(ReasonOf([&] { checkpoints.Forget(name); }), reason);
    EXPECT_EQ(ReasonOf([&] { checkpoints.Load(name); }), reason);
  }
}

TEST_F(Checkpoint, ThatIsNotThereIsReportedByItsName) {
  EXPECT_EQ(ReasonOf([&] { checkpoints.Load("one"); }), "no checkpoint is named 'one'");
  EXPECT_EQ(ReasonOf([&] { checkpoints.Forget("one"); }), "no checkpoint is named 'one'");
}

TEST_F(Checkpoint, ThatIsDamagedIsListedWithTheReasonAndCanBeReplacedAndForgotten) {
  for (const std::string damage : {"value", "x"}) {
    Save("one", 1, "[A]\nx=value\n");
    std::string bytes = files.Get(kOne);
    files.Put(kOne, damage == "x" ? "" : bytes.replace(bytes.find(damage), 1, "V"));
    EXPECT_EQ(checkpoints.List().at("one").damage, "'user.ini.checkpoint.one' is not as it was written");
    EXPECT_EQ(ReasonOf([&] { checkpoints.Load("one"); }),
              "the checkpoint 'one' can't be read: 'user.ini.checkpoint.one' is not as it was written");
    EXPECT_EQ(WhyNotSaved("one"), "");
    EXPECT_EQ(checkpoints.List().at("one").damage, "");
  }
  files.Put(kOne, files.Get(kOne).substr(0, 150));
  EXPECT_EQ(checkpoints.List().at("one").damage, "'user.ini.checkpoint.one': it has no last line");
  checkpoints.Forget("one");
  EXPECT_TRUE(checkpoints.List().empty());
}

TEST_F(Checkpoint, NeverReplacesOrRemovesSomethingElse) {
  files.Put(kOne, "[Somebody]\nelse=1\n");
  EXPECT_EQ(
      WhyNotSaved("one"),
      "the checkpoint 'one' can't be written: 'user.ini.checkpoint.one' holds something else, and is left as it is");
  EXPECT_EQ(
      ReasonOf([&] { checkpoints.Forget("one"); }),
      "the checkpoint 'one' can't be removed: 'user.ini.checkpoint.one' holds something else, and is left as it is");
  EXPECT_EQ(files.Get(kOne), "[Somebody]\nelse=1\n");
  EXPECT_NE(checkpoints.List().at("one").damage, "");
}

TEST_F(Checkpoint, ThatCanNotBeReadIsLeftAsItIs) {
  Save("one", 1, "[A]\nx=1\n");
  files.FailReads(kOne, EACCES, 1);
  EXPECT_THAT(WhyNotSaved("one"), StartsWith("the checkpoint 'one' can't be written: 'user.ini.checkpoint.one': "));
  EXPECT_EQ(checkpoints.Load("one").revision, 1u);
}

// Whatever operation fails: the one before is there, or the new one.
TEST_F(Checkpoint, ThatCanNotBeWrittenLeavesTheOneBefore) {
  Save("one", 1, "[A]\nx=1\n");
  const MemoryFiles::Image image = files.GetImage();
  size_t refused = 0;
  for (bool isDone = false; !isDone;) {
    MemoryFiles failing(image);
    Checkpoints some(failing, kUserFile, 2);
    failing.FailAfter(refused, false);
    const std::string reason = ReasonOf([&] { Save(some, "one", 2, "[A]\nx=2\n"); });
    isDone = reason.empty();
    if (!isDone) {
      EXPECT_THAT(reason, HasSubstr("No space left on device"));
      ++refused;
    }
    const auto loaded = some.Load("one");
    EXPECT_EQ(TextOf(loaded.settings), loaded.revision == 1 ? "[A]\nx=1\n" : "[A]\nx=2\n");
    EXPECT_EQ(failing.GetNames().size(), 1u);
  }
  EXPECT_GE(refused, 5u);
}

TEST_F(Checkpoint, WithoutRoomLeavesTheRoomThatThereWas) {
  files.LimitRoom(64 * 1024);
  EXPECT_EQ(ReasonOf([&] { Save("one", 1, "[A]\nx=1\n"); }), "");
  EXPECT_THAT(ReasonOf([&] { Save("two", 1, "[A]\nx=" + std::string(64 * 1024, 'x') + "\n"); }),
              StartsWith("the checkpoint 'two' can't be written: "));
  EXPECT_THAT(files.GetNames(), ElementsAre(kOne));
}

TEST_F(Checkpoint, OnItsWayWhenTheDaemonCrashedIsRemovedAtTheNextStart) {
  Save("new", 1, "[A]\nx=1\n");
  files.Put(kNew, "half");
  const Checkpoints next(files, kUserFile, 2);
  EXPECT_THAT(files.GetNames(), ElementsAre("user.ini.checkpoint.new"));
  EXPECT_EQ(next.List().count("new"), 1u);
}

TEST_F(Checkpoint, IsOfOneStateWheneverThePowerGoes) {
  std::vector<size_t> saved;  // operations, once the checkpoint of that revision was there
  for (uint64_t revision = 1; revision <= 3; ++revision) {
    Save("one", revision, "[A]\nx=" + std::to_string(revision) + std::string(5000, 'x') + "\n");
    saved.push_back(files.CountOperations());
  }
  PowerCuts cuts({}, files.GetOperations(), 1);
  do {
    for (int image = 0; image < 20; ++image) {
      MemoryFiles left(cuts.Cut());
      const Checkpoints next(left, kUserFile, 2);
      const auto list = next.List();
      const uint64_t least = static_cast<uint64_t>(
          std::count_if(saved.begin(), saved.end(), [&](size_t end) { return end <= cuts.GetPosition(); }));
      ASSERT_EQ(list.size(), left.GetNames().size());
      if (list.empty()) {
        ASSERT_EQ(least, 0u);
        continue;
      }
      ASSERT_EQ(list.at("one").damage, "");
      ASSERT_GE(list.at("one").revision, least);
    }
  } while (cuts.Advance());
}

}  // namespace tavix::test
