#pragma once

#include <gtest/gtest.h>

#include "tavix/settings/TavixSettingsClient.h"
#include "tests/support/PendingValue.h"
#include "tests/support/ScriptedServer.h"

// What a multi-threaded client and a scripted server say to each other when one value is asked for or announced.

namespace tavix::test {

inline constexpr auto kMode = settings::TavixSettingsClient::MultiThreaded;
inline constexpr char kGetA[] = "get delimited\nA\n.\n";
inline constexpr char kReplyA[] = "data\n[A]\nx=1\n.\n";
inline constexpr char kNoticeA[] = "async change\nA\n.\n[A]\nx=1\n.\n";
inline constexpr char kGetFailed[] = "GetSettings failed to communicate with tavix-settings-server";

// Answers a request of PendingValue.
inline void Answer(ServerEnd& peer) {
  EXPECT_EQ(peer.ReadThrough(), kGetA);
  peer.Send(kReplyA);
}

// A call that finds its reply at once, as calls do when nothing is wrong.
inline void ExpectGoodCall(const settings::TavixSettingsClient& client, ServerEnd& peer) {
  PendingValue value(client);
  Answer(peer);
  EXPECT_EQ(value.Join(), "1");
}

}  // namespace tavix::test
