#include <gtest/gtest.h>

#include "tests/programs/web/Web.h"
#include "tests/support/ProcessFigures.h"
#include "tests/support/RunLength.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/StoppedProcess.h"

namespace tavix::test {

using nlohmann::json;

namespace {

HttpConnection Watch(const Web& web, const std::string& parameters = {}, const std::string& headers = {}) {
  HttpConnection stream = web.Connect();
  stream.SendRequest("GET", "/api/v1/changes" + parameters, "", headers);
  if (stream.ReadReply().status != 200) throw std::runtime_error("There is no stream");
  return stream;
}

json DataOf(const std::string& event) {
  const size_t at = event.find("data: ");
  return json::parse(event.substr(at + 6, event.find('\n', at) - at - 6));
}

std::string IdOf(const std::string& event) {
  const size_t at = event.find("id: ");
  return event.substr(at + 4, event.find('\n', at) - at - 4);
}

void Set(const Web& web, const std::string& group, int value) {
  const HttpReply reply = web.Ask("PATCH", "/group?name=" + group, "{\"k\": " + std::to_string(value) + "}");
  if (reply.status != 200) throw std::runtime_error(reply.body);
}

}  // namespace

TEST(WebChanges, ArriveWithWhatWasAndWhatIs) {
  Web web;
  HttpConnection stream = Watch(web);
  EXPECT_EQ(stream.ReadEvent().first, "ready");
  web.Ask("PATCH", "/group?name=Network/Wlan0", R"({"enabled": true})");
  const auto [event, text] = stream.ReadEvent();
  EXPECT_EQ(event, "change");
  const json data = DataOf(text);
  EXPECT_EQ(data["group"], "Network/Wlan0");
  EXPECT_EQ(data["new"]["enabled"], "true");
  EXPECT_EQ(data["old"]["enabled"], "false");
  EXPECT_EQ(data["version"], web.Get("/group?name=Network/Wlan0")["version"]);
  web.Ask("DELETE", "/group?name=Network/Wlan0", "", "If-Match: *\r\n");
  const json gone = DataOf(stream.ReadEvent().second);
  EXPECT_EQ(gone["gone"], true);
  EXPECT_FALSE(gone.contains("new"));
  Set(web, "Network/Wlan0", 1);
  EXPECT_TRUE(DataOf(stream.ReadEvent().second)["old"].is_null());
}

TEST(WebChanges, ArriveOnlyWhereTheirGroupsAreWatched) {
  Web web;
  HttpConnection stream = Watch(web, "?pattern=a/*&pattern=b");
  stream.ReadEvent();
  for (const char* group : {"c", "b/c", "a/x", "b"}) Set(web, group, 1);
  EXPECT_EQ(DataOf(stream.ReadEvent().second)["group"], "a/x");
  EXPECT_EQ(DataOf(stream.ReadEvent().second)["group"], "b");
}

TEST(WebChanges, AreMaskedAsTheGroupsAre) {
  Web web;
  HttpConnection stream = Watch(web, "?pattern=Secure/*");
  stream.ReadEvent();
  // No client can change a restricted group: its defaults may, behind a restart.
  EXPECT_EQ(web.Get("/group?name=Secure/Wlan0")["masked"], true);
}

TEST(WebChanges, ThatWereMissedComeBehindTheLastId) {
  Web web;
  std::string id;
  {
    HttpConnection stream = Watch(web);
    stream.ReadEvent();
    Set(web, "a", 1);
    id = IdOf(stream.ReadEvent().second);
  }
  Set(web, "a", 2);
  Set(web, "b", 3);
  HttpConnection stream = Watch(web, "", "Last-Event-ID: " + id + "\r\n");
  EXPECT_EQ(stream.ReadEvent().first, "ready");
  EXPECT_EQ(DataOf(stream.ReadEvent().second)["new"]["k"], "2");
  EXPECT_EQ(DataOf(stream.ReadEvent().second)["group"], "b");
}

TEST(WebChanges, ThatAreNotKeptAskForAReset) {
  Web web;
  for (const char* id : {"0123456789abcdef-7", "x", "-1", "0123456789abcdef-99999999999999999999999"})
    EXPECT_EQ(Watch(web, "", std::string("Last-Event-ID: ") + id + "\r\n").ReadEvent().first, "reset") << id;
}

TEST(WebChanges, BeginAnewWithAProgramOrADaemonThatWasRestarted) {
  WebOnSocket web;
  const auto watch = [&](unsigned short port, const std::string& id) {
    HttpConnection stream(port);
    stream.SendRequest("GET", "/api/v1/changes", "", web.authorization + id);
    stream.ReadReply();
    return stream.ReadEvent();
  };
  const std::string id = "Last-Event-ID: " + IdOf(watch(web.process.GetPort(), "").second) + "\r\n";
  EXPECT_EQ(watch(web.process.GetPort(), id).first, "ready");
  const WebProcess other(web.directory, web.GetDaemonAddress(), {"--token-file", web.directory.Path("tokens")});
  EXPECT_EQ(watch(other.GetPort(), id).first, "reset");
  HttpConnection held(web.process.GetPort());
  held.SendRequest("GET", "/api/v1/changes", "", web.authorization);
  held.ReadReply();
  EXPECT_EQ(held.ReadEvent().first, "ready");
  web.daemon.reset();
  EXPECT_EQ(held.ReadEvent().first, "lost");
  web.StartDaemon();
  EXPECT_EQ(held.ReadEvent().first, "reset");
  EXPECT_EQ(watch(web.process.GetPort(), id).first, "reset");
}

TEST(WebChanges, OfADaemonThatStandsStillComeOnceItGoesOn) {
  Web web;
  HttpConnection first = Watch(web);
  EXPECT_EQ(first.ReadEvent().first, "ready");
  StopProcess(web.daemon.GetId());
  HttpConnection second = Watch(web);
  EXPECT_EQ(second.ReadEvent().first, "ready");
  HttpConnection writer = web.Connect();
  writer.SendRequest("PATCH", "/api/v1/group?name=a", R"({"k": 1})");
  web.daemon.Signal(SIGCONT);
  for (HttpConnection* stream : {&first, &second}) EXPECT_EQ(DataOf(stream->ReadEvent().second)["group"], "a");
  EXPECT_EQ(writer.ReadReply().status, 200);
}

TEST(WebChanges, BeginAnewWithADaemonThatWasLost) {
  WebOnSocket web;
  HttpConnection stream(web.process.GetPort());
  stream.SendRequest("GET", "/api/v1/changes", "", web.authorization);
  stream.ReadReply();
  EXPECT_EQ(stream.ReadEvent().first, "ready");
  web.daemon.reset();
  EXPECT_EQ(stream.ReadEvent().first, "lost");
  web.StartDaemon();
  EXPECT_EQ(stream.ReadEvent().first, "reset");
}

TEST(WebChanges, OfALostDaemonAreReportedLostFromTheBeginning) {
  const TemporaryDirectory directory;
  const ScriptedServer closed(ListeningSocket::kNotListening);
  const WebProcess process(directory, "127.0.0.1:" + std::to_string(closed.GetPort()));
  for (int i = 0; i < 2; ++i) {
    HttpConnection stream(process.GetPort());
    stream.SendRequest("GET", "/api/v1/changes");
    EXPECT_EQ(stream.ReadReply().status, 200);
    EXPECT_EQ(stream.ReadEvent().first, "lost");
  }
}

TEST(WebChanges, OfADaemonThatIsLostMeanwhileAreMarkedInAnAnswer) {
  TemporaryDirectory directory;
  auto daemon = std::make_unique<Daemon>(directory);
  const WebProcess process(directory, daemon->AwaitAddresses()[0]);
  HttpConnection waiting(process.GetPort());
  const json begin = Parse(waiting.Ask("GET", "/api/v1/changes?wait=60"));
  waiting.SendRequest("GET", "/api/v1/changes?wait=60&since=" + begin["next"].get<std::string>());
  EXPECT_EQ(HttpConnection(process.GetPort()).Ask("GET", "/healthz").status, 200);
  HttpConnection stream(process.GetPort());
  stream.SendRequest("GET", "/api/v1/changes");
  stream.ReadReply();
  daemon.reset();
  EXPECT_EQ(stream.ReadEvent().first, "ready");
  EXPECT_EQ(stream.ReadEvent().first, "lost");
  const json answer = Parse(waiting.ReadReply());
  EXPECT_EQ(answer["lost"], true);
  EXPECT_EQ(answer["reset"], false);
}

TEST(WebChanges, OfOthersDoNotMakeAWaitingRequestMissItsOwn) {
  Web web;
  HttpConnection all = Watch(web, "?pattern=sync*");
  EXPECT_EQ(all.ReadEvent().first, "ready");
  const json begin = web.Get("/changes?wait=0");
  HttpConnection waiting = web.Connect();
  waiting.SendRequest("GET", "/api/v1/changes?wait=60&pattern=own&since=" + begin["next"].get<std::string>());
  for (int part = 0; part < 3; ++part) {
    std::string groups = "merge\n";
    for (int i = 0; i < 2000; ++i) groups += "[other" + std::to_string(part * 2000 + i) + "]\nk=1\n";
    CarryOut(web.daemon.GetPort(), groups + ".\nmerge\n[sync" + std::to_string(part) + "]\nk=1\n.\n");
    EXPECT_EQ(all.ReadEvent().first, "change");
  }
  Set(web, "own", 1);
  const json answer = Parse(waiting.ReadReply());
  EXPECT_EQ(answer["reset"], false);
  EXPECT_EQ(answer["events"][0]["group"], "own");
}

TEST(WebChanges, OfOthersMoveTheIdOfAQuietStream) {
  Web web;
  HttpConnection quiet = Watch(web, "?pattern=quiet");
  const std::string first = IdOf(quiet.ReadEvent().second);
  Set(web, "other", 1);
  std::string comment;
  do {
    comment = quiet.ReadUntil("\n\n");
    EXPECT_EQ(comment.find("event: "), std::string::npos) << comment;
  } while (IdOf(comment) == first);  // one from before the change, on a machine that stood still
  EXPECT_EQ(IdOf(comment), first.substr(0, first.find('-')) + "-1");
}

TEST(WebChanges, AreWatchedByABoundedNumberOfPatterns) {
  Web web;
  std::string patterns = "?wait=60";
  for (int i = 0; i < 64; ++i) patterns += "&pattern=a" + std::to_string(i);
  EXPECT_EQ(web.Ask("GET", "/changes" + patterns).status, 200);
  EXPECT_EQ(web.Ask("GET", "/changes" + patterns + "&pattern=b").status, 400);
}

TEST(WebChanges, ComeAsOneAnswerToThoseThatAskSo) {
  Web web;
  const json begin = web.Get("/changes?wait=60");
  EXPECT_EQ(begin["events"].size(), 0U);
  HttpConnection waiting = web.Connect();
  waiting.SendRequest("GET", "/api/v1/changes?wait=60&since=" + begin["next"].get<std::string>());
  Set(web, "a", 1);
  const json answer = Parse(waiting.ReadReply());
  EXPECT_EQ(answer["events"][0]["group"], "a");
  EXPECT_EQ(answer["reset"], false);
  EXPECT_EQ(web.Get("/changes?wait=0&since=" + answer["next"].get<std::string>())["events"].size(), 0U);
  EXPECT_EQ(web.Get("/changes?wait=60&since=x")["reset"], true);
  EXPECT_EQ(web.Ask("GET", "/changes?wait=61").status, 400);
}

TEST(WebChanges, ReachSixtyFourStreamsPastOneThatNeverReads) {
  Web web;
  std::vector<HttpConnection> streams;
  streams.push_back(Watch(web));  // never read again
  for (int i = 1; i < 64; ++i) {
    streams.push_back(Watch(web));
    streams.back().ReadEvent();
  }
  EXPECT_EQ(web.Ask("GET", "/changes").status, 503);
  for (int i = 0; i < 5; ++i) Set(web, "g" + std::to_string(i), i);
  for (size_t i = 1; i < streams.size(); ++i) {
    for (int change = 0; change < 5; ++change)
      EXPECT_EQ(DataOf(streams[i].ReadEvent().second)["group"], "g" + std::to_string(change));
  }
}

TEST(WebChanges, ThatNobodyMakesTakeLittleMemory) {
  Web web;
  HttpConnection first = Watch(web);
  first.ReadEvent();
  const size_t before = ResidentMemory(web.process.GetId());
  std::vector<HttpConnection> streams;
  for (int i = 1; i < 64; ++i) {
    streams.push_back(Watch(web));
    streams.back().ReadEvent();
  }
  EXPECT_LE(ResidentGrowth(web.process.GetId(), before), 4 * size_t{1024} * 1024);
}

TEST(WebChanges, LeaveNoDescriptorBehind) {
  Web web;
  HttpConnection first = Watch(web);
  first.ReadEvent();
  const size_t before = CountDescriptors(web.process.GetId());
  const int count = IsLongRun() ? 10'000 : 300;
  for (int i = 0; i < count; ++i) Watch(web).ReadEvent();
  // One that still is among the descriptors ends by itself.
  while (CountDescriptors(web.process.GetId()) > before)
    web.Connect().Ask("GET", "/healthz", "", "Connection: close\r\n");
  Set(web, "a", 1);
  EXPECT_EQ(DataOf(first.ReadEvent().second)["group"], "a");
}

}  // namespace tavix::test
