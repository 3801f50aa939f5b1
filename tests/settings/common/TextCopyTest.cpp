#include "tavix/settings/common/TextCopy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tavix/settings/common/PatternIndex.h"

namespace {

using tavix::settings::common::PatternIndex;
using tavix::settings::common::TextCopy;
using testing::ElementsAre;

using Texts = std::set<std::string>;

// More than one piece.
Texts FillIndex(PatternIndex& index) {
  Texts texts;
  for (int i = 0; i < 10'000; ++i) texts.insert((i % 2 ? "Name" : "*Pattern") + std::to_string(i));
  for (const std::string& text : texts) index.Add(text);
  return texts;
}

void Add(PatternIndex& index, TextCopy& copy, const std::string& text) {
  copy.OnChanged({index.Add(text)});
}

void Remove(PatternIndex& index, TextCopy& copy, const std::string& text) {
  const PatternIndex::Id id = index.Find(text);
  index.Remove(id);
  copy.OnChanged({id});
}

Texts FinishCopy(const PatternIndex& index, TextCopy& copy) {
  while (copy.CopyPiece(index)) continue;
  copy.Finish(index);
  Texts texts;
  copy.MoveTo(texts);
  return texts;
}

TEST(TextCopy, HoldsAllTextsAndTheEmptyOne) {
  PatternIndex index;
  Texts expected = FillIndex(index);
  index.Add("");
  expected.insert("");
  TextCopy copy;
  EXPECT_EQ(FinishCopy(index, copy), expected);
}

TEST(TextCopy, AddsToWhatIsThere) {
  PatternIndex index;
  index.Add("B");
  TextCopy copy;
  EXPECT_FALSE(copy.CopyPiece(index));
  copy.Finish(index);
  Texts texts = {"A", "B", "C"};
  copy.MoveTo(texts);
  EXPECT_THAT(texts, ElementsAre("A", "B", "C"));
}

TEST(TextCopy, TakesManySmallPieces) {
  PatternIndex index;
  FillIndex(index);
  TextCopy copy;
  EXPECT_TRUE(copy.CopyPiece(index));
  EXPECT_TRUE(copy.CopyPiece(index));
  EXPECT_FALSE(copy.CopyPiece(index));
}

TEST(TextCopy, IsWhatTheIndexHoldsAtTheEndWhateverCameAndWentMeanwhile) {
  PatternIndex index;
  Texts expected = FillIndex(index);
  TextCopy copy;
  EXPECT_TRUE(copy.CopyPiece(index));
  for (int i = 0; i < 10'000; i += 3) {  // in what was copied, and in what was not
    const std::string gone = (i % 2 ? "Name" : "*Pattern") + std::to_string(i);
    Remove(index, copy, gone);
    expected.erase(gone);
    const std::string come = "New*" + std::to_string(i);  // takes the id over
    Add(index, copy, come);
    expected.insert(come);
  }
  Add(index, copy, "Name1");  // was there
  Remove(index, copy, "New*0");
  expected.erase("New*0");
  EXPECT_EQ(FinishCopy(index, copy), expected);
}

}  // namespace
