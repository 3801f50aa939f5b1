#include "tavix/c/DocumentHandle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/c/CodeOf.h"
#include "tests/c/DocumentInC99.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

namespace {

using core::IniFile;
using testing::ElementsAre;
using testing::HasSubstr;
using Names = std::vector<std::string>;

Names GroupsOf(const DocumentHandle& document) {
  Names names;
  const char* group = nullptr;
  size_t size = 0;
  while (tavix_document_next_group(document.get(), &group, &size, nullptr) == TAVIX_OK) names.emplace_back(group, size);
  return names;
}

IniFile::KeyMap KeysOf(const DocumentHandle& document, const std::string& group) {
  IniFile::KeyMap keys;
  const char* key = nullptr;
  const char* value = nullptr;
  size_t keySize = 0;
  size_t valueSize = 0;
  while (tavix_document_next_key(document.get(), group.data(), group.size(), &key, &keySize, &value, &valueSize,
                                 nullptr) == TAVIX_OK)
    keys.emplace(std::string(key, keySize), std::string(value, valueSize));
  return keys;
}

std::string Get(const DocumentHandle& document, const char* group, const char* key) {
  const char* value = nullptr;
  const int32_t code = tavix_document_get_z(document.get(), group, key, &value, nullptr);
  return code == TAVIX_OK ? value : CodeOf(code);
}

}  // namespace

TEST(DocumentHandle, IsUsedByAProgramInC99) {
  EXPECT_STREQ(TavixUseDocumentInC99(), "");
}

TEST(DocumentHandle, HoldsWhatWasSet) {
  const DocumentHandle document = Document("");
  EXPECT_EQ(tavix_document_set_z(document.get(), "A", "x", "1", nullptr), TAVIX_OK);
  EXPECT_EQ(tavix_document_set_z(document.get(), "A", "x", "2", nullptr), TAVIX_OK);
  EXPECT_EQ(tavix_document_set_z(document.get(), "A", "y", "", nullptr), TAVIX_OK);
  EXPECT_EQ(tavix_document_set_group_z(document.get(), "B", nullptr), TAVIX_OK);
  EXPECT_EQ(tavix_document_set_group_z(document.get(), "A", nullptr), TAVIX_OK);
  EXPECT_EQ(TextOf(document), "[A]\nx=2\ny=\n[B]\n");
  EXPECT_EQ(Get(document, "A", "x"), "2");
  EXPECT_EQ(Get(document, "A", "z"), "NOT_SET");
  EXPECT_EQ(Get(document, "C", "x"), "NOT_SET");
}

TEST(DocumentHandle, HoldsBytesOfAllKindsInEveryPlace) {
  const DocumentHandle document = Document("");
  const std::string group("g\0\n", 3);
  const std::string key("\0", 1);
  const std::string value("=\0]", 3);
  EXPECT_EQ(tavix_document_set(document.get(), group.data(), 3, key.data(), 1, value.data(), 3, nullptr), TAVIX_OK);
  const char* found = nullptr;
  size_t size = 0;
  EXPECT_EQ(tavix_document_get(document.get(), group.data(), 3, key.data(), 1, &found, &size, nullptr), TAVIX_OK);
  EXPECT_EQ(std::string(found, size), value);
  EXPECT_EQ(found[size], '\0');
  EXPECT_THAT(GroupsOf(document), ElementsAre(group));
  EXPECT_EQ(KeysOf(document, group), (IniFile::KeyMap{{key, value}}));
}

TEST(DocumentHandle, LosesWhatWasUnset) {
  const DocumentHandle document = Document("[A]\nx=1\n[B]\ny=1\n");
  EXPECT_EQ(tavix_document_unset_z(document.get(), "A", "x", nullptr), TAVIX_OK);
  EXPECT_EQ(CodeOf(tavix_document_unset_z(document.get(), "A", "x", nullptr)), "NOT_SET");
  EXPECT_EQ(CodeOf(tavix_document_unset_z(document.get(), "C", "x", nullptr)), "NOT_SET");
  EXPECT_EQ(tavix_document_unset_group_z(document.get(), "B", nullptr), TAVIX_OK);
  EXPECT_EQ(CodeOf(tavix_document_unset_group_z(document.get(), "B", nullptr)), "NOT_SET");
  EXPECT_EQ(TextOf(document), "[A]\n");
}

