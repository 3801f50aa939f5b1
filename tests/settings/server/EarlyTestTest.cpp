#include "tavix/settings/server/EarlyTest.h"

#include <gtest/gtest.h>

#include <string>

#include "tavix/core/IniFile.h"
#include "tests/support/DocumentText.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::server::EarlyTest;
using tavix::test::DocumentOf;

bool HasNoGroup(const IniFile& all, IniFile::const_iterator group) {
  return !all.HasGroup(group->first);
}

IniFile Numbered(size_t groups) {
  IniFile document;
  for (size_t group = 0; group < groups; ++group) document.SetValue("G" + std::to_string(group), "k", "1");
  return document;
}

TEST(EarlyTest, OfASmallDocumentLooksAtAllOfIt) {
  const IniFile test = Numbered(2);
  EXPECT_FALSE(EarlyTest(test).IsLong());
  EXPECT_TRUE(EarlyTest(test).Holds(Numbered(2), {}));
  EXPECT_FALSE(EarlyTest(test).Holds(Numbered(1), {}));
  EXPECT_TRUE(EarlyTest(test, HasNoGroup).Holds(DocumentOf("[A]\n"), {}));
  EXPECT_FALSE(EarlyTest(test, HasNoGroup).Holds(DocumentOf("[G1]\n"), {}));
}

// Everything else was looked at before the lock was taken.
TEST(EarlyTest, OfALargeDocumentLooksUnderTheLockAtWhatChangedOnly) {
  const IniFile test = Numbered(1000);
  const IniFile nothing;
  EXPECT_TRUE(EarlyTest(test).IsLong());
  EXPECT_TRUE(EarlyTest(test).Holds(nothing, {"Another"}));
  EXPECT_FALSE(EarlyTest(test).Holds(nothing, {"G7"}));
  EXPECT_TRUE(EarlyTest(test, HasNoGroup).Holds(Numbered(5), {"G7"}));
  EXPECT_FALSE(EarlyTest(test, HasNoGroup).Holds(Numbered(5), {"G3"}));
}

}  // namespace
