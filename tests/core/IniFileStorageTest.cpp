// How documents are read from files and streams, and written to them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <ios>
#include <sstream>
#include <streambuf>
#include <string>
#include <string_view>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tests/support/DocumentText.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::test::DocumentOf;
using tavix::test::TemporaryDirectory;
using testing::HasSubstr;

TEST(IniFile, LoadingAddsAndReplaces) {
  IniFile ini = DocumentOf("[a]\nkept=1\nchanged=1\n");
  ini.LoadFromString("[a]\nchanged=2\n[b]\nk=2\n");
  EXPECT_EQ(ini.GetGroups(), DocumentOf("[a]\nchanged=2\nkept=1\n[b]\nk=2\n").GetGroups());
  std::istringstream more("[b]\nk=3\n");
  ini.LoadFromStream(more);
  EXPECT_EQ(ini.GetValue("b", "k"), "3");
}

TEST(IniFile, AFileIsLoaded) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("site.ini", "[Network]\nip=10.0.0.2\n");
  const IniFile constructed(path.c_str());
  IniFile loaded;
  loaded.Load(path.c_str());
  EXPECT_EQ(constructed.GetGroups(), (IniFile::GroupMap{{"Network", {{"ip", "10.0.0.2"}}}}));
  EXPECT_EQ(loaded.GetGroups(), constructed.GetGroups());
}

TEST(IniFile, AnEmptyFileIsAnEmptyDocument) {
  const TemporaryDirectory directory;
  EXPECT_TRUE(IniFile(directory.Write("empty.ini", "").c_str()).IsEmpty());
}

void ExpectLoadFails(const std::string& path, const std::string& reason) {
  IniFile ini = DocumentOf("[kept]\nk=v\n");
  EXPECT_THAT([&] { ini.Load(path.c_str()); },
              testing::ThrowsMessage<Exception>(testing::AllOf(HasSubstr(path), HasSubstr(reason))));
  EXPECT_EQ(ini.GetGroups(), DocumentOf("[kept]\nk=v\n").GetGroups());
}

TEST(IniFile, AFileThatCannotBeOpenedIsNamedWithTheReason) {
  const TemporaryDirectory directory;
  ExpectLoadFails(directory.Path("missing.ini"), "No such file or directory");
  ExpectLoadFails(directory.Path("missing/site.ini"), "No such file or directory");
  ExpectLoadFails(directory.Write("file", "") + "/site.ini", "Not a directory");
  ASSERT_EQ(symlink("loop.ini", directory.Path("loop.ini").c_str()), 0);
  ExpectLoadFails(directory.Path("loop.ini"), "Too many levels of symbolic links");
  ExpectLoadFails(directory.Path(std::string(300, 'x')), "File name too long");
}

TEST(IniFile, ADirectoryIsNoSettingsFile) {
  const TemporaryDirectory directory;
  ExpectLoadFails(directory.GetPath(), "Is a directory");
}

TEST(IniFile, TheTextOfAMissingFilesErrorIsForThePersonWhoHasToAct) {
  EXPECT_THAT([] { IniFile("/nonexistent/site.ini"); },
              testing::ThrowsMessage<Exception>(
                  "Failed to open settings file '/nonexistent/site.ini': No such file or directory"));
}

TEST(IniFile, AFileWithABadLineIsNamedWithTheLine) {
  const TemporaryDirectory directory;
  ExpectLoadFails(directory.Write("bad.ini", "[a]\nk=1\nbad line\n"), "bad.ini:3: ");
}

TEST(IniFile, ALoadThatFailsChangesNothing) {
  const std::string bad = "[a]\nk=2\n[b]\nk=2\nbad line\n[c]\nk=2\n";
  IniFile ini = DocumentOf("[a]\nk=1\n");
  EXPECT_THROW(ini.LoadFromString(bad), Exception);
  std::istringstream stream(bad);
  EXPECT_THROW(ini.LoadFromStream(stream), Exception);
  EXPECT_EQ(ini.GetGroups(), DocumentOf("[a]\nk=1\n").GetGroups());
}

// Breaks after its text, as a disk does.
class BreakingBuf : public std::stringbuf {
 public:
  explicit BreakingBuf(const std::string& text) : std::stringbuf(text) {}

