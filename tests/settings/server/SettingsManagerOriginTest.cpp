#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"

// Who asked for a change, down to the persister.

namespace {

using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::ChangeOrigin;
using tavix::settings::server::ChangeTicket;
using tavix::settings::server::ClientIdentity;
using tavix::settings::server::SettingsManager;
using tavix::test::DocumentOf;
using tavix::test::MemoryPersister;
using testing::ElementsAre;

class OriginPersister : public MemoryPersister {
 public:
  using MemoryPersister::MemoryPersister;

  ChangeTicket SaveChange(const SavedChange& change) override {
    const ChangeOrigin& origin = change.origin;
    origins.push_back(std::string(ClientIdentity::NameOf(origin.client.connection)) + " " +
                      std::to_string(origin.client.process) + " " + std::string(origin.command) + ": " +
                      std::string(origin.note));
    return MemoryPersister::SaveChange(change);
  }

  std::vector<std::string> origins;
};

struct SettingsManagerOrigin : testing::Test {
  OriginPersister persister{{"[A]\nx=1\n"}};
  SettingsManager store{&persister, nullptr, nullptr, false};
  ChangeTicket ticket = 0;
  const ChangeOrigin origin{{ClientIdentity::Connection::kUnix, 1000, 100, 812}, "word", "site 4"};
};

TEST_F(SettingsManagerOrigin, GoesWithEachKindOfChange) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern("A");
  store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0, origin, ticket);
  EXPECT_TRUE(store.TestAndMerge({}, DocumentOf("[A]\nx=3\n"), origin, ticket));
  store.OverwriteSettings({"B"}, DocumentOf("[B]\ny=1\n"), origin, ticket);
  store.RestoreToDefaults(matcher, origin, ticket);
  EXPECT_EQ(persister.origins, std::vector<std::string>(4, "unix 812 word: site 4"));
}

TEST_F(SettingsManagerOrigin, OfAChangeThatTheHostMakesIsTheProcessItself) {
  store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0);
  EXPECT_THAT(persister.origins, ElementsAre("local 0 : "));
}

TEST_F(SettingsManagerOrigin, OfAChangeThatIsNotSavedGoesNowhere) {
  store.MergeSettings(DocumentOf("[A]\nx=2\n"), SettingsManager::kNoPersist, origin, ticket);
  EXPECT_FALSE(store.TestAndMerge(DocumentOf("[A]\nx=9\n"), DocumentOf("[A]\nx=3\n"), origin, ticket));
  EXPECT_THAT(persister.origins, testing::IsEmpty());
}

// What persisters did before there were origins.
TEST_F(SettingsManagerOrigin, LeavesSavingAsItWas) {
  store.MergeSettings(DocumentOf("[A]\nx=2\n"), 0, origin, ticket);
  store.OverwriteSettings({"C"}, {}, origin, ticket);
  EXPECT_EQ(persister.GetSaved(), "[A]\nx=2\n[TavixSettings/Data/DeletedGroups]\nC=C\n");
  EXPECT_EQ(persister.CountSaves(), 2);
}

}  // namespace
