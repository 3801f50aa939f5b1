#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/programs/server/Daemon.h"

namespace tavix::test {

// Sends what exceeds a bound: the connection ends, the log says why, and others are served.
inline void ExpectCut(const std::vector<std::string>& arguments, const std::string& sent, const std::string& reason) {
  const TemporaryDirectory directory;
  Daemon daemon(directory, arguments);
  ProtocolClient client(daemon.GetPort());
  client.TrySend(sent);
  EXPECT_EQ(client.ReadToEnd(), "");
  EXPECT_EQ(Converse(daemon.GetPort(), "get delimited\n.\n"), "data\n.\n");
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_THAT(daemon.GetErrors(), testing::HasSubstr(reason));
}

}  // namespace tavix::test
