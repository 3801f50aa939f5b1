#pragma once

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "programs/server/connections/ConnectionReport.h"
#include "programs/server/connections/OpeningGuard.h"
#include "programs/server/connections/OutputQueue.h"
#include "programs/server/connections/Places.h"
#include "programs/server/connections/SharedBound.h"
#include "programs/server/connections/SlowLane.h"
#include "programs/server/connections/Turn.h"
#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Limits.h"
#include "programs/server/system/Peer.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/RequestFramer.h"
#include "tavix/settings/server/ServerEnv.h"

namespace tavix::daemon {

// One client's connection. Requests are handled once they are whole, so nothing that the client sends, or does not
// send, or does not read, keeps the loop's thread waiting. A request that takes long is left to the slow lane. The
// changes of a peer that is gone are made all the same, as far as they have come; what is for the peer only is skipped,
// and need not wait for the lane. A connection whose changes wait for the lane then is left without its socket.
//
// Two states describe it. State is about the peer and goes one way only. It begins with kOpen. When the peer ends its
// sending, OnReadable moves on to kPeerEnded, where the requests that have come are handled to the last. That one, a
// quit or a failure leads to kDone: the handler goes, and the output that is kept goes out. Then, or when the peer is
// gone by then, the loop destroys the connection. It may also destroy it in any state because a bound was passed; but
// while the lane has a request of it, the loop calls Abandon (kAbandoned) and destroys it when the lane has finished.
//
// Progress is about the requests that have come, and changes while State is kOpen or kPeerEnded. HandleWhole handles
// one after the other (kCaughtUp) until it has to stop: the turn is over (kNextTurn), the peer has too much to read
// (kPaused), or a request takes long (kInLane). From kNextTurn the loop's OnTurn leads on; from kPaused UpdateInterest
// leads to kNextTurn, once the peer has read enough; from kInLane OnLaneDone leads on, which the loop calls when the
// lane's thread has set _isLaneDone. Notices go out in all of them.
//
// Threads: its loop's, but for what other threads' notices write to its output, and the lane's Run. While a request is
//          in the lane, the handler and the request's text are the lane's thread's.
// Errors:  what the memory does not suffice for is thrown; the connection is then to be destroyed.
// Methods: many: what a loop calls for each event, what the lane calls, and the short steps between them. The members
//          are the parts of a connection (input, output, handler, bounds of time), which only it brings together.
class Connection : private SlowLane::IJob {
 public:
  using Clock = std::chrono::steady_clock;

  // What all connections share; it outlives them.
  struct Shared {
    settings::server::ServerEnv* env;
    const Limits& limits;
    SharedBounds& bounds;
    Counters& counters;
    DurabilityGate* gate;      // may be null
    int turnMilliseconds = 5;  // after which a connection with many requests lets the others go first
    Places* places = nullptr;  // each connection has one; may be null
    SlowLane* lane = nullptr;  // null: its loop handles all requests
    bool hasOtherLoops = false;
  };

  // descriptor: connected. poll: the loop's epoll descriptor, to which the connection adds itself. wakeLoop: an eventfd
  // that wakes the loop when bytes are kept.
  Connection(osa::Descriptor descriptor, int poll, int wakeLoop, const Shared& shared)
      : Connection(Peer(descriptor.Get()), std::move(descriptor), poll, wakeLoop, shared) {}

  // The same, for a caller that knows the peer already.
  Connection(Peer peer, osa::Descriptor&& descriptor, int poll, int wakeLoop, const Shared& shared);

  // What was not sent is gone. What the kernel still has to send goes out all the same. Logs why it ends, if a bound is
  // passed. Waits until the lane has finished with it.
  ~Connection() override;

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Whether it is to be destroyed whatever happens. Then nothing else is to be called.
  bool IsCut() const;

  // Notes that one of the following threw that.
  void OnFailure(const std::exception& exception) noexcept;

  // These return false once the connection is to be destroyed.
  // scratch: memory to receive into, the loop's.
  bool OnReadable(char* scratch, size_t size);
  bool OnWritable();
  bool OnHangUp(char* scratch, size_t size);
  bool OnTick(Clock::time_point now);

  // Goes on with requests that have come but were left for the next turn, so that others are served meanwhile.
  bool OnTurn();
  bool HasMore() const { return _progress == Progress::kNextTurn; }

  // Whether everything that has come was answered, and the answers have left.
  bool AwaitsRequest() const {
    return _state == State::kOpen && _progress == Progress::kCaughtUp && _input.empty() && _output->GetKeptBytes() == 0;
  }

  // Whether everything that has come was answered, and answers are kept, as a rule until the disk has what they show.
  bool HasKeptAnswers() const {
    return _state == State::kOpen && _progress == Progress::kCaughtUp && _input.empty() && _output->GetKeptBytes() > 0;
  }

