#include "tavix/settings/SettingsWatcher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "tavix/osa/Exception.h"
#include "tavix/settings/Subscription.h"
#include "tests/settings/BusyWriter.h"
#include "tests/settings/StoreInMode.h"
#include "tests/support/AnsweringServer.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/RecordingCallback.h"

namespace tavix::settings {

using osa::Exception;
using test::BackgroundCall;
using test::Client;
using test::Mode;
using test::StoreInMode;
using testing::ThrowsMessage;

namespace {

template <class Default, class = void>
constexpr bool kIsDefaultOfBool = false;
template <class Default>
constexpr bool kIsDefaultOfBool<Default, std::void_t<decltype(std::declval<SettingsWatcher&>().AddSetting(
                                             "", "", std::declval<bool*>(), std::declval<Default>()))>> = true;

static_assert(kIsDefaultOfBool<bool>);
static_assert(kIsDefaultOfBool<int>);
static_assert(!kIsDefaultOfBool<const char (&)[3]>, "a text would be true");
static_assert(!kIsDefaultOfBool<char*>);

}  // namespace

TEST(SettingsWatcher, ANullClientIsRefused) {
  EXPECT_THAT([] { SettingsWatcher(nullptr); }, ThrowsMessage<Exception>("client was NULL"));
}

TEST(SettingsWatcher, TheFirstUpdateSetsEveryVariable) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Video]\nfps=25\nmirror=yes\n[Device]\nname=Gate 7\n");
    int fps = 0;
    bool mirror = false;
    std::string name;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video", "fps", &fps);
    watcher.AddSetting("Video", "mirror", &mirror);
    watcher.AddSetting("Device", "name", &name);
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(fps, 25);
    EXPECT_TRUE(mirror);
    EXPECT_EQ(name, "Gate 7");
  }
}

TEST(SettingsWatcher, AddingASettingTouchesNoVariable) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, "[Video]\nfps=25\n");
    int fps = 99;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video", "fps", &fps);
    EXPECT_EQ(fps, 99);
  }
}

TEST(SettingsWatcher, AMissingSettingOverwritesWhateverTheVariableHeld) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Video]\nother=1\n");
    int fps = 99;
    bool mirror = true;
    std::string name = "before";
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video", "fps", &fps);
    watcher.AddSetting("Video", "mirror", &mirror);
    watcher.AddSetting("Nowhere", "name", &name);
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(fps, 0);
    EXPECT_FALSE(mirror);
    EXPECT_EQ(name, "");
  }
}

TEST(SettingsWatcher, WithoutAChangeNoVariableIsTouched) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Video]\nfps=25\n");
    int fps = 0;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video", "fps", &fps);
    watcher.UpdateSettings();
    fps = 99;
    store.Merge("[Other]\nx=1\n");
    EXPECT_FALSE(watcher.UpdateSettings());
    EXPECT_FALSE(watcher.TryUpdateSettings());
    EXPECT_EQ(fps, 99);
  }
}

TEST(SettingsWatcher, AChangeOfOneKeySetsAllVariablesAnew) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Video]\nfps=25\nwidth=640\n[Device]\nname=Gate 7\n");
    int fps = 0;
    int width = 0;
    std::string name;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video", "fps", &fps);
    watcher.AddSetting("Video", "width", &width);
    watcher.AddSetting("Device", "name", &name);
    watcher.UpdateSettings();
    width = 99;
    name = "mine";
    store.Merge("[Video]\nfps=30\n");
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(fps, 30);
    EXPECT_EQ(width, 640);
    EXPECT_EQ(name, "Gate 7");
  }
}

TEST(SettingsWatcher, TryUpdateSettingsSetsThemToo) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Video]\nfps=25\n");
    int fps = 0;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video", "fps", &fps);
    watcher.UpdateSettings();
    store.Merge("[Video]\nfps=30\n");
    EXPECT_EQ(fps, 25);
    EXPECT_TRUE(watcher.TryUpdateSettings());
    EXPECT_EQ(fps, 30);
    EXPECT_FALSE(watcher.TryUpdateSettings());
  }
}

TEST(SettingsWatcher, AGroupThatIsErasedSetsItsVariablesToTheirDefaults) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Video]\nfps=25\nmirror=true\n");
    int fps = 0;
    bool mirror = false;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video", "fps", &fps);
    watcher.AddSetting("Video", "mirror", &mirror);
    watcher.UpdateSettings();
    store.Erase("Video");
    EXPECT_TRUE(watcher.TryUpdateSettings());
    EXPECT_EQ(fps, 0);
    EXPECT_FALSE(mirror);
  }
}

TEST(SettingsWatcher, VariablesAreSetInTheOrderInWhichTheyWereAdded) {
  StoreInMode store(Client::Local, "[Video]\nfps=25\nwidth=640\n");
  int either = 0;
  SettingsWatcher watcher(store.GetClient());
  watcher.AddSetting("Video", "width", &either);
  watcher.AddSetting("Video", "fps", &either);
  watcher.UpdateSettings();
  EXPECT_EQ(either, 25);
}

