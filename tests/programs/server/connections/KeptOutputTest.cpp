#include "programs/server/connections/KeptOutput.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace tavix::test {

using daemon::KeptOutput;
using daemon::SharedBound;

namespace {

constexpr size_t kMax = 1024 * 1024 * 1024;

std::string Bytes(size_t count, size_t seed) {
  std::mt19937 random(static_cast<unsigned int>(seed));
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

KeptOutput::Text Share(const std::string& text) {
  return std::make_shared<const std::string>(text);
}

std::string Join(const KeptOutput::Pieces& pieces, size_t count) {
  std::string all;
  for (size_t i = 0; i < count; ++i) all.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
  return all;
}

// The first bytes, as few as one look shows.
std::string Front(const KeptOutput& kept, size_t limit) {
  KeptOutput::Pieces pieces;
  return Join(pieces, kept.GetFront(pieces, limit));
}

std::string TakeAll(KeptOutput& kept) {
  std::string all;
  for (std::string front; !(front = Front(kept, kept.GetSize())).empty(); all += front) kept.Drop(front.size());
  return all;
}

class KeptBytes : public testing::Test {
 protected:
  SharedBound _bound{kMax};
  SharedBound::Part _part{_bound, -1};
  KeptOutput _kept{_part};
};

}  // namespace

TEST_F(KeptBytes, AreNoneAtFirst) {
  EXPECT_EQ(_kept.GetSize(), 0u);
  EXPECT_EQ(Front(_kept, kMax), "");
}

TEST_F(KeptBytes, LeaveInTheirOrderSharedOrNot) {
  const KeptOutput::Text text = Share(Bytes(5000, 1));
  _kept.Append("before");
  _kept.Append(text, 0);
  _kept.Append(text, 0);
  _kept.Append("behind");
  EXPECT_EQ(_kept.GetSize(), 10'012u);
  EXPECT_EQ(TakeAll(_kept), "before" + *text + *text + "behind");
}

TEST_F(KeptBytes, OfATextAreThoseThatWereNotSentBefore) {
  const KeptOutput::Text text = Share(Bytes(5000, 1));
  _kept.Append(text, 4000);
  _kept.Append(text, 0);
  EXPECT_EQ(TakeAll(_kept), text->substr(4000) + *text);
}

TEST_F(KeptBytes, AreReferredToUntilTheLastOfThemHasLeft) {
  const KeptOutput::Text text = Share(Bytes(5000, 1));
  for (int i = 0; i < 10; ++i) _kept.Append(text, 0);
  EXPECT_EQ(text.use_count(), 11);
  _kept.Drop(5000);
  EXPECT_EQ(text.use_count(), 10);
  _kept.Drop(4999);
  EXPECT_EQ(text.use_count(), 10);
  _kept.Drop(1);
  EXPECT_EQ(text.use_count(), 9);
  _kept.Clear();
  EXPECT_EQ(text.use_count(), 1);
}

TEST_F(KeptBytes, AreCopiedWhereAReferenceWouldHardlyCostLess) {
  const KeptOutput::Text text = Share(Bytes(KeptOutput::kMinShared - 1, 1));
  _kept.Append(text, 0);
  EXPECT_EQ(text.use_count(), 1);
  EXPECT_EQ(TakeAll(_kept), *text);
}

TEST_F(KeptBytes, AreShownUpToALimit) {
  _kept.Append("before");
  _kept.Append(Share(std::string(1000, 'a')), 0);
  _kept.Append("behind");
  EXPECT_EQ(Front(_kept, 3), "bef");
  EXPECT_EQ(Front(_kept, 8), "beforeaa");
  EXPECT_EQ(Front(_kept, 1008), "before" + std::string(1000, 'a') + "be");
}

TEST_F(KeptBytes, AgreeWithAStringUnderRandomUse) {
  std::mt19937 random(7);
  std::string model;
  for (size_t round = 0; round < 3000; ++round) {
    const std::string added = Bytes(random() % (round % 17 == 0 ? 100'000 : 900), round);
    const size_t begin = model.empty() && !added.empty() ? random() % added.size() : 0;
    if (random() % 2 == 0) {
      _kept.Append(Share(added), begin);
    } else {
      _kept.Append(std::string_view(added).substr(begin));
    }
    model.append(added, begin);
    for (auto drops = random() % 3; drops > 0; --drops) {
      const std::string front = Front(_kept, random() % 200'000);
      ASSERT_EQ(front, model.substr(0, front.size()));
      const size_t dropped = random() % (front.size() + 1);
      _kept.Drop(dropped);
      model.erase(0, dropped);
    }
    ASSERT_EQ(_kept.GetSize(), model.size());
    if (round % 1000 == 999) {
      _kept.Clear();
      model.clear();
    }
  }
  EXPECT_EQ(TakeAll(_kept), model);
}

// Whatever was counted is counted no more once it is gone: the whole bound is free for another.
TEST_F(KeptBytes, AreCountedUntilTheyLeave) {
  SharedBound bound(1024 * 1024);
  SharedBound::Part part(bound, -1);
  SharedBound::Part other(bound, -1);
  KeptOutput kept(part);
  for (int round = 0; round < 10; ++round) {
    for (size_t i = 0; i < 800; ++i) kept.Append(Share(Bytes(i < 400 ? 1000 : 1200, i)), 0);
    TakeAll(kept);
    other.Set(1024 * 1024);
    other.Set(0);
  }
  EXPECT_EQ(part.GetPicked() + other.GetPicked(), 0u);
  for (size_t i = 0; i < 1100; ++i) kept.Append(Share(Bytes(1000, i)), 0);
  EXPECT_GT(part.GetPicked(), 0u);
}

}  // namespace tavix::test
