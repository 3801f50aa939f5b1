#include "programs/bridge/engines/EtcdLink.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "programs/bridge/engines/EtcdJson.h"
#include "programs/bridge/engines/KeyPrefix.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/JsonWriter.h"

namespace tavix::bridge {

using nlohmann::json;

namespace {

constexpr int kPageSize = 25;  // of keys whose values may have 1.5 MiB each
// Of gRPC's codes.
constexpr Version kInvalid = 3;  // such as a value that is too large
constexpr Version kNotPermitted = 7;
constexpr Version kExhausted = 8;    // no space
constexpr Version kOutOfRange = 11;  // compacted

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
  const json body = programs::JsonObject().Add("name", _credentials.user).Add("password", _credentials.password).Take();
  _transfers.Post("/v3/auth/authenticate", programs::WriteJson(body), [this, range](const Answer& answer) {
    if (answer.status != 200) return Fail(Describe(answer));
    _transfers.SetToken(etcd::GetText(etcd::Parse(answer.body), "token"));
    Connect(range);
  });
}

// Only an endpoint that a majority stands behind answers a read.
void EtcdLink::Connect(const json& range) {
  _transfers.Post("/v3/kv/range", programs::WriteJson(range), [this](const Answer& answer) {
    const json parsed = etcd::Parse(answer.body);
    if (!Require(answer, parsed)) return;
    const json header = etcd::GetObject(parsed, "header");
    _cluster = etcd::GetText(header, "cluster_id");
    _revision = etcd::GetNumber(header, "revision");
    _isConnected = true;
    _nextProbe = Clock::now() + _settings.probeInterval;
    _observer.OnConnected(_cluster);
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
    if (!_followed[prefix].isCaughtUp) --_reading;
    _transfers.Drop(_followed[prefix].watch);
    _followed.erase(prefix);
  }
  const std::vector<std::string> added = FindAdded(before, prefixes);
  if (from == 0 && added.empty() && before.size() == _followed.size() && !before.empty()) return ReadAllAgain();
  _isReadWhole = from == 0;
  for (const std::string& prefix : added) {
    _followed[prefix];
    ++_reading;
    if (from == 0) {
      Read(prefix, prefix, 0);
    } else {
      Resume(prefix, from);
    }
  }
  if (added.empty()) ReportSynced(false);
}

// A revision that is compacted can't be read either. One that is compacted between this read and the watch ends the
// watch.
void EtcdLink::Resume(const std::string& prefix, Version from) {
  json range = etcd::MakeRange(prefix, prefix);
  range["revision"] = std::to_string(from);
  range["count_only"] = true;
  _transfers.Post("/v3/kv/range", programs::WriteJson(range),
                  [this, prefix, from, round = _round](const Answer& answer) {
                    if (round != _round || Find(prefix) == nullptr) return;
                    const json parsed = etcd::Parse(answer.body);
                    if (etcd::GetNumber(parsed, "code") == kOutOfRange) return ReadAllAgain();
                    if (Require(answer, parsed)) FindNewest(prefix, from);
                  });
}

void EtcdLink::FindNewest(const std::string& prefix, Version from) {
  json range = MakeRangeOfChanges(prefix, from);
  range["sort_target"] = "MOD";
  range["sort_order"] = "DESCEND";
  _transfers.Post("/v3/kv/range", programs::WriteJson(range),
                  [this, prefix, from, round = _round](const Answer& answer) {
                    Followed* const followed = Find(prefix);
                    if (round != _round || followed == nullptr) return;
                    const json parsed = etcd::Parse(answer.body);
                    if (!Require(answer, parsed)) return;
                    for (const json& pair : etcd::GetArray(parsed, "kvs"))
                      followed->newest = etcd::GetNumber(pair, "mod_revision");
                    Watch(prefix, from);
                  });
}

void EtcdLink::CatchUp(Followed& followed) {
  if (followed.isCaughtUp || !followed.isCreated || followed.seen < followed.newest) return;
  followed.isCaughtUp = true;
  if (--_reading == 0) ReportSynced(_isReadWhole);
}

// revision: 0: the present one.
void EtcdLink::Read(const std::string& prefix, const std::string& begin, Version revision) {
  json range = etcd::MakeRange(prefix, begin);
  range["limit"] = kPageSize;
  if (revision != 0) range["revision"] = std::to_string(revision);
  _transfers.Post("/v3/kv/range", programs::WriteJson(range),
                  [this, prefix, revision, round = _round](const Answer& answer) {
                    const Followed* const followed = Find(prefix);
                    if (round != _round || followed == nullptr || followed->watch != 0) return;
                    const json page = etcd::Parse(answer.body);
                    if (revision != 0 && etcd::GetNumber(page, "code") == kOutOfRange) return ReadAllAgain();
                    if (Require(answer, page)) TakePage(prefix, revision, page);
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
  _followed[prefix].isCaughtUp = true;
  if (--_reading == 0) ReportSynced(_isReadWhole);
}

void EtcdLink::ReadAllAgain() {
  ++_round;
  _reading = _followed.size();
  _isReadWhole = true;
  _observer.OnReread();
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
      "/v3/watch", programs::WriteJson(programs::JsonObject().Add("create_request", range).Take()),
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
  if (result.contains("created")) {
    followed.isCreated = true;
    return CatchUp(followed);
  }
  if (result.contains("fragment")) return;
  Version seen = followed.seen;
  for (const json& event : events) {
    seen = std::max(seen, etcd::GetNumber(etcd::GetObject(event, "kv"), "mod_revision"));
  }
  if (events.empty()) seen = std::max(seen, etcd::GetNumber(etcd::GetObject(result, "header"), "revision"));
  if (seen == followed.seen) return;
  followed.seen = seen;
  if (!followed.isCaughtUp) return CatchUp(followed);
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
  puts.push_back({key, programs::WriteJson(etcd::MakeTransaction(key, bytes, expected))});
  if (puts.size() == 1) SendPut(puts.front());
}

void EtcdLink::SendPut(const PendingPut& put) {
  _transfers.Post("/v3/kv/txn", put.transaction,
                  [this, key = put.key](const Answer& answer) { FinishPut(key, answer); });
}

void EtcdLink::FinishPut(const std::string& key, const Answer& answer) {
  const json result = etcd::Parse(answer.body);
  const bool isRefused = IsRefusal(result);
  if (!isRefused && !Require(answer, result)) return;
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
  done.present.version = etcd::GetNumber(etcd::GetObject(result, "header"), "revision");
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
  const json range = MakeRangeOfChanges(prefix, seen);
  _transfers.Post("/v3/kv/range", programs::WriteJson(range), [this, prefix](const Answer& answer) {
    const json parsed = etcd::Parse(answer.body);
    if (Require(answer, parsed)) TakeProbe(prefix, parsed);
  });
}

// One key that was changed behind that revision.
json EtcdLink::MakeRangeOfChanges(const std::string& prefix, Version seen) {
  json range = etcd::MakeRange(prefix, prefix);
  range["limit"] = 1;
  range["keys_only"] = true;
  range["min_mod_revision"] = std::to_string(seen + 1);
  return range;
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

// What lacks the header that all of etcd's answers have comes from something between: it must not pass for an answer in
// which there is nothing.
bool EtcdLink::Require(const Answer& answer, const json& parsed) {
  const json header = etcd::GetObject(parsed, "header");
  const std::string cluster = etcd::GetText(header, "cluster_id");
  const bool isOfCluster = _cluster.empty() ? !cluster.empty() : cluster == _cluster;
  if (answer.status != 200) {
    Fail(Describe(answer));
  } else if (!isOfCluster || etcd::GetNumber(header, "revision") == 0) {
    Fail("answered what is none of etcd's answers");
  }
  return !HasFailed();
}

// Whether the same put would fail again. A member that is busy, or that wants the link to prove anew who it is, takes
// it on another link.
bool EtcdLink::IsRefusal(const json& parsed) {
  const Version code = etcd::GetNumber(parsed, "code");
  const std::string text = etcd::GetText(parsed, "error");
  const auto names = [&text](const char* part) { return text.find(part) != std::string::npos; };
  if (code == kInvalid) return !names("revision of auth store is old");
  if (code == kExhausted) return !names("too many requests");
  return code == kNotPermitted;
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
