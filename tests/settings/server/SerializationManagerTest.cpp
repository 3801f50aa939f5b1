#include "tavix/settings/server/SerializationManager.h"

#include <gtest/gtest.h>

#include "tavix/settings/server/IniFileSettingsSerializer.h"
#include "tavix/settings/server/PhpArraySettingsSerializer.h"

namespace {

using tavix::settings::server::IniFileSettingsSerializer;
using tavix::settings::server::PhpArraySettingsSerializer;
using tavix::settings::server::SerializationManager;

TEST(SerializationManager, FindsSerializersByName) {
  const SerializationManager manager;
  EXPECT_NE(dynamic_cast<const IniFileSettingsSerializer*>(manager.GetSerializer("ini")), nullptr);
  EXPECT_NE(dynamic_cast<const PhpArraySettingsSerializer*>(manager.GetSerializer("phparray")), nullptr);
}

TEST(SerializationManager, OwnsOneOfEach) {
  const SerializationManager manager;
  const SerializationManager other;
  for (const char* name : {"ini", "phparray"}) {
    EXPECT_EQ(manager.GetSerializer(name), manager.GetSerializer(name));
    EXPECT_NE(manager.GetSerializer(name), other.GetSerializer(name));
  }
}

TEST(SerializationManager, OnlyTheExactNameFindsOne) {
  const SerializationManager manager;
  for (const char* name : {"", "INI", "Ini", "ini ", "in", "php", "PHPARRAY", "json"})
    EXPECT_EQ(manager.GetSerializer(name), nullptr) << name;
}

}  // namespace