// Deliberate: the group is handed on as it is, so a pattern subscribes, but no group has that name to be read from.
TEST(SettingsWatcher, APatternAsAGroupIsWatchedAndReadsAsMissing) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Video/Main]\nfps=25\n");
    int fps = 99;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video/*", "fps", &fps);
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(fps, 0);
    store.Merge("[Video/Main]\nfps=30\n");
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(fps, 0);
  }
}

// Deliberate: settings belong before the first update. A later one's group is unknown, so it reads as missing.
TEST(SettingsWatcher, AGroupAddedAfterTheFirstUpdateIsNeitherReadNorSubscribed) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Video]\nfps=25\n[Late]\nx=1\n");
    int fps = 0;
    int late = 99;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video", "fps", &fps);
    watcher.UpdateSettings();
    watcher.AddSetting("Late", "x", &late);
    store.Merge("[Late]\nx=2\n");
    EXPECT_FALSE(watcher.UpdateSettings());
    EXPECT_EQ(late, 99);
    store.Merge("[Video]\nfps=30\n");
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(late, 0);
  }
}

TEST(SettingsWatcher, TryUpdateSettingsBeforeUpdateSettingsIsRefused) {
  for (const Mode mode : test::kAllModes) {
    StoreInMode store(mode, "[Video]\nfps=25\n");
    int fps = 99;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video", "fps", &fps);
    EXPECT_THAT([&] { watcher.TryUpdateSettings(); }, ThrowsMessage<Exception>("TryUpdate called before Update"));
    EXPECT_EQ(fps, 99);
  }
}

TEST(SettingsWatcher, WithASingleThreadedClientUpdateSettingsThrowsAndTouchesNoVariable) {
  for (const Mode mode : test::kSingleThreadedModes) {
    StoreInMode store(mode, "[Video]\nfps=25\n");
    int fps = 99;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Video", "fps", &fps);
    EXPECT_THAT([&] { watcher.UpdateSettings(); },
                ThrowsMessage<Exception>("TavixSettingsClient::Subscribe not supported in single threaded mode"));
    EXPECT_EQ(fps, 99);
  }
}

TEST(SettingsWatcher, ANoticeSetsVariablesOfTheGroupsThatItNamesOnly) {
  test::AnsweringServer server("[Video]\nfps=25\n[Audio]\ngain=3\n");
  int fps = 0;
  int gain = 0;
  SettingsWatcher watcher(server.GetClient());
  watcher.AddSetting("Video", "fps", &fps);
  watcher.AddSetting("Audio", "gain", &gain);
  watcher.UpdateSettings();
  server.Send("async change\nVideo\n.\n[Audio]\ngain=9\n[Video]\nfps=30\n.\n");
  server.AwaitArrival();
  EXPECT_TRUE(watcher.UpdateSettings());
  EXPECT_EQ(fps, 30);
  EXPECT_EQ(gain, 3);
}

TEST(SettingsWatcher, DestroyingItLeavesTheVariablesAndEndsAllCalls) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Video]\nfps=25\n");
    int fps = 0;
    auto watcher = std::make_unique<SettingsWatcher>(store.GetClient());
    watcher->AddSetting("Video", "fps", &fps);
    watcher->UpdateSettings();
    watcher.reset();
    store.Merge("[Video]\nfps=30\n");
    EXPECT_EQ(fps, 25);
  }
}

TEST(SettingsWatcher, MayBeDestroyedFromACallbackOfTheSameClient) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Video]\nfps=25\n");
    int fps = 0;
    auto watcher = std::make_unique<SettingsWatcher>(store.GetClient());
    watcher->AddSetting("Video", "fps", &fps);
    watcher->UpdateSettings();
    test::RecordingCallback callback([&] { watcher.reset(); });
    Subscription subscription(store.GetClient(), &callback);
    subscription.Subscribe({"*"});
    store.Merge("[Video]\nfps=30\n");
    EXPECT_EQ(watcher, nullptr);
    store.Merge("[Video]\nfps=40\n");
    EXPECT_EQ(fps, 25);
  }
}

TEST(SettingsWatcher, TryUpdateSettingsTouchesNoVariableWhileANoticeIsCollected) {
  StoreInMode store(Client::Local);
  int number = 0;
  SettingsWatcher watcher(store.GetClient());
  for (int group = 0; group < 1000; ++group) watcher.AddSetting("Group " + std::to_string(group), "key", &number);
  watcher.UpdateSettings();
  EXPECT_TRUE(test::FindsTheLockBusy(*store.GetClient(), test::LargeDocument(), [&] {
    number = -1;
    return watcher.TryUpdateSettings();
  }));
  EXPECT_EQ(number, -1);
  EXPECT_TRUE(watcher.TryUpdateSettings());
  EXPECT_EQ(number, 999);
}

TEST(SettingsWatcher, VariablesAreWhatTheStoreHoldsOnceAWriterAtFullSpeedIsDone) {
  for (const Mode mode : test::kSubscribingModes) {
    StoreInMode store(mode, "[Busy/0]\nkey0=1\n");
    int number = 0;
    std::string text;
    SettingsWatcher watcher(store.GetClient());
    watcher.AddSetting("Busy/0", "key0", &number);
    watcher.AddSetting("Busy/1", "key1", &text);
    watcher.UpdateSettings();
    BackgroundCall writer([&] { test::ChangeAtFullSpeed(*store.GetClient()); });
    while (!writer.HasEnded()) watcher.TryUpdateSettings();
    writer.Join();
    store.AwaitNotices();
    watcher.UpdateSettings();
    EXPECT_EQ(text, store.GetClient()->GetValue("[Busy/1]key1"));
    EXPECT_EQ(number, test::DocumentOf(store.Read("Busy/0")).GetIntOrDefault("Busy/0", "key0", 0));
  }
}

}  // namespace tavix::settings
