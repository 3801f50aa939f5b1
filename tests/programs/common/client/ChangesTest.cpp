#include "programs/common/client/Changes.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "programs/common/client/Json.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

namespace {

std::string ChangesOf(const std::string& before, const std::string& after) {
  std::string lines;
  for (const programs::Change& change : programs::FindChanges(DocumentOf(before), DocumentOf(after)))
    lines += programs::Compact(programs::ToJson(change)) + "\n";
  return lines;
}

}  // namespace

TEST(Changes, AreNoneBetweenEqualDocuments) {
  EXPECT_EQ(ChangesOf("[a]\nk=1\n[b]\n", "[a]\nk=1\n[b]\n"), "");
}

TEST(Changes, NameBothValues) {
  EXPECT_EQ(ChangesOf("[a]\nk=1\nl=1\n", "[a]\nk=2\nm=1\n"),
            "{\"group\":\"a\",\"key\":\"k\",\"new\":\"2\",\"old\":\"1\"}\n"
            "{\"group\":\"a\",\"key\":\"l\",\"new\":null,\"old\":\"1\"}\n"
            "{\"group\":\"a\",\"key\":\"m\",\"new\":\"1\",\"old\":null}\n");
}

TEST(Changes, NameGroupsThatCameEmptyOrWent) {
  EXPECT_EQ(ChangesOf("[a]\n", "[b]\n"),
            "{\"event\":\"group removed\",\"group\":\"a\"}\n{\"event\":\"group added\",\"group\":\"b\"}\n");
}

TEST(Changes, LeadFromOneDocumentToTheOther) {
  RandomDocuments documents(9);
  for (int i = 0; i < 300; ++i) {
    core::IniFile document(documents.Next());
    const core::IniFile after(documents.Next());
    for (const programs::Change& change : programs::FindChanges(document, after)) {
      if (!change.key && change.hasCome) document[change.group];
      if (!change.key && !change.hasCome) document.RemoveGroup(change.group);
      if (change.after) document.SetValue(change.group, *change.key, *change.after);
      if (change.key && !change.after && document.HasGroup(change.group)) document[change.group].erase(*change.key);
    }
    EXPECT_EQ(document.GetGroups(), after.GetGroups());
  }
}

}  // namespace tavix::test
