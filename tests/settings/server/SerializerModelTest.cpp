#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ISettingsSerializer.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::ISettingsSerializer;
using tavix::settings::server::SerializationManager;
using tavix::test::RandomDocuments;

// What comes behind a payload on a connection.
constexpr char kBehind[] = "next\n";

std::string Serialized(const ISettingsSerializer& serializer, const IniFile& document) {
  GroupNameMatcher everything;
  everything.AddNameOrPattern("*");
  std::ostringstream text;
  serializer.OnSerialize(document, everything, text);
  return text.str();
}

std::string LastLineOf(std::istream& in) {
  std::string last;
  for (std::string line; std::getline(in, line);) last = line + '\n';
  return last;
}

TEST(SerializerModel, AnyDocumentComesBackFromEverySerialization) {
  const SerializationManager manager;
  for (const char* name : {"ini", "phparray"}) {
    const ISettingsSerializer& serializer = *manager.GetSerializer(name);
    RandomDocuments random(3401);
    for (int round = 0; round < 3000; ++round) {
      const IniFile document(random.Next());
      std::istringstream in(Serialized(serializer, document) + ".\n" + kBehind);
      IniFile read;
      serializer.OnDeserialize(in, read);
      ASSERT_EQ(read.GetGroups(), document.GetGroups()) << name << ", round " << round;
      ASSERT_EQ(LastLineOf(in), kBehind) << name << ", round " << round;
    }
  }
}

TEST(SerializerModel, AnyBytesAreReadOrRefused) {
  const SerializationManager manager;
  RandomDocuments random(3402);
  for (int round = 0; round < 20000; ++round) {
    const ISettingsSerializer& serializer = *manager.GetSerializer(round % 2 ? "ini" : "phparray");
    const std::string bytes = random.NextText(40);
    std::istringstream in(round % 4 < 2 ? bytes : "a:1:{s:1:\"A\";a:1:{" + bytes);
    IniFile document;
    try {
      serializer.OnDeserialize(in, document);
    } catch (const tavix::osa::Exception& exception) {
      ASSERT_STRNE(exception.what(), "");
    }
  }
}

}  // namespace
