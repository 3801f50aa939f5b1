#include "programs/bridge/engines/EtcdLink.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "programs/bridge/engines/EtcdJson.h"
#include "programs/bridge/engines/KeyPrefix.h"

namespace tavix::bridge {

using nlohmann::json;

namespace {

constexpr int kPageSize = 25;         // of keys whose values may have 1.5 MiB each
constexpr Version kOutOfRange = 11;   // of gRPC's codes: compacted
constexpr Version kRefusals[] = {3,   // invalid: too large
                                 7,   // not permitted
                                 8};  // no space

}  // namespace

EtcdLink::EtcdLink(const EtcdSettings& settings, const std::string& endpoint, Observer& observer)
    : _settings(settings),
      _endpoint(endpoint),
      _observer(observer),
      _credentials(ReadCredentials(settings.credentialsFile)),
      _transfers(settings, endpoint, _credentials) {
  Begin();
}

void EtcdLink::Begin() {
  json range = etcd::MakeRange(_settings.prefix, _settings.prefix);
  range["limit"] = 1;
  range["keys_only"] = true;
  if (_credentials.user.empty()) return Connect(range);
  const json body = {{"name", _credentials.user}, {"password", _credentials.password}};
  _transfers.Post("/v3/auth/authenticate", body.dump(-1, ' ', false, json::error_handler_t::replace),
                  [this, range](const Answer& answer) {
                    if (!Require(answer)) return;
                    _transfers.SetToken(etcd::GetText(etcd::Parse(answer.body), "token"));
                    Connect(range);
                  });
}

// Only an endpoint that a majority stands behind answers a read.
void EtcdLink::Connect(const json& range) {
  _transfers.Post("/v3/kv/range", range.dump(), [this](const Answer& answer) {
    if (!Require(answer)) return;
    const json header = etcd::GetObject(etcd::Parse(answer.body), "header");
    const std::string cluster = etcd::GetText(header, "cluster_id");
    _revision = etcd::GetNumber(header, "revision");
    if (cluster.empty()) return Fail("answered what is none of etcd's answers");
    _isConnected = true;
    _nextProbe = Clock::now() + _settings.probeInterval;
    _observer.OnConnected(cluster);
  });
}

void EtcdLink::Step(int wake) {
  _transfers.Step(wake);
  if (_isConnected && !HasFailed() && Clock::now() >= _nextProbe) Probe();
}

void EtcdLink::Follow(const std::vector<std::string>& prefixes, Version from) {
  // A cluster that was restored from a backup may have gone back; a watch of its future would be silent.
  if (from > _revision) from = 0;
  std::vector<std::string> before;
  for (const auto& entry : _followed) before.push_back(entry.first);
  for (const std::string& prefix : FindAdded(prefixes, before)) {
    if (_followed[prefix].watch == 0) --_reading;
    _transfers.Drop(_followed[prefix].watch);
    _followed.erase(prefix);
  }
  const std::vector<std::string> added = FindAdded(before, prefixes);
  for (const std::string& prefix : added) {
    _followed[prefix];
    if (from == 0) {
      ++_reading;
      Read(prefix, prefix, 0);
    } else {
      Watch(prefix, from);
    }
  }
  if (from != 0 || added.empty()) ReportSynced(false);
}

// revision: 0: the present one.
void EtcdLink::Read(const std::string& prefix, const std::string& begin, Version revision) {
  json range = etcd::MakeRange(prefix, begin);
  range["limit"] = kPageSize;
  if (revision != 0) range["revision"] = std::to_string(revision);
  _transfers.Post("/v3/kv/range", range.dump(), [this, prefix, revision, round = _round](const Answer& answer) {
    const Followed* const followed = Find(prefix);
    if (round != _round || followed == nullptr || followed->watch != 0) return;
    const json page = etcd::Parse(answer.body);
    if (revision != 0 && etcd::GetNumber(page, "code") == kOutOfRange) return ReadAllAgain();
    if (Require(answer)) TakePage(prefix, revision, page);
  });
}

void EtcdLink::TakePage(const std::string& prefix, Version revision, const json& page) {
  if (revision == 0) revision = etcd::GetNumber(etcd::GetObject(page, "header"), "revision");
  std::string last;
  for (const json& pair : etcd::GetArray(page, "kvs")) {
    Item item = etcd::GetItem(pair);
    last = item.key;
    if (IsFollowedBy(prefix, item.key)) _observer.OnItem(std::move(item));
  }
  const auto more = page.find("more");
  if (more != page.end() && *more == json(true) && !last.empty()) {
    Read(prefix, last + std::string(1, '\0'), revision);
  } else {
    EndRead(prefix, revision);
  }
}

void EtcdLink::EndRead(const std::string& prefix, Version revision) {
  Watch(prefix, revision);
  if (--_reading == 0) ReportSynced(true);
}

void EtcdLink::ReadAllAgain() {
  ++_round;
  _reading = _followed.size();
  for (auto& [prefix, followed] : _followed) {
    _transfers.Drop(followed.watch);
    followed = {};
    Read(prefix, prefix, 0);
  }
}

void EtcdLink::Watch(const std::string& prefix, Version from) {
  json range = etcd::MakeRange(prefix, prefix);
  range["start_revision"] = std::to_string(from + 1);
  range["fragment"] = true;
  range["progress_notify"] = true;
  Followed& followed = _followed[prefix];
  followed.seen = from;
  followed.watch = _transfers.PostStream(
      "/v3/watch", json{{"create_request", range}}.dump(),
      [this, prefix](const std::string& line) { TakeWatched(prefix, line); },
      [this](const Answer& answer) { Fail("the watch ended: " + Describe(answer)); });
}

void EtcdLink::TakeWatched(const std::string& prefix, const std::string& line) {
  const json message = etcd::Parse(line);
  const json result = etcd::GetObject(message, "result");
  Followed* const followed = Find(prefix);
  if (followed == nullptr) return;
  if (result.empty()) return Fail("the watch failed: " + etcd::GetText(etcd::GetObject(message, "error"), "message"));
  if (etcd::GetNumber(result, "compact_revision") != 0) return ReadAllAgain();
  if (result.contains("canceled")) return Fail("the watch was refused: " + etcd::GetText(result, "cancel_reason"));
  TakeEvents(*followed, result);
}

// A message without events shows how far the watch has come, but for the first, which only confirms it.
void EtcdLink::TakeEvents(Followed& followed, const json& result) {
  const json events = etcd::GetArray(result, "events");
  for (const json& event : events) {
    Item item = etcd::GetItem(etcd::GetObject(event, "kv"));
    if (etcd::GetText(event, "type") == "DELETE") item.bytes.reset();
    _observer.OnItem(std::move(item));
  }
  if (result.contains("created") || result.contains("fragment")) return;
  Version seen = followed.seen;
  for (const json& event : events) {
    seen = std::max(seen, etcd::GetNumber(etcd::GetObject(event, "kv"), "mod_revision"));
  }
  if (events.empty()) seen = std::max(seen, etcd::GetNumber(etcd::GetObject(result, "header"), "revision"));
  if (seen == followed.seen) return;
  followed.seen = seen;
  if (_reading == 0) ReportSynced(false);
}

void EtcdLink::ReportSynced(bool isComplete) {
  Synced synced{0, isComplete};
  for (const auto& entry : _followed) {
    const Version seen = entry.second.seen;
    synced.version = synced.version == 0 ? seen : std::min(synced.version, seen);
  }
  _observer.OnSynced(synced);
}

void EtcdLink::Put(const std::string& key, const std::optional<std::string>& bytes,
                   const std::optional<Version>& expected) {
  std::deque<PendingPut>& puts = _puts[key];
  puts.push_back({key, etcd::MakeTransaction(key, bytes, expected).dump()});
  if (puts.size() == 1) SendPut(puts.front());
}

void EtcdLink::SendPut(const PendingPut& put) {
  _transfers.Post("/v3/kv/txn", put.transaction,
                  [this, key = put.key](const Answer& answer) { FinishPut(key, answer); });
}

void EtcdLink::FinishPut(const std::string& key, const Answer& answer) {
  const json result = etcd::Parse(answer.body);
  const Version code = etcd::GetNumber(result, "code");
  const bool isRefused = std::find(std::begin(kRefusals), std::end(kRefusals), code) != std::end(kRefusals);
  if (!isRefused && !Require(answer)) return;
  PutDone done = MakeOutcome(key, result);
  if (isRefused) {
    done.outcome = PutDone::Outcome::kRefused;
    done.reason = Describe(answer);
  }
  const auto at = _puts.find(key);
  at->second.pop_front();
  if (at->second.empty()) {
    _puts.erase(at);
  } else {
    SendPut(at->second.front());
  }
  _observer.OnPutDone(std::move(done));
}

PutDone EtcdLink::MakeOutcome(const std::string& key, const json& result) {
  PutDone done;
  done.key = key;
  if (result.contains("succeeded")) {
    done.version = etcd::GetNumber(etcd::GetObject(result, "header"), "revision");
    return done;
  }
  done.outcome = PutDone::Outcome::kConflict;
  done.present.key = key;
  for (const json& response : etcd::GetArray(result, "responses")) {
    for (const json& pair : etcd::GetArray(etcd::GetObject(response, "response_range"), "kvs"))
      done.present = etcd::GetItem(pair);
  }
  return done;
}

void EtcdLink::Probe() {
  _nextProbe = Clock::now() + _settings.probeInterval;
  if (_followed.empty()) ProbeOne(_settings.prefix, 0);
  for (const auto& entry : _followed) {
    if (entry.second.watch != 0) ProbeOne(entry.first, entry.second.seen);
  }
}

void EtcdLink::ProbeOne(const std::string& prefix, Version seen) {
  json range = etcd::MakeRange(prefix, prefix);
  range["limit"] = 1;
  range["keys_only"] = true;
  range["min_mod_revision"] = std::to_string(seen + 1);
  _transfers.Post("/v3/kv/range", range.dump(), [this, prefix](const Answer& answer) {
    if (Require(answer)) TakeProbe(prefix, etcd::Parse(answer.body));
  });
}

// A change that this probe finds may be on its way. One that the probe before had found is not.
void EtcdLink::TakeProbe(const std::string& prefix, const json& range) {
  Followed* const followed = Find(prefix);
  if (followed == nullptr || followed->watch == 0) return;
  if (followed->missed > followed->seen) return Fail("the watch is silent, though there are changes");
  followed->missed = 0;
  for (const json& pair : etcd::GetArray(range, "kvs")) followed->missed = etcd::GetNumber(pair, "mod_revision");
}

EtcdLink::Followed* EtcdLink::Find(const std::string& prefix) {
  const auto at = _followed.find(prefix);
  return at == _followed.end() ? nullptr : &at->second;
}

bool EtcdLink::Require(const Answer& answer) {
  if (answer.status == 200) return true;
  Fail(Describe(answer));
  return false;
}

void EtcdLink::Fail(const std::string& reason) {
  if (!HasFailed()) _reason = "etcd at " + _endpoint + ": " + reason;
}

std::string EtcdLink::Describe(const Answer& answer) {
  if (!answer.error.empty()) return answer.error;
  const std::string message = etcd::GetText(etcd::Parse(answer.body), "error");
  return message.empty() ? "HTTP status " + std::to_string(answer.status) : message;
}

}  // namespace tavix::bridge
