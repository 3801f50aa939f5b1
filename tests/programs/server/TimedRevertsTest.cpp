#include "programs/server/TimedReverts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Options.h"
#include "programs/server/store/SettingsSources.h"
#include "programs/server/store/SettingsStore.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

struct TimedReverts : testing::Test {
  TimedReverts() {
    options.userSettings = directory.Path("user.ini");
    sources.emplace(options, counters);
    store.emplace(*sources, options, counters);
  }

  void Try(const std::string& trial) {
    settings::server::ChangeTicket ticket = 0;
    store->GetManager().MergeSettings(DocumentOf("[A]\nx=2\n"), 0, {{}, "merge", {}, trial}, ticket);
  }

  const TemporaryDirectory directory;
  daemon::Options options;
  daemon::Counters counters;
  std::optional<daemon::SettingsSources> sources;
  std::optional<daemon::SettingsStore> store;
};

}  // namespace

// Neither a loop nor the lane of clients' long requests is there.
TEST_F(TimedReverts, NeedNobodyElse) {
  RecordingCallback callback;
  const daemon::TimedReverts reverts(*store->GetTimedTrials());
  store->GetManager().Subscribe(&callback, "A");  // first: the second may be over as soon as it has begun
  Try("1 t");
  ASSERT_TRUE(Eventually([&] {
    const std::vector<Change> changes = callback.GetChanges();
    const auto isRevert = [](const Change& change) { return change.settings.find("x=2") == std::string::npos; };
    return std::any_of(changes.begin(), changes.end(), isRevert);
  }));
  EXPECT_EQ(AllSettingsOf(store->GetManager()), "");
  store->GetManager().Unsubscribe(&callback);
}

TEST_F(TimedReverts, AreNeededOnlyWhereSomethingMayBeOnTrial) {
  EXPECT_TRUE(store->GetTimedTrials());
  store.reset();
  options.trials = 0;
  store.emplace(*sources, options, counters);
  EXPECT_FALSE(store->GetTimedTrials());
}

}  // namespace tavix::test
