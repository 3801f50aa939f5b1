#include "programs/web/changes/ChangeStreams.h"

#include <algorithm>
#include <utility>

#include "programs/web/access/PrivateFile.h"
#include "programs/web/http/Refusal.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::web {

namespace {

constexpr Milliseconds kLingerTime{60'000};
constexpr Milliseconds kCommentTime{15'000};
constexpr size_t kMaxWait = 60;  // seconds
constexpr size_t kBatchBytes = 64 * size_t{1024};

std::string FormatData(const GroupChangeEvent& change, bool hasOld) {
  std::string data = "{\"group\":" + Quoted(change.group);
  if (change.isGone) {
    data += ",\"gone\":true";
  } else {
    data += ",\"version\":\"" + change.version + "\",\"new\":" + change.newValues;
  }
  if (hasOld && change.oldValues) data += ",\"old\":" + *change.oldValues;
  return data + "}";
}

std::string FormatEvent(const char* event, const std::string& id, const std::string& data) {
  return (id.empty() ? "" : "id: " + id + "\n") + "event: " + event + "\ndata: " + data + "\n\n";
}

}  // namespace

ChangeStreams::ChangeStreams(const EventBase& base, std::string server, const View& view, std::function<void()> wake)
    : _base(base),
      _server(std::move(server)),
      _view(view),
      _wake(std::move(wake)),
      _lingerTimer(base, [this] { StopFollowing(); }),
      _commentTimer(base, [this] { SendComments(); }) {}

void ChangeStreams::Open(Connection& connection, const Request& request) {
  const Query query(request.query);
  Stream stream;
  stream.connection = &connection;
  const std::vector<std::string> patterns = query.FindNames("pattern");
  for (const std::string& pattern : patterns) RequireSendable(pattern);
  stream.patterns =
      patterns.empty() ? std::set<std::string>{"*"} : std::set<std::string>(patterns.begin(), patterns.end());
  const std::string* const lastId = request.Find("last-event-id");
  const std::optional<std::string> since = query.Find("since");
  stream.hasLastId = lastId || since;
  stream.lastId = lastId ? *lastId : since.value_or("");
  stream.isOnce = query.Find("wait").has_value();
  const size_t wait = query.FindNumber("wait", 0, kMaxWait, 0);
  if (_streams.size() >= kMaxStreams) throw Refusal(503, "there are too many streams", {}, {{"Retry-After", "15"}});
  StartFollowing();
  _streams.push_back(std::move(stream));
  Stream& added = _streams.back();
  if (added.isOnce) {
    added.timer = std::make_unique<LoopEvent>(_base, [this, &added] { PumpOnce(added, true); });
    added.timer->Start(std::chrono::seconds(wait));
  } else {
    connection.SendStreamHead({{"Content-Type", "text/event-stream"}, {"X-Accel-Buffering", "no"}});
  }
  if (_isInForce) Begin(added);
}

void ChangeStreams::StartFollowing() {
  _lingerTimer.Stop();
  if (_follower) return;
  _isInForce = false;
  _follower = std::make_unique<ChangeFollower>(_server, _view, _wake);
  _commentTimer.Start(kCommentTime);
}

void ChangeStreams::StopFollowing() {
  _follower->BeginEnd();
  _ending.push_back(std::move(_follower));
  _ring.Begin("");
  _isInForce = false;
  _commentTimer.Stop();
  DropEnded();
}

void ChangeStreams::DropEnded() {
  _ending.remove_if([](const std::unique_ptr<ChangeFollower>& follower) { return follower->HasEnded(); });
}

void ChangeStreams::OnNews() {
  DropEnded();
  if (!_follower) return;
  ChangeFollower::News news = _follower->Take();
  if (news.hasBegun) BeginAnew();
  for (ChangePointer& change : news.changes) _ring.Add(std::move(change));
  const bool isLost = news.state == ChangeFollower::State::kLost && _isInForce;
  if (isLost) _isInForce = false;
  for (auto stream = _streams.begin(); stream != _streams.end();) {
    Stream& one = *stream++;  // an answer takes it out
    if (isLost && !one.isOnce) one.connection->SendPart(FormatEvent("lost", "", "{}"));
    if (_isInForce) Pump(one);
  }
}

// Changes from before are not known to be all. The name of this time is random: another one of this program has others.
void ChangeStreams::BeginAnew() {
  _ring.Begin(MakeSecret().substr(0, 16));
  _isInForce = true;
  for (auto stream = _streams.begin(); stream != _streams.end();) Begin(*stream++);
}

// A stream that began before, or comes back with an id that is not kept, has to read all again.
void ChangeStreams::Begin(Stream& stream) {
  const auto known = stream.hasLastId && !stream.hasBegun ? _ring.ParseId(stream.lastId) : std::nullopt;
  const bool isReset = (stream.hasLastId && !known) || stream.hasBegun;
  stream.hasBegun = true;
  stream.position = known.value_or(_ring.GetLast());
  stream.unknownOld.clear();
  const std::string id = _ring.FormatId(stream.position);
  if (!stream.isOnce) {
    stream.connection->SendPart(FormatEvent(isReset ? "reset" : "ready", id, "{}"));
    return Pump(stream);
  }
  if (stream.hasLastId && !isReset) return Pump(stream);
  const std::string answer = std::string("{\"reset\":") + (isReset ? "true" : "false") + ",\"events\":[],\"next\":";
  Connection& connection = *stream.connection;
  Drop(stream);
  connection.Send({200, {{"Content-Type", "application/json"}}, answer + Quoted(id) + "}\n"});
}

bool ChangeStreams::Matches(const Stream& stream, const std::string& group) const {
  if (stream.patterns.count("*") != 0) return true;
  settings::common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(stream.patterns);
  std::set<std::string> matching;
  matcher.GetMatchingGroups(std::set<std::string>{group}, matching);
  return !matching.empty();
}

void ChangeStreams::Pump(Stream& stream) {
  if (stream.isOnce) {
    PumpOnce(stream, false);
    return;
  }
  if (!stream.connection->IsDrained()) return;
  std::string text;
  if (!_ring.IsKept(stream.position)) {
    stream.position = _ring.GetLast();
    stream.unknownOld.clear();
    text = FormatEvent("reset", _ring.FormatId(stream.position), "{}");
  } else {
    text = TakeEvents(stream);
  }
  if (!text.empty()) stream.connection->SendPart(text);
}

// Some of the next events. What is left of a group whose first changes lie before the new position has lost what it was
// before.
std::string ChangeStreams::TakeEvents(Stream& stream) {
  std::string text;
  uint64_t position = stream.position;
  for (const ChangeRing::Item& item : _ring.TakeBehind(stream.position)) {
    const GroupChangeEvent& change = *item.change;
    if (text.size() > kBatchBytes) {
      if (item.first <= position) stream.unknownOld.insert(change.group);
      continue;
    }
    position = item.number;
    if (!Matches(stream, change.group)) continue;
    const bool hasOld = stream.unknownOld.erase(change.group) == 0;
    text += FormatEvent("change", _ring.FormatId(position), FormatData(change, hasOld));
  }
  stream.position = position;
  return text;
}

// Answers when something has changed. Returns whether it did; the stream is gone then.
bool ChangeStreams::PumpOnce(Stream& stream, bool isTimeOver) {
  Connection& connection = *stream.connection;
  if (!stream.hasBegun) {
    if (!isTimeOver) return false;
    Drop(stream);
    connection.Send(ToResponse(Refusal(503, "the daemon can't be followed", {}, {{"Retry-After", "1"}})));
    return true;
  }
  std::string events;
  const bool isKept = _ring.IsKept(stream.position);
  if (isKept) {
    for (const ChangeRing::Item& item : _ring.TakeBehind(stream.position)) {
      if (Matches(stream, item.change->group)) events += (events.empty() ? "" : ",") + FormatData(*item.change, true);
    }
  }
  if (isKept && events.empty() && !isTimeOver) return false;
  const std::string id = _ring.FormatId(_ring.GetLast());
  const std::string answer = std::string("{\"reset\":") + (isKept ? "false" : "true") + ",\"events\":[" + events +
                             "],\"next\":" + Quoted(id) + "}\n";
  Drop(stream);
  connection.Send({200, {{"Content-Type", "application/json"}}, answer});
  return true;
}

void ChangeStreams::SendComments() {
  for (Stream& stream : _streams) {
    if (!stream.isOnce && stream.connection->IsDrained()) stream.connection->SendPart(":\n\n");
  }
  _commentTimer.Start(kCommentTime);
}

ChangeStreams::Place ChangeStreams::Find(const Connection& connection) {
  return std::find_if(_streams.begin(), _streams.end(),
                      [&](const Stream& stream) { return stream.connection == &connection; });
}

void ChangeStreams::OnDrained(Connection& connection) {
  const auto stream = Find(connection);
  if (stream != _streams.end() && _isInForce) Pump(*stream);
}

void ChangeStreams::OnEnd(Connection& connection) {
  const auto stream = Find(connection);
  if (stream != _streams.end()) Drop(*stream);
}

void ChangeStreams::Drop(Stream& stream) {
  _streams.erase(Find(*stream.connection));
  if (_streams.empty()) _lingerTimer.Start(kLingerTime);
}

}  // namespace tavix::web
