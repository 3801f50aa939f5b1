#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/MemoryPersister.h"

// What a persister learns of the client that made a change.

namespace {

using tavix::settings::server::ChangeTicket;
using tavix::settings::server::ClientHandler;
using tavix::settings::server::ClientIdentity;
using tavix::settings::server::SerializationManager;
using tavix::settings::server::ServerEnv;
using tavix::settings::server::SettingsManager;
using tavix::test::MemoryPersister;
using testing::ElementsAre;

class NotingPersister : public MemoryPersister {
 public:
  using MemoryPersister::MemoryPersister;

  ChangeTicket SaveChange(const SavedChange& change) override {
    changes.push_back(std::to_string(change.origin.client.user) + " " + std::string(change.origin.command) + ": " +
                      std::string(change.origin.note));
    return MemoryPersister::SaveChange(change);
  }

  std::vector<std::string> changes;
};

struct ClientHandlerOrigin : testing::Test {
  void Serve(const std::string& input) {
    std::istringstream in(input);
    std::ostringstream out;
    ClientHandler handler(&env, &in, &out);
    handler.SetClient({ClientIdentity::Connection::kUnix, 7}, {});
    handler.Run();
  }

  NotingPersister persister{{"[A]\nx=1\n"}};
  SettingsManager store{&persister, nullptr, nullptr, false};
  SerializationManager serializers;
  ServerEnv env{&store, &serializers};
};

TEST_F(ClientHandlerOrigin, IsTheClientAndTheWordOfItsRequest) {
  Serve("merge\n[A]\nx=2\n.\ntest-and-merge\n.\n[A]\nx=3\n.\noverwrite\nA\n.\n[A]\nx=4\n.\nrestore\nA\n.\n");
  EXPECT_THAT(persister.changes, ElementsAre("7 merge: ", "7 test-and-merge: ", "7 overwrite: ", "7 restore: "));
}

TEST_F(ClientHandlerOrigin, HasTheNoteOfTheNextChangeAlone) {
  Serve("note  site 4 \r\nget\nA\n.\ninfo whoami\nmerge\n[A]\nx=2\n.\nmerge\n[A]\nx=3\n.\n");
  EXPECT_THAT(persister.changes, ElementsAre("7 merge: site 4", "7 merge: "));
}

TEST_F(ClientHandlerOrigin, NoteIsUsedUpByAChangeThatIsNotMade) {
  Serve("note site 4\ntest-and-merge\n[A]\nx=9\n.\n[A]\nx=2\n.\nmerge\n[A]\nx=3\n.\n");
  Serve("note site 4\nmerge nopersist\n[A]\nx=5\n.\nmerge\n[A]\nx=6\n.\n");
  store.SetMaxBytes(1);
  Serve("note site 4\nmerge\n[B]\nx=5\n.\nmerge\n[A]\nx=7\n.\n");
  EXPECT_THAT(persister.changes, ElementsAre("7 merge: ", "7 merge: ", "7 merge: "));
}

TEST_F(ClientHandlerOrigin, NoteThatIsTooLongIsNone) {
  const std::string longest(256, 'n');
  Serve("note " + longest + "n\nmerge\n[A]\nx=2\n.\nnote " + longest + "\nmerge\n[A]\nx=3\n.\n");
  EXPECT_THAT(persister.changes, ElementsAre("7 merge: ", "7 merge: " + longest));
}

// What a connection noted is not another one's.
TEST_F(ClientHandlerOrigin, NoteGoesWithItsConnection) {
  Serve("note site 4\n");
  Serve("merge\n[A]\nx=2\n.\n");
  EXPECT_THAT(persister.changes, ElementsAre("7 merge: "));
}

}  // namespace
