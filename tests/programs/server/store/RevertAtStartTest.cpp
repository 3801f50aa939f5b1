#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <new>
#include <string>

#include "programs/server/TimedReverts.h"
#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Options.h"
#include "programs/server/store/SettingsSources.h"
#include "programs/server/store/SettingsStore.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/LogOf.h"
#include "tests/support/RefusedAllocation.h"
#include "tests/support/TemporaryDirectory.h"

// What a start does when it can't revert what a crash left on trial.

namespace tavix::test {

namespace {

namespace fs = std::filesystem;

constexpr char kOld[] = "[A]\nx=1\n";

struct RevertAtStart : testing::Test {
  RevertAtStart() {
    const daemon::Options options = OptionsOf(crashed);
    daemon::SettingsSources sources(options, counters);
    daemon::SettingsStore store(sources, options, counters);
    settings::server::ChangeTicket ticket = 0;
    store.GetManager().MergeSettings(DocumentOf(kOld), 0);
    store.GetManager().MergeSettings(DocumentOf("[A]\nx=2\n"), 0, {{}, "merge", {}, "3600 t"}, ticket);
    EXPECT_TRUE(Eventually([&] { return store.GetGate()->IsDurable(ticket); }));
  }

  static daemon::Options OptionsOf(const TemporaryDirectory& directory) {
    daemon::Options options;
    options.userSettings = directory.Path("user.ini");
    return options;
  }

  // A start on files as the crash left them.
  struct Start {
    explicit Start(const TemporaryDirectory& files, daemon::Counters& counters)
        : options((fs::copy(files.GetPath(), directory.GetPath()), OptionsOf(directory))), sources(options, counters) {}

    // True when the allocation was refused, and the store began all the same.
    bool Begin(daemon::Counters& counters, long allocation, bool areAllBehindIt) {
      const RefusedAllocation refused(allocation, areAllBehindIt);
      try {
        store = std::make_unique<daemon::SettingsStore>(sources, options, counters);
      } catch (const std::exception&) {  // before anything could be reverted
      }
      return store && RefusedAllocation::WasRefused();
    }

    std::string GetUser() const {
      std::string text;
      store->GetManager().ReadUserSettings([&](const settings::server::LayerView& user) { text = TextOf(user); });
      return text;
    }

    const TemporaryDirectory directory;
    const daemon::Options options;
    daemon::SettingsSources sources;
    std::unique_ptr<daemon::SettingsStore> store;
  };

  // How many allocations a start takes. All that reverts stands at the end.
  long CountAllocations() {
    long enough = 1;
    for (long step = 1; step > 0;) {
      Start start(crashed, counters);
      static_cast<void>(start.Begin(counters, enough, false));
      isGrowing = isGrowing && RefusedAllocation::WasRefused();
      if (isGrowing) {
        enough += step;
        step *= 2;
      } else {
        enough += RefusedAllocation::WasRefused() ? step : -step;
        step /= 2;
      }
    }
    return enough;
  }

  bool isGrowing = true;
  const TemporaryDirectory crashed;
  daemon::Counters counters;
};

}  // namespace

TEST_F(RevertAtStart, IsTriedAgainBeforeAnybodyIsServed) {
  size_t retries = 0;
  for (long allocation = CountAllocations(); allocation > 0 && retries < 3; allocation -= 3) {
    Start start(crashed, counters);
    bool hasBegun = false;
    const auto log = LogOf([&] { hasBegun = start.Begin(counters, allocation, false); });
    if (!hasBegun) continue;
    EXPECT_EQ(start.GetUser(), kOld) << allocation;
    EXPECT_FALSE(start.store->GetTrials()->HasPending()) << allocation;
    if (!ErrorsIn(log).empty()) ++retries;
  }
  EXPECT_EQ(retries, 3u);
}

TEST_F(RevertAtStart, KeepsNobodyWaitingForLongAndIsTriedAgainThen) {
  for (long allocation = CountAllocations(); allocation > 0; --allocation) {
    Start start(crashed, counters);
    if (!start.Begin(counters, allocation, true) || !start.store->GetTrials()->HasPending()) continue;
    EXPECT_EQ(start.GetUser(), "[A]\nx=2\n");
    const daemon::TimedReverts reverts(*start.store->GetTimedTrials());
    EXPECT_TRUE(Eventually([&] { return !start.store->GetTrials()->HasPending(); }));
    EXPECT_EQ(start.GetUser(), kOld);
    return;
  }
  FAIL() << "no start was without memory for long";
}

}  // namespace tavix::test
