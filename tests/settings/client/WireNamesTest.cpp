#include "tavix/settings/client/WireNames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolConstants.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::client::RequireSendableNames;

TEST(WireNames, WhatStandsOnALineOfItsOwnIsSendable) {
  for (const std::string name : {"", "Network", "Net/*", "..", ". ", " .", ".x", "a b", "a\rb", "[x]", "a\\nb"}) {
    EXPECT_NO_THROW(RequireSendableNames(std::set<std::string>{"A", name})) << name;
    EXPECT_NO_THROW(RequireSendableNames(IniFile({{"A", {}}, {name, {}}}))) << name;
  }
}

TEST(WireNames, AnythingElseIsRefusedAndShown) {
  const struct {
    const char* name;
    const char* shown;
  } cases[] = {{".", "."}, {"a\nb", "a\\x0ab"}, {"\n", "\\x0a"}, {"a\n.\nquit\n*", "a\\x0a.\\x0aquit\\x0a*"}};
  for (const auto& [name, shown] : cases) {
    const std::string text =
        std::string("Group name \"") + shown + "\" can't be sent: it can't stand on a line of its own";
    EXPECT_THAT(
        [name = name] {
          RequireSendableNames(std::set<std::string>{"A", name});
        },
        testing::ThrowsMessage<Exception>(text));
    EXPECT_THAT(
        [name = name] {
          RequireSendableNames(IniFile({{"A", {}}, {name, {}}}));
        },
        testing::ThrowsMessage<Exception>(text));
  }
}

// Values travel inside settings text, which escapes them.
TEST(WireNames, KeysAndValuesMayBeAnything) {
  EXPECT_NO_THROW(RequireSendableNames(IniFile({{"A", {{".", "."}, {"line\nbreak", "\n.\n"}}}})));
}

// Escapes count, and so does what stands around the text.
TEST(WireNames, LineThatIsLongerThanTheMaximumIsRefused) {
  const size_t max = tavix::settings::client::protocol::kMaxLineBytes;
  for (const std::string& longest : {std::string(max - 2, 'x'), std::string((max - 2) / 2, '\n')}) {
    EXPECT_NO_THROW(RequireSendableNames(IniFile({{"A", {{"k", longest}}}})));
    EXPECT_THAT(
        [&] {
          RequireSendableNames(IniFile({{"A", {{"k", longest + "x"}}}}));
        },
        testing::ThrowsMessage<Exception>("Key \"k\" of group \"A\" can't be sent: its line of 16777217 bytes is "
                                          "longer than the 16777216 allowed"));
  }
  const std::string name(max - 2, 'n');
  EXPECT_NO_THROW(RequireSendableNames(IniFile({{"", {}}, {name, {}}})));
  EXPECT_THROW(RequireSendableNames(IniFile({{"", {}}, {name + "n", {}}})), Exception);
  EXPECT_NO_THROW(RequireSendableNames(std::set<std::string>{name + "nn"}));
  EXPECT_THROW(RequireSendableNames(std::set<std::string>{name + "nnn"}), Exception);
}

}  // namespace
