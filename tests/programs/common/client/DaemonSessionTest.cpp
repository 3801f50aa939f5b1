#include "programs/common/client/DaemonSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Writes.h"
#include "tests/support/DocumentText.h"
#include "tests/support/Patience.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::test {

namespace {

using core::IniFile;
using programs::DaemonSession;

IniFile Unsendable() {
  IniFile settings;
  settings["a\nb"];
  return settings;
}

}  // namespace

TEST(DaemonSession, SendsNeitherNoteNorTrialBeforeAChangeThatCannotBeSent) {
  const ScriptedServer server;
  const ServerThreads threads(server, [](ServerEnd& peer, size_t) {
    EXPECT_EQ(peer.ReadThrough(), "info features\nget delimited\n.\n");
    peer.Send("Features\n--------\namend\n\ndata\n.\n");
    EXPECT_EQ(peer.ReadToEnd(), "");
  });
  settings::client::ProtocolOptions options;
  options.timeouts.silence = kPatience;
  options.address = "127.0.0.1:" + std::to_string(server.GetPort());
  DaemonSession session(options, {}, nullptr);
  session.SetNote("why");
  session.SetTrial(90, "t");
  const std::vector<std::function<void()>> writes{
      [&] { programs::Merge(session, Unsendable(), false); },
      [&] { programs::MergeIf(session, DocumentOf("[A]\nx=1\n"), Unsendable()); },
      [&] { programs::MergeIfUnset(session, IniFile(), Unsendable()); },
      [&] { programs::Replace(session, {"A"}, Unsendable()); },
      [&] { programs::Restore(session, {"a\nb"}, nullptr); },
      [&] { session.Ask("rollback a\nb", programs::Session::Effect::kSettings); },
  };
  for (const auto& write : writes) EXPECT_THROW(write(), programs::Failure);
}

}  // namespace tavix::test
