#include "tests/programs/server/persistence/RefusedMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "tavix/settings/server/SettingsCombiner.h"
#include "tests/programs/server/persistence/LogOfFailure.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/LogOf.h"
#include "tests/support/MemoryFiles.h"

namespace {

std::atomic<size_t> maxAtOnce{SIZE_MAX};
thread_local size_t allocations = 0;

}  // namespace

// Each operator that a sort or a container uses, as what one gives another takes back.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  void* const memory = size > maxAtOnce ? nullptr : std::malloc(size);
  if (memory) ++allocations;
  return memory;
}

void* operator new(size_t size) {
  void* const memory = operator new(size, std::nothrow);
  if (!memory) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}

namespace tavix::test {

RefusedMemory::RefusedMemory(size_t most) {
  maxAtOnce = most;
}

RefusedMemory::~RefusedMemory() {
  maxAtOnce = SIZE_MAX;
}

size_t CountAllocations() {
  return allocations;
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr size_t kMax = 20'000;
constexpr char kRefused[] =
    "ERROR UserSettings: Failed to save the user settings: out of memory; changes are kept in memory and saved as soon "
    "as that is possible";

// A persister over a layer that is only changed by the test.
class PersisterWithoutMemory : public testing::Test, private daemon::ILayerSources {
 protected:
  PersisterWithoutMemory() {
    settings::server::SettingsCombiner combiner(_layer);
    _persister.LoadUserSettings(combiner);
    _persister.Start([this](const auto& reader) { reader(_layer); });
    AwaitDurable(_persister.GetGate(), Change("A", "1"));
  }

  ~PersisterWithoutMemory() override { _persister.Stop(); }

  daemon::DurabilityGate::Ticket Change(const std::string& group, const std::string& value) {
    _layer.SetValue(group, "x", value);
    return _persister.SaveChangedGroups(_layer, {group});
  }

  std::string FindSaved() {
    MemoryFiles image(_files.GetImage());
    return TextOf(daemon::UserSettingsFiles(image, kUserFile).Find(true).settings);
  }

  MemoryFiles _files;
  core::IniFile _layer;
  daemon::UserSettingsPersister _persister{{_files, kUserFile, kAlways, [](bool, size_t) {}, {}, {}, kLargeChange},
                                           *this};

 private:
  void LoadDefaultSettings(settings::server::SettingsCombiner&) override {}
};

}  // namespace

TEST_F(PersisterWithoutMemory, OwesTheChangeToASnapshot) {
  _layer.SetValue("Large", "x", std::string(2 * kMax, 'x'));
  const auto log = LogOfFailure([&] {
    {
      const RefusedMemory refused(kMax);
      EXPECT_NO_THROW(_persister.SaveChangedGroups(_layer, {"Large"}));
    }
    EXPECT_TRUE(Eventually([&] { return FindSaved() == TextOf(_layer); }));
  });
  EXPECT_THAT(log, ElementsAre(kRefused, kSavedAgain));
}

TEST_F(PersisterWithoutMemory, NeverReplacesASnapshotByHalfAText) {
  const std::string before = _files.Get(kUserFile);
  const auto log = LogOf(
      [&] {
        _layer.SetValue("Large", "x", std::string(5 * kMax, 'x'));
        const RefusedMemory refused(kMax);
        const daemon::DurabilityGate::Ticket ticket = _persister.SaveChangedGroups(_layer, {"Large"});
        AwaitDurable(_persister.GetGate(), ticket);  // is released
        EXPECT_FALSE(_persister.Finish());
      },
      1);
  EXPECT_EQ(log[0], kRefused);
  EXPECT_EQ(_files.Get(kUserFile), before);
  EXPECT_THAT(_files.Get("user.ini.bak"), Not(HasSubstr("Large")));
}

}  // namespace tavix::test
