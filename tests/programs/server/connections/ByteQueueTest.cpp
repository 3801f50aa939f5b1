#include "programs/server/connections/ByteQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace tavix::test {

using daemon::ByteQueue;

namespace {

std::string TakeAll(ByteQueue& queue) {
  std::string all;
  while (!queue.GetFront().empty()) {
    all += queue.GetFront();
    queue.Drop(queue.GetFront().size());
  }
  return all;
}

std::string Bytes(size_t count, size_t seed) {
  std::mt19937 random(static_cast<unsigned int>(seed));
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

}  // namespace

TEST(ByteQueue, IsEmptyAtFirst) {
  const ByteQueue queue;
  EXPECT_EQ(queue.GetSize(), 0u);
  EXPECT_EQ(queue.GetFront(), "");
}

TEST(ByteQueue, GivesBackWhatItTookWhateverTheSizesAre) {
  for (size_t size : {1, 4096, 65535, 65536, 65537, 262143, 262144, 262145, 1000000}) {
    ByteQueue queue;
    std::string expected;
    for (size_t seed = 0; seed < 4; ++seed) {
      expected += Bytes(size, seed);
      queue.Append(expected.data() + expected.size() - size, size);
      EXPECT_EQ(queue.GetSize(), expected.size());
    }
    EXPECT_EQ(TakeAll(queue), expected) << size;
    EXPECT_EQ(queue.GetSize(), 0u);
  }
}

TEST(ByteQueue, AgreesWithAStringUnderRandomUse) {
  std::mt19937 random(7);
  ByteQueue queue;
  std::string model;
  for (size_t round = 0; round < 400; ++round) {
    const std::string added = Bytes(random() % (round % 7 == 0 ? 200'000 : 500), round);
    queue.Append(added.data(), added.size());
    model += added;
    for (auto drops = random() % 4; drops > 0; --drops) {
      const std::string_view front = queue.GetFront();
      ASSERT_EQ(front, model.substr(0, front.size()));
      ASSERT_EQ(front.empty(), model.empty());
      const size_t dropped = std::min(front.size(), static_cast<size_t>(random()) % 300'000);
      queue.Drop(dropped);
      model.erase(0, dropped);
    }
    ASSERT_EQ(queue.GetSize(), model.size());
    if (round % 100 == 99) {
      queue.Clear();
      model.clear();
    }
  }
  EXPECT_EQ(TakeAll(queue), model);
}

}  // namespace tavix::test
