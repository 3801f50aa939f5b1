#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <random>
#include <string>

#include "programs/server/persistence/HistoryFile.h"
#include "programs/server/persistence/KeptHistory.h"
#include "programs/server/persistence/TrialFile.h"
#include "tests/programs/server/persistence/TrialStore.h"
#include "tests/support/MemoryFiles.h"

// Starts with files of the history and of trials that have rotten.

namespace tavix::test {

namespace {

constexpr int kImages = 1000;
constexpr size_t kBytes = 16 * 1024;
const std::string kHistoryFile = daemon::HistoryFile::PathOf(kUserFile);
const std::string kOldHistoryFile = daemon::HistoryFile::OldPathOf(kUserFile);
const std::string kTrialsFile = daemon::TrialFile::PathOf(kUserFile);
constexpr char kSettings[] = "[B]\nx=30\n";  // behind what is on trial

// Both files of the history, a journal with entries that they lack, and a trial that a snapshot knows.
MemoryFiles::Image MakeImage() {
  MemoryFiles files;
  {
    TrialStore store(files, kBytes);
    for (int value = 1; value < 30; ++value)
      store.Merge("[A]\nx=" + std::to_string(value) + std::string(300, '.') + "\n[B]\nx=" + std::to_string(value) +
                  "\n");
    EXPECT_TRUE(store.Finish());
  }
  TrialStore store(files, kBytes);
  store.Merge("[B]\nx=30\n");
  store.Try("60 t", "[C]\nx=1\n");
  store.MakeSnapshotDue();
  store.AwaitTrialsInFile(files);
  store.Merge("[Large]\nx=1\n");
  store.AwaitDurable();
  store.Crash();
  return files.GetImage();
}

class Rot {
 public:
  explicit Rot(unsigned int seed) : _random(seed) {}

  void Damage(std::string& bytes) {
    for (size_t places = _random() % 8; places > 0 && !bytes.empty(); --places) {
      const size_t at = _random() % bytes.size();
      const size_t count = std::min(bytes.size() - at, size_t{1} << _random() % 12);
      if (_random() % 2 == 0) {
        bytes.replace(at, count, count, '\0');
      } else {
        bytes[at] = static_cast<char>(_random());
      }
    }
    if (_random() % 3 == 0) bytes.resize(_random() % (bytes.size() + 1));
    if (_random() % 8 == 0) bytes += bytes.substr(bytes.size() / 2);
  }

 private:
  std::mt19937 _random;
};

std::string WithoutOthers(const std::string& settings) {
  core::IniFile document = DocumentOf(settings);
  document.RemoveGroup("A");
  document.RemoveGroup("Large");
  return TextOf(document);
}

}  // namespace

TEST(DamagedHistory, LeavesTheSettingsAsTheyAreAndIsReadAndGoesOn) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  const MemoryFiles::Image whole = MakeImage();
  ASSERT_EQ(whole.count(kHistoryFile) + whole.count(kOldHistoryFile) + whole.count(kTrialsFile), 3u);
  Rot rot(seed);
  for (int image = 0; image < kImages; ++image) {
    MemoryFiles::Image damaged = whole;
    rot.Damage(damaged[kHistoryFile].bytes);
    rot.Damage(damaged[kOldHistoryFile].bytes);
    MemoryFiles files(damaged);
    TrialStore store(files, kBytes);
    ASSERT_EQ(WithoutOthers(store.GetUser()), kSettings) << image;
    const uint64_t last = store.GetStore().GetHistory()->GetRange().last;
    store.Merge("[B]\nx=31\n");
    EXPECT_EQ(store.GetStore().GetHistory()->GetRange().last, last + 1);
    EXPECT_TRUE(store.Finish());
    uint64_t revision = daemon::KeptHistory::kNewest;
    for (bool isEnd = false; !isEnd;) {
      const auto block = store.GetStore().GetHistory()->ReadBelow(revision, SIZE_MAX, SIZE_MAX);
      isEnd = block.isEnd;
      for (const auto& item : block.items) {
        ASSERT_LT(item.entry.revision, revision) << image;
        revision = item.entry.revision;
      }
      if (!isEnd) revision = block.next;
    }
  }
}

// A trial that is not known any more stays; nothing else changes.
TEST(DamagedHistory, OfTrialsLeavesOtherSettingsAsTheyAre) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  const MemoryFiles::Image whole = MakeImage();
  Rot rot(seed);
  for (int image = 0; image < kImages; ++image) {
    MemoryFiles files(whole);
    std::string bytes = files.Get(kTrialsFile);
    rot.Damage(bytes);
    files.Put(kTrialsFile, bytes);
    TrialStore store(files);
    const std::string found = WithoutOthers(store.GetUser());
    ASSERT_TRUE(found == kSettings || found == std::string(kSettings) + "[C]\nx=1\n") << found;
  }
}

}  // namespace tavix::test
