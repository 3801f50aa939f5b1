#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>
#include <string>

#include "programs/web/access/Password.h"
#include "tests/programs/web/https/Https.h"

namespace tavix::test {

namespace {

// So often that the answers are more than the kernel takes of them, and the requests more than are read ahead.
constexpr char kGetMuch[] = "GET /api/v1/openapi.json HTTP/1.1\r\nHost: localhost\r\n\r\n";
constexpr int kMuchCount = 500;

std::string Repeat(const std::string& text, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

bool CanConnect(const Https& https, int maxVersion) {
  try {
    return https.Connect(maxVersion).Ask("GET", "/healthz").status == 200;
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace

TEST(WebHttps, CarriesWhatIsLarge) {
  Https https;
  const std::string value(900'000, 'v');
  EXPECT_EQ(https.Ask("PATCH", "/group?name=a", "{\"k\": \"" + value + "\"}").status, 200);
  EXPECT_EQ(Parse(https.Ask("GET", "/group?name=a"))["keys"]["k"]["value"], value);
  HttpsConnection connection = https.Connect();
  constexpr int kCount = 20;
  for (int i = 0; i < kCount; ++i) connection.SendRequest("GET", "/api/v1/export?pattern=a");
  for (int i = 0; i < kCount; ++i)
    EXPECT_NE(connection.ReadReply().body.find("\nk=" + value + "\n"), std::string::npos);
}

TEST(WebHttps, TakesTls12AndLater) {
  Https https;
  EXPECT_TRUE(CanConnect(https, TLS1_3_VERSION));
  EXPECT_TRUE(CanConnect(https, TLS1_2_VERSION));
  EXPECT_FALSE(CanConnect(https, TLS1_1_VERSION));
}

TEST(WebHttps, MarksItsCookie) {
  const TemporaryDirectory folder;
  const std::string file = folder.Write("password", web::HashPassword("open sesame") + "\n");
  chmod(file.c_str(), 0600);
  Https https({"--password-file", file});
  const HttpReply login = https.Ask("POST", "/login", R"({"password": "open sesame"})");
  ASSERT_EQ(login.status, 204);
  EXPECT_NE(login.headers.at("set-cookie").find("; Path=/; Secure; HttpOnly; SameSite=Strict"), std::string::npos);
}

TEST(WebHttps, TakesWritesOfItsOwnPageAlone) {
  Https https;
  const auto patch = [&](const std::string& origin) {
    return https.Ask("PATCH", "/group?name=a", R"({"k": 1})", "Origin: " + origin + "\r\n").status;
  };
  EXPECT_EQ(patch("https://localhost"), 200);
  EXPECT_EQ(patch("http://localhost"), 403);
}

TEST(WebHttps, StreamsChanges) {
  Https https;
  HttpsConnection stream = https.Connect();
  stream.SendRequest("GET", "/api/v1/changes");
  EXPECT_EQ(stream.ReadReply().status, 200);
  EXPECT_EQ(stream.ReadEvent().first, "ready");
  EXPECT_EQ(https.Ask("PATCH", "/group?name=a", R"({"k": 1})").status, 200);
  EXPECT_EQ(stream.ReadEvent().first, "change");
}

TEST(WebHttps, AnswersRequestsThatComeAtOnceInTheirOrder) {
  Https https;
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    HttpsConnection connection = https.Connect(version);
    connection.Send(Repeat(kGetMuch + std::string("GET /nothing HTTP/1.1\r\nHost: localhost\r\n\r\n"), kMuchCount));
    https.web.process.AwaitIdle();  // neither answers that nobody takes nor requests that wait keep it busy
    for (int i = 0; i < kMuchCount; ++i) {
      ASSERT_EQ(connection.ReadReply().status, 200) << i;
      ASSERT_EQ(connection.ReadReply().status, 404) << i;
    }
  }
}

TEST(WebHttps, AnnouncesItsEnd) {
  Https https;
  HttpsConnection connection = https.Connect();
  connection.Send("GET /healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
  EXPECT_NE(connection.ReadToEnd().find("{\"status\":\"ok\"}"), std::string::npos);
}

TEST(WebHttps, AnswersAllThatCameBeforeTheClientEndedItsSide) {
  Https https;
  HttpsConnection connection = https.Connect();
  connection.Send(Repeat(kGetMuch, kMuchCount));
  connection.HalfClose();
  https.web.process.AwaitIdle();
  for (int i = 0; i < kMuchCount; ++i) ASSERT_EQ(connection.ReadReply().status, 200) << i;
  EXPECT_EQ(connection.ReadToEnd(), "");
}

TEST(WebHttps, AnswersAWorkersRequestOfAClientThatEndedItsSide) {
  Https https;
  HttpsConnection connection = https.Connect();
  connection.SendRequest("GET", "/api/v1/group?name=Network/Eth0");
  connection.HalfClose();
  EXPECT_EQ(connection.ReadReply().status, 200);
  EXPECT_EQ(connection.ReadToEnd(), "");
}

}  // namespace tavix::test
