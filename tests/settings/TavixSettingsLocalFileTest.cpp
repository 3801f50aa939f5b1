#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Environment.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/TemporaryDirectory.h"

// The variable that makes every client of a process a local one.

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::TavixSettingsClient;
using tavix::test::DocumentOf;
using tavix::test::RecordingCallback;
using tavix::test::ScopedEnvironment;
using tavix::test::TemporaryDirectory;
using tavix::test::TextOf;

constexpr char kOverride[] = "TAVIX_SETTINGS_LOCALFILE";

TavixSettingsClient::OperationMode ModeOf(int number) {
  return static_cast<TavixSettingsClient::OperationMode>(number);
}

std::string AllOf(const TavixSettingsClient& client) {
  IniFile all;
  client.GetSettings("*", all);
  return TextOf(all);
}

TEST(TavixSettingsLocalFile, AnEmptyOverrideMakesEveryClientLocalAndLoadsNothing) {
  const ScopedEnvironment override(kOverride, "");
  for (const int number : {0, 1, 2, 3, 4, 5, 7, -1}) {
    RecordingCallback callback;
    TavixSettingsClient client(ModeOf(number));
    EXPECT_EQ(AllOf(client), "") << number;
    client.Subscribe(&callback, "A");
    client.SetValue("[A]x", "1");
    EXPECT_EQ(callback.GetChanges().size(), 1u) << number;  // on this thread: no connection has been on the way
  }
}

TEST(TavixSettingsLocalFile, AnEmptyOverrideKeepsTheDefaultsGiven) {
  const ScopedEnvironment override(kOverride, "");
  const TavixSettingsClient client(TavixSettingsClient::MultiThreaded, DocumentOf("[A]\nx=1\n"));
  EXPECT_EQ(AllOf(client), "[A]\nx=1\n");
}

TEST(TavixSettingsLocalFile, TheFileOfTheOverrideIsLoadedOverTheDefaults) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("local.ini", "[A]\nx=2\n[B]\nz=3\n");
  const ScopedEnvironment override(kOverride, path.c_str());
  const TavixSettingsClient client(ModeOf(7), DocumentOf("[A]\nx=1\ny=1\n"));
  EXPECT_EQ(AllOf(client), "[A]\nx=2\ny=1\n[B]\nz=3\n");
  const TavixSettingsClient withoutDefaults(TavixSettingsClient::SingleThreaded);
  EXPECT_EQ(AllOf(withoutDefaults), "[A]\nx=2\n[B]\nz=3\n");
}

TEST(TavixSettingsLocalFile, TheFileOfTheOverrideIsNeverWritten) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("local.ini", "[A]\nx=2\n");
  const ScopedEnvironment override(kOverride, path.c_str());
  TavixSettingsClient(TavixSettingsClient::Local).SetValue("[A]x", "3");
  EXPECT_EQ(directory.Read("local.ini"), "[A]\nx=2\n");
}

TEST(TavixSettingsLocalFile, AFileOfTheOverrideThatCannotBeLoadedFailsTheConstructor) {
  const TemporaryDirectory directory;
  const std::string missing = directory.Path("missing.ini");
  const std::string broken = directory.Write("broken.ini", "[A]\nno setting\n");
  for (const auto& [path, text] : {std::pair(missing, std::string("No such file")), std::pair(broken, broken + ":2")}) {
    const ScopedEnvironment override(kOverride, path.c_str());
    EXPECT_THAT([] { TavixSettingsClient client(TavixSettingsClient::Local); },
                testing::ThrowsMessage<Exception>(testing::HasSubstr(text)));
  }
}

TEST(TavixSettingsLocalFile, TheOverrideIsReadWhenAClientIsMade) {
  TavixSettingsClient before(TavixSettingsClient::SingleThreadedLocalConnection);
  const ScopedEnvironment override(kOverride, "");
  RecordingCallback callback;
  EXPECT_THROW(before.Subscribe(&callback, "A"), Exception);
}

}  // namespace
