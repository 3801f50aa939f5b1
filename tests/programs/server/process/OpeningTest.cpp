// Connections that begin as another protocol does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/process/CutConnection.h"

namespace tavix::test {

TEST(Bounds, WebPageCanWriteNothing) {
  ExpectCut({}, "POST /x HTTP/1.1\r\nHost: x\r\n\r\nmerge\n[B]\nx=1\n.\n",
            "connection cut: HTTP is not our protocol, bytes 18: expected a command, found \"POST /x HTTP/1.1\"\n");
}

TEST(Bounds, OpeningOfAnotherProtocolIsRefusedHoweverItComes) {
  for (const char* opening :
       {"\r\nPOST /x http/1.1\r\n", "OPTIONS rtsp://camera/ RTSP/1.0\r\n", "bogus\nHost: x\r\n", "GET /\r\n"})
    ExpectCut({}, opening + std::string("merge\n[B]\nx=1\n.\n"), "connection cut: HTTP is not our protocol");
}

TEST(Bounds, LinesOfAListAreNoOpening) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  EXPECT_EQ(Converse(daemon.GetPort(), "get delimited\nGET / HTTP/1.1\nHost: x\n.\nGET /\nget delimited\n.\n"),
            "data\n.\ndata\n.\n");
}

TEST(Bounds, TlsHandshakeIsRefused) {
  ExpectCut({}, std::string("\x16\x03\x01\x02\x00\x01", 6),
            "connection cut: TLS is not our protocol, bytes 6: expected text\n");
}

TEST(Bounds, CommandThatLooksLikeARequestForAPageIsOnlyUnknown) {
  const TemporaryDirectory directory;
  Daemon daemon(directory);
  EXPECT_EQ(Converse(daemon.GetPort(), "GET delimited\nget delimited\n.\n"), "data\n.\n");
}

}  // namespace tavix::test
