#include "programs/server/history/ExtraWords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

namespace tavix::test {

namespace {

// Knows one word.
class OneWord : public settings::server::IExtraCommands {
 public:
  OneWord(std::string word, std::string feature) : _word(std::move(word)), _feature(std::move(feature)) {}

  const Command* Find(std::string_view word) const override { return word == _word ? &_command : nullptr; }
  Answer CarryOut(const Call&) override {
    ++calls;
    return {};
  }
  void AddFeatures(std::set<std::string>& features) const override { features.insert(_feature); }

  int calls = 0;

 private:
  const std::string _word;
  const std::string _feature;
  const Command _command;
};

struct Owners : testing::Test {
  Owners() {
    words.Add(show);
    words.Add(undo);
  }

  OneWord show{"show", "a"};
  OneWord undo{"undo", "b"};
  daemon::ExtraWords words;
};

}  // namespace

TEST_F(Owners, HaveTheirWords) {
  EXPECT_NE(words.Find("show"), nullptr);
  EXPECT_NE(words.Find("undo"), nullptr);
  EXPECT_EQ(words.Find("sho"), nullptr);
}

TEST_F(Owners, CarryOutTheirWordsAlone) {
  words.CarryOut({"undo", "", {}});
  words.CarryOut({"unknown", "", {}});
  EXPECT_EQ(show.calls, 0);
  EXPECT_EQ(undo.calls, 1);
}

TEST_F(Owners, AllAddTheirFeatures) {
  std::set<std::string> features;
  words.AddFeatures(features);
  EXPECT_THAT(features, testing::ElementsAre("a", "b"));
}

}  // namespace tavix::test
