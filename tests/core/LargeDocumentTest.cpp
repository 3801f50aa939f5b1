// Documents so large that two threads share the work.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::test::TemporaryDirectory;

constexpr int kGroups = 12000;

std::string GroupName(int index) {
  return "Group/" + std::to_string(100000 + index);
}

std::string GroupText(const std::string& name, const std::string& value) {
  return "[" + name + "]\nkey=" + value + "\n# a comment\n\nother=" + std::string(400, 'x') + "\n";
}

// More than 4 MiB.
std::string LargeText() {
  std::string text;
  for (int i = 0; i < kGroups; ++i) text += GroupText(GroupName(i), std::to_string(i));
  return text;
}

// Line by line, on this thread.
IniFile FromStream(const std::string& text) {
  std::istringstream in(text);
  IniFile document;
  document.LoadFromStream(in, "source");
  return document;
}

IniFile FromMemory(const std::string& text) {
  IniFile document;
  document.LoadFromMemory(text, "source");
  return document;
}

template <class Load>
std::string ErrorOf(Load load, const std::string& text) {
  try {
    load(text);
  } catch (const Exception& exception) {
    return exception.what();
  }
  return "";
}

void ExpectSame(const std::string& text) {
  ASSERT_GT(text.size(), 4u * 1024 * 1024);
  EXPECT_TRUE(FromMemory(text).GetGroups() == FromStream(text).GetGroups());
}

TEST(LargeDocument, IsReadFromMemoryAsFromAStream) {
  ExpectSame(LargeText());
}

TEST(LargeDocument, OfOneGroupAloneIsRead) {
  std::string text = "[only]\n";
  for (int i = 0; i < kGroups; ++i) text += "key" + std::to_string(i) + "=" + std::string(400, 'x') + "\n";
  ExpectSame(text);
}

TEST(LargeDocument, TheLastOfTwoValuesWins) {
  const std::string large = LargeText();
  ExpectSame(GroupText("Twice", "first") + large + GroupText("Twice", "last") + "[" + GroupName(3) + "]\nkey=last\n");
  IniFile document = FromMemory(GroupText("Twice", "first") + large + GroupText("Twice", "last"));
  EXPECT_EQ(document.GetValue("Twice", "key"), "last");
}

TEST(LargeDocument, AnErrorNamesItsLineInEitherHalf) {
  const std::string large = LargeText();
  for (const std::string& text : {"bad\n" + large, large + "bad\n", large + GroupText("g", "v") + "bad"}) {
    const std::string error = ErrorOf(FromMemory, text);
    EXPECT_NE(error, "");
    EXPECT_EQ(error, ErrorOf(FromStream, text));
  }
}

TEST(LargeDocument, IsLoadedFromItsFileAsFromMemory) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("large.ini", LargeText());
  EXPECT_TRUE(IniFile(path.c_str()).GetGroups() == FromStream(LargeText()).GetGroups());
}

TEST(LargeDocument, WantedGroupsAreLoadedFromBothHalves) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("large.ini", LargeText());
  IniFile document;
  document.LoadGroups(path.c_str(),
                      [](std::string_view name) { return name == GroupName(1) || name == GroupName(kGroups - 1); });
  ASSERT_EQ(document.GetGroups().size(), 2u);
  EXPECT_EQ(document.GetValue(GroupName(1), "key"), "1");
  EXPECT_EQ(document.GetValue(GroupName(kGroups - 1), "key"), std::to_string(kGroups - 1));
}

TEST(LargeDocument, AnErrorInItsFileNamesFileAndLine) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("large.ini", "[g]\nbad\n" + LargeText());
  const auto load = [](const std::string& file) { IniFile document(file.c_str()); };
  EXPECT_EQ(ErrorOf(load, path), path + ":2: expected \"[group]\" or \"key=value\", found \"bad\"");
}

TEST(LargeDocument, ALoadThatFailsChangesNothing) {
  IniFile document;
  document.SetValue("kept", "key", "value");
  EXPECT_THROW(document.LoadFromMemory(LargeText() + "bad\n", "source"), Exception);
  EXPECT_EQ(document.GetGroups().size(), 1u);
}

TEST(LargeDocument, IsCopiedWholeIntoAnEmptyOne) {
  const IniFile large = FromMemory(LargeText());
  IniFile copy;
  copy.MergeSettings(large);
  EXPECT_TRUE(copy.GetGroups() == large.GetGroups());
  EXPECT_EQ(large.GetGroups().size(), static_cast<size_t>(kGroups));
}

TEST(LargeDocument, IsMovedBehindOrAmongWhatIsThere) {
  for (const char* name : {"Before", "Group/1", "Z"}) {
    IniFile document;
    document.SetValue(name, "key", "value");
    IniFile expected = document;
    IniFile large = FromMemory(LargeText());
    expected.MergeSettings(large);
    document.MergeSettings(std::move(large));
    EXPECT_TRUE(document.GetGroups() == expected.GetGroups()) << name;
    EXPECT_TRUE(large.IsEmpty()) << name;
  }
}

}  // namespace
