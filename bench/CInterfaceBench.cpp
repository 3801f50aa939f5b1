// What the C interface adds to the client that it stands on: one get, and the way of a change to a watcher.

#include <string>
#include <utility>
#include <vector>

#include "bench/Benches.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/Placement.h"
#include "bench/SampleSettings.h"
#include "bench/Timing.h"
#include "bench/Turns.h"
#include "tavix/c/tavix-settings-c.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::bench {

namespace {

using settings::client::ProtocolClient;

constexpr int kGroup = 42;
constexpr int kGroups = 100;
constexpr int kTimesPerTurn = 200;
constexpr int kTimeout = 10000;  // milliseconds
constexpr double kAim = 1.05;
constexpr char kGet[] = "c-get";
constexpr char kNotice[] = "c-change-to-watcher";

FigureName OursOf(const char* item, const Placement& placement) {
  return {item, kOurs, std::string("C, ") + placement.name};
}

FigureName OtherOf(const char* item, const Placement& placement) {
  return {item, kOurs, std::string("C++, ") + placement.name};
}

void Require(int32_t code, const tavix_error& error) {
  if (code != TAVIX_OK) throw osa::Exception("The C interface: %s: %s", tavix_code_name(code), error.text);
}

// Ends its handle.
class CClient {
 public:
  explicit CClient(const std::string& address) {
    tavix_error error;
    Require(tavix_open_z(address.c_str(), kTimeout, &_client, &error), error);
  }
  ~CClient() { tavix_close(_client); }

  CClient(const CClient&) = delete;
  CClient& operator=(const CClient&) = delete;

  double TimeGet() {
    const std::string group = GroupName(kGroup);
    const char* const name = group.c_str();
    tavix_document* document = nullptr;
    tavix_error error;
    int32_t code = TAVIX_OK;
    const double took = Timed([&] { code = tavix_get_z(_client, &name, 1, &document, &error); });
    Require(code, error);
    const char* value = nullptr;
    code = tavix_document_get_z(document, name, KeyName(kKeysOfGroup - 1).c_str(), &value, &error);
    const bool isRight = code == TAVIX_OK && value == ValueText(kGroup, kKeysOfGroup - 1);
    tavix_document_free(document);
    if (!isRight) throw osa::Exception("The C interface read something else");
    return took;
  }

 private:
  tavix_client* _client = nullptr;
};

class CWatch {
 public:
  explicit CWatch(const std::string& address) {
    const std::string group = GroupName(kGroup);
    const char* const name = group.c_str();
    tavix_error error;
    Require(tavix_watch_open_z(address.c_str(), &name, 1, 0, kTimeout, &_watch, &error), error);
  }
  ~CWatch() { tavix_watch_close(_watch); }

  CWatch(const CWatch&) = delete;
  CWatch& operator=(const CWatch&) = delete;

  void Await() {
    const tavix_change* change = nullptr;
    tavix_error error;
    Require(tavix_watch_next(_watch, kTimeout, &change, &error), error);
  }

 private:
  tavix_watch* _watch = nullptr;
};

ProtocolClient::Options OptionsOf(const std::string& address) {
  ProtocolClient::Options options;
  options.address = address;
  return options;
}

double TimeGet(ProtocolClient& client) {
  const std::string group = GroupName(kGroup);
  core::IniFile found;
  const double took = Timed([&] { found = client.Get({group}); });
  if (found.GetValueOrDefault(group, KeyName(kKeysOfGroup - 1)) != ValueText(kGroup, kKeysOfGroup - 1))
    throw osa::Exception("The client read something else");
  return took;
}

void AwaitNotice(ProtocolClient& client) {
  if (!client.AwaitNotice(std::chrono::milliseconds(kTimeout))) throw osa::Exception("No notice within 10 s");
}

void MeasureGet(Recorder& recorder, const Placement& placement) {
  const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "c-get.ini", kGroups);
  const Daemon daemon(recorder.GetSetup().server, {"--defaults", settings}, placement.server);
  const std::string address = "127.0.0.1:" + std::to_string(daemon.GetPort());
  PinToCore(placement.client);
  CClient ours(address);
  ProtocolClient other(OptionsOf(address));
  MeasureInTurns(recorder,
                 {{OursOf(kGet, placement), [&] { return ours.TimeGet(); }},
                  {OtherOf(kGet, placement), [&] { return TimeGet(other); }}},
                 recorder.Choose(4, 20), kTimesPerTurn);
}

// Each has a daemon of its own, so that the one's notices don't delay the other's.
void MeasureNotice(Recorder& recorder, const Placement& placement) {
  const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "c-notice.ini", kGroups);
  const std::vector<std::string> arguments{"--defaults", settings};
  const Daemon daemon(recorder.GetSetup().server, arguments, placement.server);
  const Daemon otherDaemon(recorder.GetSetup().server, arguments, placement.server);
  const osa::Descriptor sender = daemon.Connect();
  const osa::Descriptor otherSender = otherDaemon.Connect();
  PinToCore(placement.client);
  CWatch ours("127.0.0.1:" + std::to_string(daemon.GetPort()));
  ProtocolClient other(OptionsOf("127.0.0.1:" + std::to_string(otherDaemon.GetPort())));
  other.Subscribe({GroupName(kGroup)});
  const std::string changes[] = {NoticeExchange(kGroup, 1).request, NoticeExchange(kGroup, 2).request};
  int next = 0;
  int otherNext = 0;
  const auto timed = [&](const osa::Descriptor& to, int& count, const auto& await) {
    const std::string& change = changes[count++ % 2];
    return Timed([&] {
      WriteAll(to, change);
      await();
    });
  };
  MeasureInTurns(
      recorder,
      {{OursOf(kNotice, placement), [&] { return timed(sender, next, [&] { ours.Await(); }); }},
       {OtherOf(kNotice, placement), [&] { return timed(otherSender, otherNext, [&] { AwaitNotice(other); }); }}},
      recorder.Choose(4, 20), kTimesPerTurn);
}

}  // namespace

void AddCInterfaceBenches(Suite& suite) {
  for (const Placement& placement : Placements()) {
    suite.Add({kGet}, [=](Recorder& recorder) { MeasureGet(recorder, placement); });
    suite.Compare(OursOf(kGet, placement), OtherOf(kGet, placement), kAim);
    suite.Add({kNotice}, [=](Recorder& recorder) { MeasureNotice(recorder, placement); });
    suite.Compare(OursOf(kNotice, placement), OtherOf(kNotice, placement), kAim);
  }
}

}  // namespace tavix::bench
