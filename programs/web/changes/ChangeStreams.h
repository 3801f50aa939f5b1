#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "programs/web/changes/ChangeFollower.h"
#include "programs/web/changes/ChangeRing.h"
#include "programs/web/http/Connection.h"
#include "programs/web/http/EventBase.h"
#include "programs/web/http/Query.h"

namespace tavix::web {

// Hands the daemon's changes out to those that watch them, each at its own pace: a stream takes its next events when
// the last have left. The daemon is followed only while somebody watches, and for a minute behind the last.
//
// Threads: the loop's.
// Events:  "ready" when a new stream begins, "change", "lost" when the daemon is gone, and "reset" when changes were
//          missed: all has to be read again.
class ChangeStreams {
 public:
  static constexpr size_t kMaxStreams = 64;
  static constexpr size_t kMaxPatterns = 64;  // of a stream
  static constexpr Milliseconds kLingerTime{60'000};

  // base, view: outlive this. wake: called on another thread; has to have OnNews called on the loop's. linger: how long
  // the daemon is followed behind the last stream.
  ChangeStreams(const EventBase& base, std::string server, const View& view, std::function<void()> wake,
                Milliseconds linger = kLingerTime);

  // Answers by a stream, or, with the parameter "wait", by one document when something has changed or the time is over.
  // isAllowed: whether the stream may go on; asked from time to time, and by EndDisallowed.
  // Throws Refusal: 503 beyond the limit, 400 and 422 for wrong parameters.
  void Open(Connection& connection, const Request& request, std::function<bool()> isAllowed);

  // Ends streams whose logins have ended.
  void EndDisallowed();

  // The daemon has news.
  void OnNews();

  void OnDrained(Connection& connection);
  void OnEnd(Connection& connection);

  size_t GetCount() const { return _streams.size(); }
  bool IsFollowing() const { return _follower != nullptr; }

 private:
  struct Stream {
    Connection* connection;
    std::function<bool()> isAllowed;
    std::set<std::string> names;
    std::vector<std::string> patterns;
    bool hasLastId = false;
    std::string lastId;
    bool isOnce = false;    // answered by one document
    bool hasBegun = false;  // its position counts
    uint64_t position = 0;
    std::set<std::string> unknownOld;  // groups of which a change was passed over, with its old values
    std::chrono::seconds wait{0};      // of isOnce
    std::unique_ptr<LoopEvent> timer;  // of isOnce

    bool Matches(const std::string& group) const;
  };
  using Place = std::list<Stream>::iterator;

  void StartFollowing();
  void StopFollowing();
  void DropEnded();
  Place Find(const Connection& connection);
  void Begin(Stream& stream);
  void BeginAnew();
  void ReportLost(Stream& stream);
  void Pump(Stream& stream);
  bool PumpOnce(Stream& stream, bool isTimeOver);
  std::string TakeEvents(Stream& stream);
  void SendComments();
  void Drop(Stream& stream);
  void ReadParameters(const Request& request, Stream& stream) const;
  std::string FormatPoll(bool isReset, const std::string& events) const;

  const EventBase& _base;
  const std::string _server;
  const View& _view;
  const std::function<void()> _wake;
  const Milliseconds _linger;
  ChangeRing _ring;
  bool _isInForce = false;  // the ring's changes are all since its beginning
  bool _isLost = false;     // there is no connection to the daemon, which was reported to the streams
  std::list<Stream> _streams;
  std::unique_ptr<ChangeFollower> _follower;
  std::list<std::unique_ptr<ChangeFollower>> _ending;
  LoopEvent _lingerTimer;
  LoopEvent _commentTimer;
};

}  // namespace tavix::web