TEST(DocumentHandle, CountsItsGroupsAndTheirKeys) {
  const DocumentHandle document = Document("[A]\nx=1\ny=1\n[B]\n");
  size_t count = 0;
  EXPECT_EQ(tavix_document_count(document.get(), &count, nullptr), TAVIX_OK);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(tavix_document_count_keys_z(document.get(), "A", &count, nullptr), TAVIX_OK);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(tavix_document_count_keys_z(document.get(), "B", &count, nullptr), TAVIX_OK);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(CodeOf(tavix_document_count_keys_z(document.get(), "C", &count, nullptr)), "NOT_SET");
}

TEST(DocumentHandle, GivesAllGroupsAndKeysInTurn) {
  RandomDocuments documents(7);
  for (int i = 0; i < 50; ++i) {
    const IniFile::GroupMap expected = documents.Next();
    const DocumentHandle document = Document("");
    document->settings = IniFile(expected);
    IniFile::GroupMap found;
    for (const std::string& group : GroupsOf(document)) found[group] = KeysOf(document, group);
    EXPECT_EQ(found, expected);
  }
}

TEST(DocumentHandle, GoesOnBehindAGroupThatWasRemoved) {
  const DocumentHandle document = Document("[A]\n[B]\n[C]\n");
  const char* group = "A";
  EXPECT_EQ(tavix_document_unset_group_z(document.get(), "A", nullptr), TAVIX_OK);
  EXPECT_EQ(tavix_document_next_group_z(document.get(), &group, nullptr), TAVIX_OK);
  EXPECT_STREQ(group, "B");
  group = "C";
  EXPECT_EQ(CodeOf(tavix_document_next_group_z(document.get(), &group, nullptr)), "NOT_SET");
  EXPECT_STREQ(group, "C");
}

TEST(DocumentHandle, GivesKeysAsCStrings) {
  const DocumentHandle document = Document("[A]\nx=1\ny=2\n");
  const char* key = nullptr;
  const char* value = nullptr;
  std::string found;
  while (tavix_document_next_key_z(document.get(), "A", &key, &value, nullptr) == TAVIX_OK)
    found += std::string(key) + value;
  EXPECT_EQ(found, "x1y2");
}

TEST(DocumentHandle, GivesNoCStringThatWouldBeCut) {
  const DocumentHandle document = Document("[a\\x00b]\nc\\x00d=e\\x00f\n[g]\nh=i\\x00j\n");
  const char* text = nullptr;
  const char* value = nullptr;
  tavix_error error;
  EXPECT_EQ(CodeOf(tavix_document_get_z(document.get(), "g", "h", &text, &error)), "PARSE");
  EXPECT_THAT(error.text, HasSubstr("NUL"));
  EXPECT_EQ(CodeOf(tavix_document_next_group_z(document.get(), &text, nullptr)), "PARSE");
  EXPECT_EQ(CodeOf(tavix_document_next_key_z(document.get(), "g", &text, &value, nullptr)), "PARSE");
  EXPECT_EQ(text, nullptr);
}

TEST(DocumentHandle, GivesNoValueOfAKeyThatWouldBeCut) {
  const DocumentHandle document = Document("[a]\nc\\x00d=e\n");
  const char* key = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(CodeOf(tavix_document_next_key_z(document.get(), "a", &key, &value, nullptr)), "PARSE");
  EXPECT_EQ(key, nullptr);
  EXPECT_EQ(value, nullptr);
}

TEST(DocumentHandle, ReadsAndWritesEveryDocumentAsText) {
  RandomDocuments documents(8);
  for (int i = 0; i < 50; ++i) {
    const std::string text = TextOf(IniFile(documents.Next()));
    EXPECT_EQ(TextOf(Document(text)), text);
  }
}

TEST(DocumentHandle, AddsNothingOfTextThatDoesNotParse) {
  const DocumentHandle document = Document("[A]\nx=1\n");
  tavix_error error;
  EXPECT_EQ(CodeOf(tavix_document_parse_z(document.get(), "[A]\nx=2\nnonsense\n", &error)), "PARSE");
  EXPECT_EQ(CodeOf(error.code), "PARSE");
  EXPECT_EQ(std::string(error.text), "settings text:3: expected \"[group]\" or \"key=value\", found \"nonsense\"");
  EXPECT_EQ(TextOf(document), "[A]\nx=1\n");
}

TEST(DocumentHandle, GivesItsTextAsACString) {
  const DocumentHandle document = Document("[A]\nx=a\\x00b\n");
  const char* text = nullptr;
  EXPECT_EQ(tavix_document_print_z(document.get(), &text, nullptr), TAVIX_OK);
  EXPECT_EQ(text, TextOf(document));
}

TEST(DocumentHandle, OfNoneIsFreed) {
  tavix_document_free(nullptr);
}

}  // namespace tavix::test
