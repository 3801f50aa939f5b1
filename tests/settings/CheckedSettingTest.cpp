#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tavix/settings/SettingsWatcher.h"
#include "tests/settings/StoreInMode.h"
#include "tests/support/LogOf.h"

// Variables that follow settings with defaults.

namespace tavix::test {

using settings::SettingsWatcher;
using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

namespace {

enum class Codec : unsigned char { kH264 = 4, kH265 = 200 };

// A store in the process, and variables that follow it.
class CheckedSettings : public testing::Test {
 protected:
  // Sets the variables from that text, and returns the warnings of it.
  std::vector<std::string> Read(const std::string& settings) {
    std::vector<std::string> warnings;
    for (const std::string& line : LogOf([&] {
           _store.Overwrite("V", settings);
           _watcher.UpdateSettings();
         })) {
      if (line.rfind("WARNING", 0) == 0) warnings.push_back(line);
    }
    return warnings;
  }

  // The warning for key "x".
  static std::string Warning(const std::string& text, const std::string& expected) {
    return "WARNING SettingsWatcher: [V]x is '" + text + "': expected " + expected + "; the default is used";
  }

  StoreInMode _store{Client::Local};
  SettingsWatcher _watcher{_store.GetClient()};
};

}  // namespace

TEST_F(CheckedSettings, AreTheirDefaultsWhileTheyAreMissing) {
  int number = 1;
  int64_t large = 1;
  double real = 1;
  milliseconds time{1};
  bool isOn = false;
  std::string text = "1";
  Codec codec = Codec::kH264;
  _watcher.AddSetting("V", "number", &number, -7);
  _watcher.AddSetting("V", "large", &large, int64_t{1} << 40);
  _watcher.AddSetting("V", "real", &real, 0.5);
  _watcher.AddSetting("V", "time", &time, milliseconds(250));
  _watcher.AddSetting("V", "on", &isOn, true);
  _watcher.AddSetting("V", "text", &text, "none");
  _watcher.AddSetting("V", "codec", &codec, Codec::kH265, {{"h264", Codec::kH264}});
  EXPECT_THAT(Read(""), ElementsAre());
  EXPECT_EQ(number, -7);
  EXPECT_EQ(large, int64_t{1} << 40);
  EXPECT_EQ(real, 0.5);
  EXPECT_EQ(time, milliseconds(250));
  EXPECT_TRUE(isOn);
  EXPECT_EQ(text, "none");
  EXPECT_EQ(codec, Codec::kH265);
}

TEST_F(CheckedSettings, AreReadAsTheirTypes) {
  int number = 0;
  int64_t large = 0;
  double real = 0;
  milliseconds time{};
  bool isOn = true;
  std::string text;
  Codec codec = Codec::kH264;
  _watcher.AddSetting("V", "number", &number, 1);
  _watcher.AddSetting("V", "large", &large, 1);
  _watcher.AddSetting("V", "real", &real, 1);
  _watcher.AddSetting("V", "time", &time, milliseconds(1));
  _watcher.AddSetting("V", "on", &isOn, true);
  _watcher.AddSetting("V", "text", &text, "none");
  _watcher.AddSetting("V", "codec", &codec, Codec::kH264, {{"h264", Codec::kH264}, {"h265", Codec::kH265}});
  EXPECT_THAT(Read("[V]\nnumber= +25 \nlarge=-9223372036854775808\nreal=-1.5e3\ntime=40\non=OFF\ntext=\ncodec=h265\n"),
              ElementsAre());
  EXPECT_EQ(number, 25);
  EXPECT_EQ(large, std::numeric_limits<int64_t>::min());
  EXPECT_EQ(real, -1500);
  EXPECT_EQ(time, milliseconds(40));
  EXPECT_FALSE(isOn);
  EXPECT_EQ(text, "");
  EXPECT_EQ(codec, Codec::kH265);
}

TEST_F(CheckedSettings, OfWholeNumbersTakeNothingElse) {
  int number = 0;
  _watcher.AddSetting("V", "x", &number, 25, 1, 60);
  EXPECT_THAT(Read("[V]\nx=60\n"), ElementsAre());
  EXPECT_EQ(number, 60);
  for (const std::string text : {"", "4O", "40fps", "1.5", "0", "61", "99999999999999999999", "0x10", "--1"}) {
    EXPECT_THAT(Read("[V]\nx=" + text + "\n"), ElementsAre(Warning(text, "a whole number from 1 to 60")));
    EXPECT_EQ(number, 25) << text;
  }
}

TEST_F(CheckedSettings, OfDurationsHaveARangeToo) {
  milliseconds time{};
  _watcher.AddSetting("V", "x", &time, milliseconds(10), milliseconds(1), milliseconds(1000));
  EXPECT_THAT(Read("[V]\nx=1001\n"), ElementsAre(Warning("1001", "a whole number from 1 to 1000")));
  EXPECT_EQ(time, milliseconds(10));
}

TEST_F(CheckedSettings, OfDecimalNumbersTakeNothingElse) {
  double real = 0;
  _watcher.AddSetting("V", "x", &real, 0.5, 0, 1);
  EXPECT_THAT(Read("[V]\nx= .75 \n"), ElementsAre());
  EXPECT_EQ(real, 0.75);
  for (const std::string text : {"", "nan", "inf", "0x1p-1", "0,5", "1.5", "-0.1", "1e999", "0.5 0.5", "e"}) {
    EXPECT_THAT(Read("[V]\nx=" + text + "\n"), ElementsAre(Warning(text, "a number from 0 to 1")));
    EXPECT_EQ(real, 0.5) << text;
  }
}

TEST_F(CheckedSettings, OfEnumerationsTakeTheirNamesExactly) {
  Codec codec = Codec::kH264;
  _watcher.AddSetting("V", "x", &codec, Codec::kH265, {{"h264", Codec::kH264}, {"h265", Codec::kH265}});
  for (const std::string text : {"H264", "h26", "", "4"}) {
    EXPECT_THAT(Read("[V]\nx=" + text + "\n"), ElementsAre(Warning(text, "one of h264, h265")));
    EXPECT_EQ(codec, Codec::kH265) << text;
  }
}

TEST_F(CheckedSettings, OfBoolsTakeTheirWordsAlone) {
  bool isOn = false;
  _watcher.AddSetting("V", "x", &isOn, true);
  EXPECT_THAT(Read("[V]\nx=treu\n"), ElementsAre(Warning("treu", "true or false")));
  EXPECT_TRUE(isOn);
}

TEST_F(CheckedSettings, AreReportedOnceForEachText) {
  int number = 0;
  _watcher.AddSetting("V", "x", &number, 25);
  EXPECT_EQ(Read("[V]\nx=a\n").size(), 1u);
  EXPECT_EQ(Read("[V]\nx=a\nother=1\n").size(), 0u);
  EXPECT_EQ(Read("[V]\nx=b\n").size(), 1u);
}

}  // namespace tavix::test
