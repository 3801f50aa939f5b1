#include <gtest/gtest.h>
#include <sys/socket.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/programs/web/https/Https.h"
#include "tests/support/ProcessFigures.h"

namespace tavix::test {

namespace {

// The first bytes of a handshake, whose record announces more.
const std::string kBegun("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);

// The program sees the ends of connections in its own time.
void AwaitDescriptors(const Https& https, size_t count) {
  while (CountDescriptors(https.web.process.GetId()) > count) https.web.process.AwaitIdle();
}

bool CanConnect(const Https& https) {
  try {
    return https.Connect().Ask("GET", "/healthz").status == 200;
  } catch (const std::runtime_error&) {
    return false;
  }
}

bool HasEnded(const HttpConnection& connection) {
  char byte = 0;
  return recv(connection.GetDescriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

}  // namespace

TEST(WebHandshake, OfAClientOfPlainHttpIsRefusedInItsLanguage) {
  Https https;
  for (const char* method : {"GET", "HEAD", "POST"}) {
    HttpConnection connection = https.ConnectPlainly();
    connection.SendRequest(method, "/api/v1/groups");
    const HttpReply reply = connection.ReadReply();
    EXPECT_EQ(reply.status, 400);
    EXPECT_EQ(Parse(reply)["detail"], "this port takes HTTPS alone");
    EXPECT_EQ(connection.ReadToEnd(), "");
  }
}

TEST(WebHandshake, ThatGoesWrongHarmsNobodyElse) {
  Https https;
  EXPECT_EQ(https.Connect().Ask("GET", "/healthz").status, 200);
  const size_t before = CountDescriptors(https.web.process.GetId());
  for (int round = 0; round < 20; ++round) {
    for (const std::string& bytes :
         {kBegun, kBegun + std::string(600, 'x'), std::string(20'000, '\0'), std::string()}) {
      https.ConnectPlainly().TrySend(bytes);
      HttpConnection reset = https.ConnectPlainly();
      reset.TrySend(bytes);
      reset.Reset();
      HttpConnection half = https.ConnectPlainly();
      half.TrySend(bytes);
      half.HalfClose();
      half.ReadToEnd();
    }
  }
  EXPECT_EQ(https.Connect().Ask("GET", "/healthz").status, 200);  // no worker's connection to the daemon counts
  AwaitDescriptors(https, before);
}

TEST(WebHandshake, ThatStandsStillEnds) {
  Https https;
  HttpConnection silent = https.ConnectPlainly();
  HttpConnection begun = https.ConnectPlainly();
  begun.Send(kBegun);
  HttpsConnection whole = https.Connect();  // and then no request
  EXPECT_EQ(silent.ReadToEnd(), "");
  EXPECT_EQ(begun.ReadToEnd(), "");
  EXPECT_EQ(whole.ReadToEnd(), "");
}

TEST(WebHandshake, CountsAsAConnection) {
  Https https;
  std::vector<HttpConnection> connections;
  for (int i = 0; i < 128; ++i) {
    connections.push_back(https.ConnectPlainly());
    connections.back().Send(kBegun);
  }
  // The first may have been on its way for too long by then.
  EXPECT_TRUE(!CanConnect(https) || HasEnded(connections.front()));
  connections.clear();
  while (!CanConnect(https)) https.web.process.AwaitIdle();
}

}  // namespace tavix::test
