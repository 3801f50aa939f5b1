#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/ServedStore.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::Amendment;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::SettingsCombiner;
using tavix::settings::server::SettingsManager;
using tavix::test::AllSettingsOf;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::MemoryPersister;
using tavix::test::RecordingCallback;
using tavix::test::ServedStore;
using tavix::test::UserSettingsOf;
using testing::ElementsAre;

constexpr int kRounds = 100;

GroupNameMatcher MatcherOf(const std::string& nameOrPattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(nameOrPattern);
  return matcher;
}

// Two settings that a reader must always find equal.
IniFile PairOf(const std::string& value) {
  return DocumentOf("[Pair]\nfirst=" + value + "\nsecond=" + value + "\n");
}

void ExpectPair(const IniFile& document) {
  EXPECT_EQ(document.GetValueOrDefault("Pair", "first"), document.GetValueOrDefault("Pair", "second"));
}

void Increment(SettingsManager& store) {
  for (bool done = false; !done;) {
    IniFile seen;
    store.GetGroups(seen, "Counter");
    IniFile next;
    next.SetInt("Counter", "n", seen.GetIntOrDefault("Counter", "n", 0) + 1);
    done = store.TestAndMerge(seen, next);
  }
}

// With so many groups that it is planned before the store's lock is taken.
Amendment LargeIncrementOf(const IniFile& seen) {
  Amendment amendment;
  amendment.present.MergeSettings(seen);
  amendment.set.SetInt("Counter", "n", seen.GetIntOrDefault("Counter", "n", 0) + 1);
  const bool isOdd = seen.GetIntOrDefault("Counter", "n", 0) % 2 != 0;
  for (int i = 0; i < 70; ++i)
    (isOdd ? amendment.set : amendment.unset).SetValue("Filler " + std::to_string(i), "x", "set");
  return amendment;
}

void IncrementByAmendments(SettingsManager& store) {
  for (bool done = false; !done;) {
    IniFile seen;
    store.GetGroups(seen, "Counter");
    done = store.Amend(LargeIncrementOf(seen));
  }
}

TEST(SettingsManager, ReadersNeverSeeHalfAChange) {
  ServedStore served({"[Pair]\nfirst=0\nsecond=0\n"});
  const auto write = [&](const std::string& name) {
    for (int round = 0; round < kRounds; ++round) {
      const IniFile pair = PairOf(name + std::to_string(round));
      served.store.MergeSettings(pair, round % 2 ? SettingsManager::kNoPersist : 0);
      served.store.OverwriteSettings("Pair", pair);
      served.store.RestoreToDefaults(MatcherOf("Pair"));
    }
  };
  const auto read = [&] {
    for (int round = 0; round < kRounds; ++round) {
      IniFile groups;
      served.store.GetGroups(groups, "P*");
      ExpectPair(groups);
      ExpectPair(DocumentOf(AllSettingsOf(served.store)));
      ExpectPair(DocumentOf(UserSettingsOf(served.store)));
      std::ostringstream text;
      served.store.WriteGroups(text, MatcherOf("Pair"), *served.serializers.GetSerializer("ini"));
      ExpectPair(DocumentOf(text.str()));
    }
  };
  BackgroundCall firstWriter([&] { write("a"); });
  BackgroundCall secondWriter([&] { write("b"); });
  BackgroundCall firstReader(read);
  BackgroundCall secondReader(read);
}

TEST(SettingsManager, BetweenTestAndMergeNoOtherWriteComes) {
  ServedStore served({"[Counter]\nn=0\n"});
  const auto count = [&] {
    for (int round = 0; round < kRounds; ++round) Increment(served.store);
  };
  {
    BackgroundCall first(count);
    BackgroundCall second(count);
    BackgroundCall third(count);
    BackgroundCall fourth(count);
  }
  EXPECT_EQ(AllSettingsOf(served.store), "[Counter]\nn=" + std::to_string(4 * kRounds) + "\n");
  EXPECT_EQ(served.persister.GetSaved(), AllSettingsOf(served.store));
}

// It is planned before the lock is taken, and again when others were faster.
TEST(SettingsManager, BetweenTheConditionsOfALargeAmendmentAndItsChangeNoOtherWriteComes) {
  constexpr int kRoundsOfEach = 20;
  ServedStore served({"[Counter]\nn=0\n[Filler 5]\nx=default\n"});
  const auto count = [&] {
    for (int round = 0; round < kRoundsOfEach; ++round) IncrementByAmendments(served.store);
  };
  {
    BackgroundCall first(count);
    BackgroundCall second(count);
    BackgroundCall third(count);
  }
  IniFile counter;
  served.store.GetGroups(counter, "Counter");
  EXPECT_EQ(counter.GetIntOrDefault("Counter", "n", 0), 3 * kRoundsOfEach);
  EXPECT_EQ(served.persister.GetSaved(), UserSettingsOf(served.store));
  EXPECT_EQ(AllSettingsOf(SettingsManager(&served.persister, nullptr, nullptr, false)), AllSettingsOf(served.store));
}