  // Whether a request is in the lane, or waits for EnterLane.
  bool IsInLane() const { return _progress == Progress::kInLane; }

  // Gives the request to the lane, unless it is skipped. Throws std::bad_alloc; then it is not in the lane.
  void EnterLane();

  // Takes the request back from the lane if it waits there, and need not be carried out: it is for the peer only, or
  // keeps more than all connections may. Then OnLaneDone is due, or the connection is destroyed.
  bool TrySkipInLane();

  // Whether the lane has carried the request out, or it is skipped, so that OnLaneDone is due.
  bool IsLaneDone() const { return _isLaneDone.load(std::memory_order_acquire); }

  // Goes on behind the request. False once the connection is to be destroyed.
  bool OnLaneDone();

  // The connection is to be destroyed when the lane has finished with it. Until then it has no socket, and keeps
  // nothing but what the lane needs.
  void Abandon() noexcept;
  bool IsAbandoned() const { return _state == State::kAbandoned; }

  // Whether it has a socket. Its loop has no event of one without.
  bool HasSocket() const { return static_cast<bool>(_socket); }

  // The loop's.
  Turn turn;
  bool hasPlace = true;

  // How often OnReadable received something.
  size_t CountReads() const { return _reads; }

  // Whether OnTick has anything to watch.
  bool NeedsTicks() const;

 private:
  using ClientHandler = settings::server::ClientHandler;

  enum class State {
    kOpen,       // requests come
    kPeerEnded,  // no more come; those that have come are handled
    kDone,       // no request is handled any more; output that is kept is sent
    kAbandoned,  // nothing is done any more; the lane still has a request
  };

  enum class Progress {
    kCaughtUp,  // all whole requests were handled
    kNextTurn,  // more are left for the next turn
    kPaused,    // more are left until the peer has read
    kInLane,    // one is in the lane, or waits for EnterLane; those behind it are left
  };

  // What epoll reports of it, as long as there is a socket.
  struct Interest {
    bool isWatched = true;
    bool reads = true;
    bool writes = false;
  };

  bool TakeInput(std::string_view received);
  bool HandleRequests(std::string_view received, size_t& handled);
  bool HandleWhole(std::string_view received, size_t& handled);
  ClientHandler::Attempt HandleOne();
  void ReportOutcome();
  void LeaveToLane(std::string_view received, size_t begin, size_t length);
  void Depart(char* scratch, size_t size);
  void CloseSocket() noexcept;
  void CountInput() noexcept;
  void Run(const std::function<bool()>& isStopped) noexcept override;
  void SkipInLane() noexcept;
  void EndInLane() noexcept;
  bool IsUseless() const { return _isForPeerOnly && !_output->CanReachPeer(); }
  int GetDoneEvent() const override { return _wakeLoop; }
  bool EndsNow();
  bool CheckInput();
  bool Cut(CutReason reason, size_t figure, std::string_view sent = {}) noexcept;
  void ReportEnd() noexcept;
  void DropReceived();
  void OnKept() TAVIX_EXCLUDES(_interestMutex);
  bool HasRoom() const { return _output->GetKeptBytes() <= _limits.pauseBytes; }
  void UpdateInterest() TAVIX_EXCLUDES(_interestMutex);
  void Watch() TAVIX_REQUIRES(_interestMutex);

  osa::Descriptor _socket;  // none once nothing can come or go any more
  const int _descriptor;    // the socket's
  const int _poll;
  const int _wakeLoop;
  const int _turnMilliseconds;
  const Limits& _limits;
  SlowLane* const _lane;  // may be null
  ConnectionReport _report;
  std::string _input;  // received, not handled yet
  SharedBound::Part _inputPart;
  Clock::time_point _unfinishedSince{};
  settings::server::RequestFramer _framer;
  core::ViewIstream _request;
  const std::shared_ptr<OutputQueue> _output;  // may outlive the connection, closed
  std::optional<ClientHandler> _handler;       // until the last request
  OpeningGuard _opening;
  size_t _reads = 0;
  bool _hasReadAll = false;  // nothing more comes
  State _state = State::kOpen;
  Progress _progress = Progress::kCaughtUp;
  size_t _laneBytes = 0;  // of the request that is in the lane
  std::string _laneText;  // holds that request; the lane's thread's, as the next one
  std::exception_ptr _laneFailure;
  bool _isForPeerOnly = false;        // the request that is in the lane; does not change meanwhile
  bool _isSkipped = false;            // that request was taken back
  bool _wasInLaneAsDeparted = false;  // with a request
  std::atomic<bool> _isLaneDone{false};
  osa::PlainMutex _interestMutex;
  Interest _interest TAVIX_GUARDED_BY(_interestMutex);
};

}  // namespace tavix::daemon
