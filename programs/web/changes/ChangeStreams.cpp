#include "programs/web/changes/ChangeStreams.h"

#include <algorithm>
#include <utility>

#include "programs/common/client/Join.h"
#include "programs/web/access/PrivateFile.h"
#include "programs/web/http/Refusal.h"
#include "tavix/core/StringUtil.h"

namespace tavix::web {

namespace {

constexpr Milliseconds kCommentTime{15'000};
constexpr size_t kMaxWait = 60;  // seconds
constexpr size_t kBatchBytes = 64 * size_t{1024};

std::string FormatData(const ChangeRing::Item& item, bool hasOld) {
  const GroupChangeEvent& change = *item.change;
  const std::optional<std::string>& old = item.first->oldValues;
  std::string data = "{\"group\":" + Quoted(change.group);
  if (change.isGone) {
    data += ",\"gone\":true";
  } else {
    data += programs::Join({",\"version\":\"", change.version, "\",\"new\":", change.newValues});
  }
  if (hasOld && old) data += ",\"old\":" + *old;
  return data + "}";
}

std::string FormatEvent(const char* event, const std::string& id, const std::string& data) {
  return programs::Join(
      {id.empty() ? "" : "id: ", id, id.empty() ? "" : "\n", "event: ", event, "\ndata: ", data, "\n\n"});
}

}  // namespace

ChangeStreams::ChangeStreams(const EventBase& base, std::string server, const View& view, std::function<void()> wake,
                             Milliseconds linger)
    : _base(base),
      _server(std::move(server)),
      _view(view),
      _wake(std::move(wake)),
      _linger(linger),
      _lingerTimer(base, [this] { StopFollowing(); }),
      _commentTimer(base, [this] { SendComments(); }) {}

void ChangeStreams::ReadParameters(const Request& request, Stream& stream) const {
  const Query query(request.query);
  std::vector<std::string> given = query.FindNames("pattern");
  if (given.size() > kMaxPatterns)
    Refuse(400, {"a stream has no more than ", std::to_string(kMaxPatterns), " patterns"});
  if (given.empty()) given = {"*"};
  for (std::string& pattern : given) {
    RequireSendable(pattern);
    if (pattern.find('*') == std::string::npos) {
      stream.names.insert(std::move(pattern));
    } else {
      stream.patterns.push_back(std::move(pattern));
    }
  }
  const std::string* const lastId = request.Find("last-event-id");
  const std::optional<std::string> since = query.Find("since");
  stream.hasLastId = lastId || since;
  stream.lastId = lastId ? *lastId : since.value_or("");
  stream.isOnce = query.Find("wait").has_value();
  stream.wait = std::chrono::seconds(query.FindNumber("wait", 0, kMaxWait, 0));
}

void ChangeStreams::Open(Connection& connection, const Request& request, std::function<bool()> isAllowed) {
  Stream stream;
  stream.connection = &connection;
  stream.isAllowed = std::move(isAllowed);
  ReadParameters(request, stream);
  if (_streams.size() >= kMaxStreams) RefuseForNow(503, "there are too many streams", 15);
  StartFollowing();
  _streams.push_back(std::move(stream));
  Stream& added = _streams.back();
  if (added.isOnce) {
    added.timer = std::make_unique<LoopEvent>(_base, [this, &added] { PumpOnce(added, true); });
    added.timer->Start(added.wait);
  } else {
    connection.SendStreamHead({{"Content-Type", "text/event-stream"}, {"X-Accel-Buffering", "no"}});
    if (_isLost) connection.SendPart(FormatEvent("lost", "", "{}"));
  }
  if (_isInForce) Begin(added);
}

void ChangeStreams::StartFollowing() {
  _lingerTimer.Stop();
  if (_follower) return;
  _isInForce = false;
  _isLost = false;
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
  const bool isLost = news.state == ChangeFollower::State::kLost && !_isLost;
  if (isLost) {
    _isInForce = false;
    _isLost = true;
  }
  for (auto stream = _streams.begin(); stream != _streams.end();) {
    Stream& one = *stream++;  // an answer takes it out
    if (isLost) {
      ReportLost(one);
    } else if (_isInForce) {
      Pump(one);
    }
  }
}

// One that waits and has not begun waits on: the daemon may come back.
void ChangeStreams::ReportLost(Stream& stream) {
  Connection& connection = *stream.connection;
  if (!stream.isOnce) return connection.SendPart(FormatEvent("lost", "", "{}"));
  if (!stream.hasBegun) return;
  Drop(stream);
  connection.Send({200, {{"Content-Type", "application/json"}}, FormatPoll(false, "")});
}

// Changes from before are not known to be all. The name of this time is random: another one of this program has others.
void ChangeStreams::BeginAnew() {
  _ring.Begin(MakeSecret().substr(0, 16));
  _isInForce = true;
  _isLost = false;
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
  Connection& connection = *stream.connection;
  Drop(stream);
  connection.Send({200, {{"Content-Type", "application/json"}}, FormatPoll(isReset, "")});
}

// The answer to one that waits.
std::string ChangeStreams::FormatPoll(bool isReset, const std::string& events) const {
  return programs::Join({"{\"reset\":", (isReset ? "true" : "false"), (_isLost ? ",\"lost\":true" : ""),
                         ",\"events\":[", events, "],\"next\":", Quoted(_ring.FormatId(_ring.GetLast())), "}\n"});
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
  for (const ChangeRing::Item& item : _ring.FindBehind(stream.position)) {
    const std::string& group = item.change->group;
    if (text.size() > kBatchBytes) {
      if (item.firstNumber <= position) stream.unknownOld.insert(group);
      continue;
    }
    position = item.number;
    if (!stream.Matches(group)) continue;
    const bool hasOld = stream.unknownOld.erase(group) == 0;
    text += FormatEvent("change", _ring.FormatId(position), FormatData(item, hasOld));
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
    for (const ChangeRing::Item& item : _ring.FindBehind(stream.position)) {
      if (stream.Matches(item.change->group)) events += (events.empty() ? "" : ",") + FormatData(item, true);
    }
  }
  stream.position = _ring.GetLast();  // what was looked at is not looked at again
  if (isKept && events.empty() && !isTimeOver) return false;
  Drop(stream);
  connection.Send({200, {{"Content-Type", "application/json"}}, FormatPoll(!isKept, events)});
  return true;
}

// With the place of the stream, so that one that comes back has to read again only what it missed.
void ChangeStreams::SendComments() {
  EndDisallowed();
  for (Stream& stream : _streams) {
    if (stream.isOnce || !stream.connection->IsDrained()) continue;
    const bool hasPlace = _isInForce && stream.hasBegun;
    stream.connection->SendPart(hasPlace ? programs::Join({":\nid: ", _ring.FormatId(stream.position), "\n\n"})
                                         : ":\n\n");
  }
  _commentTimer.Start(kCommentTime);
}

void ChangeStreams::EndDisallowed() {
  for (auto next = _streams.begin(); next != _streams.end();) {
    Stream& stream = *next++;
    if (stream.isAllowed()) continue;
    Connection& connection = *stream.connection;
    if (!stream.isOnce) {
      connection.End();  // takes the stream out
      continue;
    }
    Drop(stream);
    connection.Send(ToResponse(Refusal(401, "the login has ended")));
  }
}

bool ChangeStreams::Stream::Matches(const std::string& group) const {
  return names.count(group) != 0 || std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
           return core::StringUtil::MatchesPattern(pattern, group);
         });
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
  if (_streams.empty()) _lingerTimer.Start(_linger);
}

}  // namespace tavix::web