 protected:
  int_type underflow() override {
    const int_type next = std::stringbuf::underflow();
    if (traits_type::eq_int_type(next, traits_type::eof())) throw std::runtime_error("broken");
    return next;
  }
};

TEST(IniFile, AStreamThatBreaksIsAnErrorAndChangesNothing) {
  BreakingBuf buffer("[a]\nk=2\n");
  std::istream stream(&buffer);
  IniFile ini = DocumentOf("[a]\nk=1\n");
  EXPECT_THAT([&] { ini.LoadFromStream(stream, "the disk"); },
              testing::ThrowsMessage<Exception>(HasSubstr("the disk")));
  EXPECT_EQ(ini.GetValue("a", "k"), "1");
}

TEST(IniFile, AStreamThatHasEndedAddsNothing) {
  std::istringstream stream("");
  IniFile ini = DocumentOf("[a]\nk=1\n");
  ini.LoadFromStream(stream);
  ini.LoadFromStream(stream);
  EXPECT_EQ(ini.GetGroups(), DocumentOf("[a]\nk=1\n").GetGroups());
}

TEST(IniFile, OneGroupIsSavedAlone) {
  const IniFile ini = DocumentOf("[a]\nk=1\n[b]\nk=2\n");
  std::ostringstream text;
  ini.SaveGroupToStream(text, "b");
  EXPECT_EQ(text.str(), "[b]\nk=2\n");
}

TEST(IniFile, AMissingGroupIsSavedAsNothing) {
  std::ostringstream text;
  DocumentOf("[a]\nk=1\n").SaveGroupToStream(text, "b");
  EXPECT_EQ(text.str(), "");
  EXPECT_TRUE(text.good());
}

TEST(IniFile, GroupsSavedOneByOneReadBackAsOneDocument) {
  const IniFile ini = DocumentOf("[a]\nk=1\n[b]\n[c]\nk=3\n");
  std::stringstream text;
  for (const char* group : {"c", "a", "b"}) ini.SaveGroupToStream(text, group);
  IniFile loaded;
  loaded.LoadFromStream(text);
  EXPECT_EQ(loaded.GetGroups(), ini.GetGroups());
}

TEST(IniFile, AStreamThatFailsTellsByItsState) {
  IniFile ini;
  ini.SetValue("a", "k", std::string(100 * 1000, 'x'));
  std::ofstream full("/dev/full");
  ini.SaveToStream(full);
  full.flush();
  EXPECT_FALSE(full);
}

// Takes nothing.
class FullBuf : public std::streambuf {
 protected:
  std::streamsize xsputn(const char*, std::streamsize) override { return 0; }
};

TEST(IniFile, AStreamThatWasToldToThrowDoesSo) {
  for (const size_t size : {1u, 100u * 1000}) {
    IniFile ini;
    ini.SetValue("a", "k", std::string(size, 'x'));
    ini.SetValue("b", "k", std::string(size, 'x'));
    FullBuf buffer;
    std::ostream full(&buffer);
    full.exceptions(std::ios::badbit);
    EXPECT_THROW(ini.SaveToStream(full), std::ios::failure) << size;
    full.clear();
    EXPECT_THROW(ini.SaveGroupToStream(full, "a"), std::ios::failure) << size;
  }
}

// Groups that come again, and what is read past, included.
TEST(IniFile, WantedGroupsOfAFileAreLoadedAlone) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("site.ini", "[a]\nx=1\n[b]\ny=1\n[a]\nz=2\n[c]\n[empty]\n");
  IniFile ini = DocumentOf("[kept]\nk=1\n");
  ini.LoadGroups(path.c_str(), [](std::string_view name) { return name == "a" || name == "empty"; });
  EXPECT_EQ(ini.GetGroups(), DocumentOf("[a]\nx=1\nz=2\n[empty]\n[kept]\nk=1\n").GetGroups());
}

TEST(IniFile, GroupsThatAreNotWantedAreReadForTheirErrors) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("site.ini", "[a]\nx=1\n[b]\nbad\n");
  IniFile ini;
  EXPECT_THROW(ini.LoadGroups(path.c_str(), [](std::string_view name) { return name == "a"; }), Exception);
  EXPECT_TRUE(ini.IsEmpty());
}

}  // namespace