TEST(SettingsManager, SubscribersComeAndGoWhileChangesAreTold) {
  ServedStore served;
  std::atomic<bool> stop{false};
  BackgroundCall writer([&] {
    while (!stop) served.store.MergeSettings(DocumentOf("[A]\nx=1\n"), 0);
  });
  const auto comeAndGo = [&] {
    for (int round = 0; round < kRounds; ++round) {
      RecordingCallback callback([&] { AllSettingsOf(served.store); });
      std::set<std::string> groups;
      served.store.Subscribe(&callback, "A");
      served.store.GetAllSubscribedGroups(groups);
      EXPECT_EQ(groups.count("A"), 1u);
      served.store.Unsubscribe(&callback);
    }
  };
  {
    BackgroundCall first(comeAndGo);
    BackgroundCall second(comeAndGo);
  }
  stop = true;
}

TEST(SettingsManager, CallbacksReadWhileWritersWait) {
  ServedStore served;
  RecordingCallback callback([&] { AllSettingsOf(served.store); });
  served.store.Subscribe(&callback, "*");
  const auto write = [&](const std::string& group) {
    for (int round = 0; round < kRounds; ++round) served.store.MergeSettings(DocumentOf("[" + group + "]\nx=1\n"), 0);
  };
  {
    BackgroundCall first([&] { write("A"); });
    BackgroundCall second([&] { write("B"); });
    BackgroundCall third([&] { write("C"); });
  }
  EXPECT_EQ(callback.GetChanges().size(), 3u * kRounds) << "no change is missed";
}

TEST(SettingsManager, TwoRestoresAtOnce) {
  ServedStore served({"[A]\nx=1\n[TavixSettings/LoadPriority]\nA=5\nB=2\n", "[A]\nx=2\n[B]\ny=1\n",
                      "[B]\ny=2\n[TavixSettings/LoadPriority]\nB=2\n"});
  const auto restore = [&](const std::string& group) {
    for (int round = 0; round < kRounds; ++round) {
      served.store.MergeSettings(DocumentOf("[" + group + "]\nuser=1\n"), 0);
      served.store.RestoreToDefaults(MatcherOf(group));
    }
  };
  {
    BackgroundCall first([&] { restore("A"); });
    BackgroundCall second([&] { restore("B"); });
  }
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=1\n[B]\ny=2\n");
}

TEST(SettingsManager, SavesWhileReadersWait) {
  struct SlowPersister : MemoryPersister {
    void SaveUserSettings(const IniFile& userSettings) override {
      const SettingsManager& saved = *store;
      reader = std::make_unique<BackgroundCall>([&saved] { AllSettingsOf(saved); });
      reader->AwaitBlocked();
      EXPECT_FALSE(reader->HasEnded()) << "nobody reads what may not be saved";
      MemoryPersister::SaveUserSettings(userSettings);
    }
    const SettingsManager* store = nullptr;
    std::unique_ptr<BackgroundCall> reader;
  } persister;
  SettingsManager store(&persister, nullptr, nullptr, false);
  persister.store = &store;
  store.MergeSettings(DocumentOf("[A]\n"), 0);
  persister.reader->Join();
}

TEST(SettingsManager, WritesGroupsThatNoWriterCanChangeMeanwhile) {
  struct SlowBuffer : std::stringbuf {
    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
      writer = std::make_unique<BackgroundCall>([this] { store->MergeSettings(DocumentOf("[A]\nx=2\n"), 0); });
      writer->AwaitBlocked();
      EXPECT_FALSE(writer->HasEnded());
      return std::stringbuf::xsputn(bytes, count);
    }
    SettingsManager* store = nullptr;
    std::unique_ptr<BackgroundCall> writer;
  } buffer;
  ServedStore served({"[A]\nx=1\n"});
  buffer.store = &served.store;
  std::ostream out(&buffer);
  served.store.WriteGroups(out, MatcherOf("A"), *served.serializers.GetSerializer("ini"));
  buffer.writer->Join();
  EXPECT_EQ(buffer.str(), "[A]\nx=1\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nx=2\n");
}

TEST(SettingsManager, ARestoreReadsTheDefaultsWhileOthersReadTheStore) {
  struct ReadingPersister : MemoryPersister {
    using MemoryPersister::MemoryPersister;
    void LoadDefaultSettings(SettingsCombiner& combiner) override {
      if (store) seen.push_back(AllSettingsOf(*store));  // would wait for ever if the lock were held
      MemoryPersister::LoadDefaultSettings(combiner);
    }
    const SettingsManager* store = nullptr;
    std::vector<std::string> seen;
  } persister({"[A]\nx=1\n"}, "[A]\nx=5\n");
  SettingsManager store(&persister, nullptr, nullptr, false);
  persister.store = &store;
  store.RestoreToDefaults(MatcherOf("A"));
  EXPECT_THAT(persister.seen, ElementsAre("[A]\nx=5\n"));
}

TEST(SettingsManager, UnsubscribingWaitsForACallThatIsUnderWay) {
  ServedStore served;
  std::promise<void> entered;
  std::promise<void> mayLeave;
  RecordingCallback callback([&] {
    entered.set_value();
    mayLeave.get_future().wait();
  });
  served.store.Subscribe(&callback, "A");
  BackgroundCall change([&] { served.store.MergeSettings(DocumentOf("[A]\n"), 0); });
  entered.get_future().wait();
  BackgroundCall unsubscription([&] { served.store.Unsubscribe(&callback); });
  unsubscription.AwaitBlocked();
  EXPECT_FALSE(unsubscription.HasEnded());
  AllSettingsOf(served.store);  // readers are not held up
  mayLeave.set_value();
  unsubscription.Join();
  change.Join();
}

}  // namespace
