#pragma once

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "programs/server/connections/OpeningGuard.h"
#include "programs/server/connections/OutputQueue.h"
#include "programs/server/connections/Places.h"
#include "programs/server/connections/SharedBound.h"
#include "programs/server/connections/SlowLane.h"
#include "programs/server/connections/Turn.h"
#include "programs/server/metrics/Counters.h"
#include "programs/server/options/Limits.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/TcpSocket.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/RequestFramer.h"
#include "tavix/settings/server/ServerEnv.h"

namespace tavix::daemon {

// One client's connection. Requests are handled once they are whole, so nothing that the client sends, or does not
// send, or does not read, keeps the loop's thread waiting. A request that takes long is left to the slow lane:
//
//     on the loop   requests are handled as they come
//     in the lane   one is carried out by the lane's thread; nothing more is read, notices go out as ever
//     back          OnLaneDone: the requests behind it go on
//
// While a request is in the lane, the handler and the request's text are the lane's, and the connection must not be
// destroyed but at the end of its loop, which waits for the lane then; Abandon prepares its end.
//
// A peer that reads no more has its requests carried out all the same, as far as they have come.
//
// Threads: its loop's, but for what other threads' notices write to its output, and the lane's Run.
// Errors:  what the memory does not suffice for is thrown; the connection is then to be destroyed.
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
  };

  // descriptor: connected. poll: the loop's epoll descriptor, to which the connection adds itself. wakeLoop: an eventfd
  // that tells the loop that bytes are kept.
  Connection(osa::Descriptor descriptor, int poll, int wakeLoop, const Shared& shared);

  // What was not sent is gone. What the kernel still has to send goes out all the same. Says why, if a bound is passed.
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
  bool OnHangUp();
  bool OnTick(Clock::time_point now);

  // Goes on with requests that have come but were left for the next turn, so that others are served meanwhile.
  bool OnTurn();
  bool HasMore() const { return _hasMore; }

  // Whether everything that has come was answered, and the answers have left.
  bool AwaitsRequest() const {
    return !_inputEnded && !_hasMore && !_isInLane && _input.empty() && _output->GetKeptBytes() == 0;
  }

  // Whether a request is in the lane, or waits for EnterLane.
  bool IsInLane() const { return _isInLane; }

  // Gives the request to the lane. Throws std::bad_alloc; then it is not in the lane.
  void EnterLane();

  // Whether the lane has carried the request out, so that OnLaneDone is due.
  bool IsLaneDone() const { return _isLaneDone.load(std::memory_order_acquire); }

  // Goes on behind the request. False once the connection is to be destroyed.
  bool OnLaneDone();

  // The connection is to be destroyed when the lane has done with it. Until then its loop has no event of it.
  void Abandon();
  bool IsAbandoned() const { return _isAbandoned; }

  // The loop's.
  Turn turn;

  // How often OnReadable received something.
  size_t CountReads() const { return _reads; }

  // Whether OnTick has anything to watch.
  bool NeedsTicks() const;

 private:
  using ClientHandler = settings::server::ClientHandler;

  struct Interest {
    bool read = true;
    bool write = false;
  };

  bool TakeInput(std::string_view received);
  bool HandleRequests(std::string_view received, size_t& handled);
  bool HandleWhole(std::string_view received, size_t& handled);
  ClientHandler::Attempt HandleOne();
  void ReportRefusal(const settings::server::RefusedChange& refusal);
  void ReportChange() const;
  void LeaveToLane(std::string_view received, size_t begin, size_t length);
  void Run(const std::function<bool()>& isStopped) noexcept override;
  int GetDoneEvent() const override { return _wakeLoop; }
  template <class Work>
  auto HoldingChanges(Work work);
  bool EndsNow();
  bool CheckInput();
  bool Cut(CutReason reason, size_t figure, std::string_view sent = {}) noexcept;
  void TellWhyItEnds() noexcept;
  void OnKept() TAVIX_EXCLUDES(_interestMutex);
  bool HasRoom() const { return _output->GetKeptBytes() <= _limits.pauseBytes; }
  void UpdateInterest() TAVIX_EXCLUDES(_interestMutex);
  void Watch(int operation) TAVIX_REQUIRES(_interestMutex);
  void Unwatch();
  void WatchAgain() TAVIX_EXCLUDES(_interestMutex);

  const std::unique_ptr<osa::TcpSocket> _socket;
  const int _descriptor;
  const int _poll;
  const int _wakeLoop;
  const int _turnMilliseconds;
  const Limits& _limits;
  Counters& _counters;
  SlowLane* const _lane;  // may be null
  const std::string _peer;
  const std::string _logPeer;
  std::string _input;  // received, not handled yet
  SharedBound::Part _inputPart;
  Clock::time_point _unfinishedSince{};
  settings::server::RequestFramer _framer;
  core::ViewIstream _request;
  const std::shared_ptr<OutputQueue> _output;  // may outlive the connection, closed
  std::optional<ClientHandler> _handler;       // until the last request
  OpeningGuard _opening;
  size_t _reads = 0;
  bool _hasMore = false;      // the turn ended before the requests did
  bool _isPaused = false;     // likewise, because too much is unread
  bool _peerEnded = false;    // nothing more comes
  bool _inputEnded = false;   // what still comes is not handled
  bool _isTold = false;       // why it ends
  bool _isInLane = false;     // a request is; what follows is the lane's meanwhile
  bool _isAbandoned = false;  // nothing is done behind that request
  bool _isUnwatched = false;  // epoll tells nothing of it
  std::string _laneText;      // what holds the request
  std::exception_ptr _laneFailure;
  std::atomic<bool> _isLaneDone{false};
  osa::PlainMutex _interestMutex;
  Interest _interest TAVIX_GUARDED_BY(_interestMutex);
};

}  // namespace tavix::daemon
