// What the program takes of the device, however many settings, streams and bytes there are.

#include <gtest/gtest.h>

#include "tests/programs/web/Web.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/RunLength.h"

namespace tavix::test {

using nlohmann::json;

namespace {

constexpr size_t kMebibyte = 1024 * size_t{1024};

// Groups "g100000" and so on, as a daemon's settings have them.
std::string MakeGroups(int count, const std::string& value) {
  std::string text;
  for (int i = 0; i < count; ++i)
    text += "[g" + std::to_string(100'000 + i) + "]\nname=" + value + "\nport=554\nenabled=true\n";
  return text;
}

// A machine that stands still may keep the daemon silent for so long that it counts as lost for a moment.
HttpConnection Watch(const Web& web) {
  HttpConnection stream = web.Connect();
  stream.SendRequest("GET", "/api/v1/changes");
  if (stream.ReadReply().status != 200) throw std::runtime_error("There is no stream");
  std::string event = stream.ReadEvent().first;
  while (event == "lost") event = stream.ReadEvent().first;
  if (event != "ready") throw std::runtime_error("The stream begins with " + event);
  return stream;
}

// Changes many groups, and then one whose name ends them.
void ChangeMany(const Web& web, int round, int count) {
  const std::string value = std::to_string(round) + std::string(1000, 'x');
  CarryOut(web.daemon.GetPort(),
           "merge\n" + MakeGroups(count, value) + ".\nmerge\n[last" + std::to_string(round) + "]\nk=1\n.\n");
}

// The events that a stream shows up to the one of that group.
int CountEvents(HttpConnection& stream, const std::string& lastGroup) {
  for (int count = 0;; ++count) {
    const auto [event, text] = stream.ReadEvent();
    if (event != "change") throw std::runtime_error("The stream has lost events: " + text);
    if (text.find("\"group\":\"" + lastGroup + "\"") != std::string::npos) return count;
  }
}

}  // namespace

TEST(WebBounds, OfMemoryHoldForAProgramThatIsIdle) {
  const Web web;
  web.Get("/status");
  EXPECT_LE(ResidentGrowth(web.process.GetId(), 0), 6 * kMebibyte);
}

TEST(WebBounds, OfMemoryHoldWhileAHundredThousandGroupsAreWatched) {
  const Web web({}, MakeGroups(100'000, "a value of thirty characters.."));
  web.Get("/status");
  const size_t before = ResidentMemory(web.process.GetId());
  HttpConnection stream = Watch(web);
  EXPECT_LE(ResidentGrowth(web.process.GetId(), before), 24 * kMebibyte);
  ChangeMany(web, 1, 1);
  EXPECT_EQ(CountEvents(stream, "last1"), 1);
}

TEST(WebBounds, OfMemoryHoldWhileSomebodyTakesNoEvents) {
  const Web web;
  std::vector<HttpConnection> streams;
  for (int i = 0; i < (IsLongRun() ? 64 : 8); ++i) streams.push_back(Watch(web));
  const auto changeAndRead = [&](int round) {
    constexpr int kChanges = 500;  // so many that those who read have them before they are too old
    ChangeMany(web, round, kChanges);
    for (size_t i = 1; i < streams.size(); ++i)  // the first one never reads
      EXPECT_EQ(CountEvents(streams[i], "last" + std::to_string(round)), kChanges) << i;
  };
  const int warmUp = 12;
  for (int round = 0; round < warmUp; ++round) changeAndRead(round);
  const size_t before = ResidentMemory(web.process.GetId());
  for (int round = warmUp; round < warmUp + (IsLongRun() ? 200 : 12); ++round) changeAndRead(round);
  EXPECT_LE(ResidentGrowth(web.process.GetId(), before), 2 * kMebibyte);
}

TEST(WebBounds, OfMemoryHoldWhileAnEndlessBodyComes) {
  const Web web;
  web.Get("/status");
  const size_t before = ResidentMemory(web.process.GetId());
  HttpConnection connection = web.Connect();
  connection.Send(
      "POST /api/v1/import HTTP/1.1\r\nHost: localhost\r\nContent-Type: text/plain\r\n"
      "Transfer-Encoding: chunked\r\n\r\n");
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
  const size_t bytes = (IsLongRun() ? 1024 : 64) * kMebibyte;
  for (size_t sent = 0; sent < bytes && connection.TrySend(chunk);) sent += chunk.size();
  EXPECT_EQ(connection.ReadReply().status, 413);
  EXPECT_LE(PeakResidentGrowth(web.process.GetId(), before), 4 * kMebibyte);
}

TEST(WebBounds, OfTimeHoldForAHeadThatComesByteByByte) {
  const Web web;
  HttpConnection connection = web.Connect();
  connection.Send("GET /healthz HTTP/1.1\r\nHost: localhost\r\nX: ");
  std::string answer;
  while (answer.empty() && connection.TrySend("x")) answer = connection.ReadFor(200);
  EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 408") << answer;
}

TEST(WebBounds, KeepHalfABodyFromChangingAnything) {
  const Web web;
  const std::string body = R"({"k": 1})";
  for (const bool resets : {false, true}) {
    HttpConnection connection = web.Connect();
    connection.Send("PATCH /api/v1/group?name=half HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n" +
                    ("Content-Length: " + std::to_string(body.size() + 1)) + "\r\n\r\n" + body);
    if (resets) {
      connection.Reset();
    } else {
      connection.HalfClose();
      EXPECT_EQ(connection.ReadToEnd().find("200 OK"), std::string::npos);
    }
    EXPECT_EQ(web.Ask("GET", "/group?name=half").status, 404);
  }
}

}  // namespace tavix::test
