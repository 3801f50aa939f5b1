#include "programs/server/persistence/LargeChange.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace tavix::test {

using core::IniFile;
using daemon::IsLargeChange;

TEST(LargeChange, HasMoreBytesInItsGroupsThanTheMax) {
  IniFile layer;
  layer.SetValue("A", "x", std::string(50, 'x'));
  layer.SetValue("B", "x", std::string(50, 'x'));
  EXPECT_FALSE(IsLargeChange(layer, {"A"}, {}, 100));
  EXPECT_TRUE(IsLargeChange(layer, {"A", "B"}, {}, 100));
  EXPECT_FALSE(IsLargeChange(layer, {"Gone"}, {}, 0));
}

TEST(LargeChange, HasManyGroupsOrAddsToMany) {
  std::set<std::string> many;
  IniFile added;
  for (size_t i = 0; i <= daemon::kManyGroups; ++i) {
    many.insert(std::to_string(i));
    added.SetValue("List", std::to_string(i), "");
  }
  EXPECT_TRUE(IsLargeChange(core::IniFile(), many, {}, 100));
  EXPECT_TRUE(IsLargeChange(core::IniFile(), {}, added, 100));
  many.erase(many.begin());
  EXPECT_FALSE(IsLargeChange(core::IniFile(), many, {}, 100));
}

}  // namespace tavix::test
