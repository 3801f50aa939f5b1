#include "programs/common/client/Layers.h"

#include <gtest/gtest.h>

#include "tests/programs/common/client/MemorySession.h"

namespace tavix::test {

TEST(Layers, FindWhereASettingComesFrom) {
  MemorySession session("[SecureKeys]\nk=1\n[a]\nk=1\nl=1\n", "[a]\nk=2\n");
  const programs::Layers layers(session);
  EXPECT_STREQ(layers.FindOrigin("SecureKeys", "k"), "restricted");
  EXPECT_STREQ(layers.FindOrigin("a", "k"), "user");
  EXPECT_STREQ(layers.FindOrigin("a", "l"), "default");
}

TEST(Layers, FindWhereAGroupComesFrom) {
  MemorySession session("[SecureKeys]\nk=1\n[a]\nk=1\nl=1\n[b]\nk=1\n", "[a]\nk=2\n[c]\nk=1\n");
  const programs::Layers layers(session);
  std::string origins;
  const core::IniFile all = session.Get({"*"});
  for (auto group = all.begin(); group != all.end(); ++group)
    origins += group->first + " " + layers.FindOrigin(group) + "\n";
  EXPECT_EQ(origins, "SecureKeys restricted\na mixed\nb default\nc user\n");
}

}  // namespace tavix::test
