#include "programs/server/store/TrialWords.h"

#include <gtest/gtest.h>

#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Options.h"
#include "programs/server/store/SettingsSources.h"
#include "programs/server/store/SettingsStore.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// A trial may be of all settings: to show it, to keep it and to take it back are nothing for a loop.
TEST(TrialWords, WhatWorksOnATrialTakesLong) {
  const TemporaryDirectory directory;
  daemon::Options options;
  options.userSettings = directory.Path("user.ini");
  daemon::Counters counters;
  daemon::SettingsSources sources(options, counters);
  daemon::SettingsStore store(sources, options, counters);
  const daemon::TrialWords words(*store.GetTrials());
  for (const char* word : {"trial", "confirm", "revert"}) EXPECT_TRUE(words.Find(word)->isLong) << word;
  EXPECT_FALSE(words.Find("try")->isLong);
}

}  // namespace tavix::test
