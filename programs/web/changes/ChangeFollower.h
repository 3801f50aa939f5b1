#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "programs/common/LoopThread.h"
#include "programs/web/changes/Change.h"
#include "programs/web/changes/KnownValues.h"
#include "programs/web/interface/Call.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::web {

// Follows the daemon's changes by a connection of its own, for as long as it lives. A connection that is lost is made
// anew, once a second.
//
// Threads: "WebChanges" follows; Take belongs to the loop's thread.
// Locks:   "_mutex" guards what was not taken yet.
class ChangeFollower {
 public:
  enum class State {
    kConnecting,  // no connection since the beginning
    kFollowing,
    kLost  // the connection has ended
  };

  // What has happened since the last Take.
  struct News {
    bool hasBegun = false;  // a subscription is in force; the changes are those behind its beginning
    State state = State::kConnecting;
    std::vector<ChangePointer> changes;
  };

  // Throws osa::Exception when the system has no descriptor left. view: outlives this. wake: called on the
  // thread when there are news; has no lock held.
  ChangeFollower(std::string server, const View& view, std::function<void()> wake);

  // Waits for the thread, which may wait for the daemon for some seconds: call BeginEnd, and destroy it behind
  // HasEnded.
  ~ChangeFollower();

  // Has the thread end; "wake" is called once it has.
  void BeginEnd() noexcept;
  bool HasEnded() const { return _hasEnded; }

  ChangeFollower(const ChangeFollower&) = delete;
  ChangeFollower& operator=(const ChangeFollower&) = delete;

  News Take() TAVIX_EXCLUDES(_mutex);

 private:
  void Run();
  void Follow();
  static void RequireSubscribed(settings::client::ProtocolClient& client);
  void Subscribe(settings::client::ProtocolClient& client);
  std::string PackAll(settings::client::ProtocolClient& client) const;
  void Learn(const std::string& lines);
  void TakeNotice(const settings::client::ProtocolNotice& notice);
  std::optional<std::string> ValuesOf(const core::IniFile& settings, const std::string& group) const;
  void Report(State state, bool hasBegun, std::vector<ChangePointer> changes) TAVIX_EXCLUDES(_mutex);
  bool AwaitEnd(int descriptor, int milliseconds) const;

  const std::string _server;
  const View& _view;
  const std::function<void()> _wake;
  KnownValues _known;
  osa::Descriptor _endSignal;
  std::atomic<bool> _hasEnded{false};
  osa::PlainMutex _mutex;
  News _news TAVIX_GUARDED_BY(_mutex);
  programs::LoopThread _thread;
};

}  // namespace tavix::web
