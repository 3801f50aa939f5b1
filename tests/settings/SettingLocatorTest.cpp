#include "tavix/settings/SettingLocator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "tavix/osa/Exception.h"
#include "tests/support/LogOf.h"

namespace {

using tavix::osa::Exception;
using tavix::settings::SettingLocator;
using tavix::test::LogOf;

TEST(SettingLocator, TakesGroupAndKeyAsTheyAre) {
  for (const std::string text : {"", " Network ", "[a]b]", "line\nbreak"}) {
    const SettingLocator locator(text, text + "!");
    EXPECT_EQ(locator.group, text);
    EXPECT_EQ(locator.key, text + "!");
  }
}

TEST(SettingLocator, IsParsedFromAGroupInBracketsAndAKey) {
  const struct {
    const char* text;
    const char* group;
    const char* key;
  } cases[] = {
      {"[Network]hostname", "Network", "hostname"},
      {"[Net/Eth0]ip", "Net/Eth0", "ip"},
      {"ignored[Network]hostname", "Network", "hostname"},
      {"[]key", "", "key"},
      {"[group]", "group", ""},
      {"[]", "", ""},
      {"[ spaced ] key ", " spaced ", " key "},
      {"[log]log.level", "log", "log.level"},
  };
  for (const auto& [text, group, key] : cases) {
    const SettingLocator locator{std::string(text)};
    EXPECT_EQ(locator.group, group) << text;
    EXPECT_EQ(locator.key, key) << text;
  }
}

// The text is split at two brackets and no more: further ones belong to the key.
TEST(SettingLocator, AKeyMayHoldBrackets) {
  EXPECT_EQ(SettingLocator(std::string("[a]b]c")).key, "b]c");
  EXPECT_EQ(SettingLocator(std::string("[a][b]")).key, "[b]");
  EXPECT_EQ(SettingLocator(std::string("[a]b]c")).group, "a");
}

// Which bracket is which is not looked at, on purpose: the two are one set of delimiters.
TEST(SettingLocator, EitherBracketDelimits) {
  const SettingLocator locator(std::string("]group[key"));
  EXPECT_EQ(locator.group, "group");
  EXPECT_EQ(locator.key, "key");
}

TEST(SettingLocator, ATextWithFewerThanTwoBracketsIsRefusedAndShown) {
  for (const std::string text : {"hostname", "", "[Network", "Network]hostname", "%s", "a.", "/b"}) {
    EXPECT_THAT([&] { SettingLocator locator(text); },
                testing::ThrowsMessage<Exception>("Failed to parse '" + text + "' as a SettingLocator"));
  }
}

TEST(SettingLocator, OtherSpellingsAreLoggedWithTheRightForm) {
  for (const std::string text : {"Video.Main.fps", "Video/Main/fps", "Video/Main.fps"}) {
    const auto messages = LogOf([&] {
      EXPECT_THAT([&] { SettingLocator locator(text); },
                  testing::ThrowsMessage<Exception>("Failed to parse '" + text + "' as a SettingLocator"));
    });
    EXPECT_THAT(messages, testing::ElementsAre("WARNING SettingLocator: '" + text +
                                               "' is no setting: one setting is '[Video/Main]fps'"));
  }
}

TEST(SettingLocator, IsAPlainValue) {
  SettingLocator locator("a", "b");
  const SettingLocator copy = locator;
  locator = SettingLocator("c", "d");
  EXPECT_EQ(copy.group + copy.key, "ab");
  EXPECT_EQ(locator.group + locator.key, "cd");
}

}  // namespace
