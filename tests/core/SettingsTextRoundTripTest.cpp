#include "tavix/core/SettingsText.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tavix/core/DelimitedIstream.h"
#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tests/core/SettingsTextTest.h"
#include "tests/support/RandomDocument.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::test::RandomDocuments;
using tavix::test::Read;
using tavix::test::Write;
using GroupMap = IniFile::GroupMap;

// The writer looks at eight bytes at a time.
TEST(SettingsText, WhatNeedsAnEscapeIsFoundAtEveryPlaceOfAText) {
  for (size_t size = 1; size <= 40; ++size) {
    for (size_t at = 0; at < size; ++at) {
      for (const char byte : {'\n', '\\', '=', ']', '\0', '\x7f', '\x1f', '\xff', '\x80', ' '}) {
        std::string text(size, 'a');
        text[at] = byte;
        const GroupMap groups{{text, {{text, text}}}};
        ASSERT_EQ(Read(Write(groups)), groups) << Write(groups);
      }
    }
  }
}

TEST(SettingsText, EveryPairOfBytesSurvives) {
  IniFile::KeyMap keys;
  for (int pair = 0; pair < 256 * 256; ++pair) {
    const char bytes[] = {static_cast<char>(pair / 256), static_cast<char>(pair % 256)};
    const std::string text(bytes, 2);
    keys[text] = text;
  }
  const GroupMap groups{{"g", keys}};
  EXPECT_TRUE(Read(Write(groups)) == groups);
}

TEST(SettingsText, EveryNameOfTwoBytesSurvives) {
  GroupMap groups;
  for (int pair = 0; pair < 256 * 256; ++pair) {
    const char bytes[] = {static_cast<char>(pair / 256), static_cast<char>(pair % 256)};
    groups[std::string(bytes, 2)];
  }
  EXPECT_TRUE(Read(Write(groups)) == groups);
}

TEST(SettingsText, RandomDocumentsSurvive) {
  RandomDocuments documents(1);
  for (int round = 0; round < 5000; ++round) {
    const GroupMap groups = documents.Next();
    ASSERT_EQ(Read(Write(groups)), groups) << Write(groups);
  }
}

TEST(SettingsText, RandomDocumentsSurviveGroupByGroup) {
  RandomDocuments documents(2);
  for (int round = 0; round < 3000; ++round) {
    const IniFile ini(documents.Next());
    std::ostringstream forwards, backwards;
    for (const auto& group : ini) ini.SaveGroupToStream(forwards, group.first);
    for (auto group = ini.GetGroups().rbegin(); group != ini.GetGroups().rend(); ++group)
      ini.SaveGroupToStream(backwards, group->first);
    ASSERT_EQ(forwards.str(), Write(ini.GetGroups()));
    ASSERT_EQ(Read(backwards.str()), ini.GetGroups()) << backwards.str();
  }
}

TEST(SettingsText, TextsOneAfterTheOtherReadBackAsOneDocument) {
  RandomDocuments documents(3);
  for (int round = 0; round < 2000; ++round) {
    IniFile merged(documents.Next());
    const IniFile second(documents.Next());
    const std::string text = Write(merged.GetGroups()) + Write(second.GetGroups());
    merged.MergeSettings(second);
    ASSERT_EQ(Read(text), merged.GetGroups()) << text;
  }
}

// Mail programs and editors add carriage returns and marks; no byte of the document may be taken for one of them.
TEST(SettingsText, RandomDocumentsSurviveAForeignEditorsLineEnds) {
  RandomDocuments documents(4);
  for (int round = 0; round < 2000; ++round) {
    const GroupMap groups = documents.Next();
    std::string text = "\xEF\xBB\xBF";
    for (const char byte : Write(groups)) text += byte == '\n' ? std::string("\r\n") : std::string(1, byte);
    ASSERT_EQ(Read(text), groups) << text;
  }
}

TEST(SettingsText, EveryLineEndsAndNoneIsADotAlone) {
  RandomDocuments documents(5);
  for (int round = 0; round < 5000; ++round) {
    const std::string text = Write(documents.Next());
    ASSERT_TRUE(text.empty() || text.back() == '\n');
    ASSERT_EQ(("\n" + text).find("\n.\n"), std::string::npos) << text;
    ASSERT_EQ(text.find('\r'), std::string::npos) << text;
  }
}

TEST(SettingsText, RandomDocumentsSurviveAsAPayload) {
  RandomDocuments documents(6);
  for (int round = 0; round < 2000; ++round) {
    const GroupMap groups = documents.Next();
    std::istringstream wire(Write(groups) + ".\nnext\n");
    IniFile received;
    tavix::stl::DelimitedIstream payload(&wire);
    received.LoadFromStream(payload);
    ASSERT_EQ(received.GetGroups(), groups);
    std::string next;
    ASSERT_TRUE(std::getline(wire, next));
    ASSERT_EQ(next, "next");
  }
}

TEST(SettingsText, WhatWasReadFromAnyTextSurvives) {
  RandomDocuments texts(7);
  int read = 0;
  for (int round = 0; round < 5000; ++round) {
    const std::string text = "[g]\n" + texts.NextText(10) + "=" + texts.NextText(10) + "\n[" + texts.NextText(5) + "]";
    IniFile ini;
    try {
      ini.LoadFromString(text);
    } catch (const Exception&) {
      continue;
    }
    ++read;
    ASSERT_EQ(Read(Write(ini.GetGroups())), ini.GetGroups()) << text;
  }
  EXPECT_GT(read, 1000);
}

}  // namespace
