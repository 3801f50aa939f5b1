#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "programs/server/persistence/StartReads.h"
#include "programs/server/persistence/UserSettingsFiles.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

inline constexpr int64_t kWritten = 1234567890;
inline constexpr size_t kOperationsOfASnapshot = 9;

inline std::string MakeSnapshot(const std::string& settings, const daemon::SnapshotEnd& end) {
  core::StringOstream text;
  daemon::BeginSnapshot(text);
  text << settings;
  daemon::EndSnapshot(text, end);
  return text.GetText();
}

// Files as a daemon leaves them.
class UserFiles : public testing::Test {
 protected:
  daemon::FoundUserSettings Find() { return daemon::UserSettingsFiles(_files, kUserFile).Find(true); }

  void Save(const std::string& settings, uint64_t generation) {
    daemon::UserSettingsFiles(_files, kUserFile)
        .ReplaceSnapshot(MakeSnapshot(settings, {generation, 0, 0, kWritten}), kWritten);
  }

  std::unique_ptr<daemon::Journal> Begin(uint64_t follows, const std::vector<daemon::Change>& changes) {
    const daemon::Snapshot snapshot = daemon::ReadSnapshot(kUserFile, _files.Read(kUserFile));
    return daemon::Journal::Create(_files, kUserFile, {follows, snapshot.checksum}, changes);
  }

  void ExpectRefused(daemon::UserSettingsRefused::Reason reason, const std::string& message) {
    try {
      Find();
      ADD_FAILURE() << "It is not refused";
    } catch (const daemon::UserSettingsRefused& refused) {
      EXPECT_EQ(refused.GetReason(), reason);
      EXPECT_EQ(refused.what(), message);
    }
  }

  // As it rots.
  void Damage(const std::string& path, const std::string& part) {
    std::string bytes = _files.Get(path);
    bytes.replace(bytes.find(part), part.size(), part.size(), '\0');
    _files.Put(path, bytes);
  }

  MemoryFiles _files;
};

inline const daemon::Change kSetsY{"", "[B]\ny=2\n"};
inline const daemon::Change kSetsZ{"", "[C]\nz=3\n"};

}  // namespace tavix::test
