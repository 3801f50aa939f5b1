#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <string_view>
#include <vector>

#include "programs/server/connections/KeptOutput.h"
#include "programs/server/connections/SharedBound.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/server/IClientOutput.h"

namespace tavix::daemon {

// What a connection is still to be sent: the output of its handler, which never waits. A message goes to the socket
// as far as the socket takes it, and the rest is kept until the connection's loop sends it on. A message that shows
// a change which is not durable is kept until it is, and everything behind it. A message that many queues are given
// can be kept by all of them together.
//
// In order: BeginMessage finds the ticket that the message waits for, which is then sent or kept (FlushMessage).
// Kept bytes up to the first hold are sendable: the loop sends them when the socket takes more (Send). A hold is a
// place among the kept bytes and the ticket that everything behind it waits for. The first hold's ticket is awaited
// at the gate, which calls OnDurable: holds that are durable go, and what is sendable now is sent by that thread. A
// break ends all this: nothing is sent or kept any more, and the loop finds the reason (GetEnd).
//
// Threads: writers, one at a time (the handler's output mutex), on any thread; the loop, the handler's thread that
//          calls HoldMessages, and the thread that finds changes durable, call the rest meanwhile.
// Locks:   its own mutex, outside the gate's.
// Errors:  a peer that is gone, more bytes than may be kept, and memory that runs out break the queue for ever: writers
//          fail, kept bytes go.
// Methods: many: those of two interfaces (the handler's output, the gate's caller) and the loop's, over the kept bytes
//          and holds that one mutex guards.
class OutputQueue : public settings::server::IClientOutput,
                    public IHeldOutput,
                    public std::enable_shared_from_this<OutputQueue> {
 public:
  using Clock = std::chrono::steady_clock;
  using Ticket = DurabilityGate::Ticket;

  // In bytes.
  struct Bounds {
    size_t unread;     // that wait for the peer
    size_t held;       // that wait for the disk, or behind what does
    SharedBound& all;  // outlives the queue, or its Close
  };

  // Why it is broken.
  enum class End { kNone, kPeer, kUnread, kHeld, kMemory };

  // descriptor: a connected socket, borrowed until Close. gate: may be null, else outlives the queue. onKept: called,
  // with the queue locked, whenever bytes wait for the peer, be they the first or not, when the queue breaks, and see
  // ReportSent. It throws nothing.
  OutputQueue(int descriptor, const Bounds& bounds, DurabilityGate* gate, std::function<void()> onKept);

  // What the handler does. A message waits for the changes of the groups that it shows.
  bool HasStream() const override { return false; }
  std::ostream& GetOstream() override;  // throws osa::Exception: there is none
  void HoldMessages(Ticket ticket) override TAVIX_EXCLUDES(_mutex);
  void BeginMessage(const settings::common::GroupNameMatcher* groups) override;
  void WriteMessage(std::string_view message, const settings::common::GroupNameMatcher* groups) override
      TAVIX_EXCLUDES(_mutex);
  bool WriteSharedMessage(const KeptOutput::Text& message, const settings::common::GroupNameMatcher* groups) override
      TAVIX_EXCLUDES(_mutex);
  bool IsReachable() override { return CanReachPeer(); }
  void OnMessageLost() override TAVIX_EXCLUDES(_mutex) { BreakFor(End::kMemory); }

  // The message that is written next leaves when that change is durable. By its writer.
  void HoldMessage(Ticket ticket) { _messageTicket = ticket; }

  // Writes a message, which other queues may be given as well where it is shared. By its writer.
  void Write(std::string_view message) TAVIX_EXCLUDES(_mutex);
  void WriteShared(const KeptOutput::Text& message) TAVIX_EXCLUDES(_mutex);

  // Sends on what is kept, as far as the socket takes it. Returns what stays.
  size_t Send() TAVIX_EXCLUDES(_mutex);

  // Nothing that is written from now on would reach the peer. By the loop, which has seen that: onKept is not called.
  void OnPeerGone() TAVIX_EXCLUDES(_mutex);

  // Nothing is sent, kept or reported any more. A writer may be at work.
  void Close() TAVIX_EXCLUDES(_mutex);

  // Has onKept called as well when something that had to wait for the disk was sent.
  void ReportSent(bool isReported) TAVIX_EXCLUDES(_mutex);

  size_t GetKeptBytes() const { return _keptBytes; }
  bool IsBroken() const { return _isBroken; }
  End GetEnd() const { return _end; }

  // Of the bound of all queues.
  size_t GetPicked() const { return _part.GetPicked(); }

  // Whether what is written may reach the peer.
  bool CanReachPeer() const { return !_isBroken && GetPicked() == 0; }

  // What of the kept bytes waits for the peer alone.
  size_t GetSendableBytes() const TAVIX_EXCLUDES(_mutex);

  // Since when the peer has taken nothing of that.
  Clock::time_point GetLastProgress() const TAVIX_EXCLUDES(_mutex);

  void OnDurable() override TAVIX_EXCLUDES(_mutex);

 private:
  struct Hold {
    size_t begin;  // counted from the first byte that ever was kept
    Ticket ticket;
  };

  void FlushMessage(std::string_view message, const KeptOutput::Text* shared) TAVIX_EXCLUDES(_mutex);
  void Keep(std::string_view message, size_t sent, const KeptOutput::Text* shared) TAVIX_REQUIRES(_mutex);
  void EndMessage() TAVIX_EXCLUDES(_mutex);
  void NoteKept() TAVIX_REQUIRES(_mutex);
  void Enforce() TAVIX_REQUIRES(_mutex);
  void SendSendable() TAVIX_REQUIRES(_mutex);
  size_t CountSendable() const TAVIX_REQUIRES(_mutex);
  void DropDurableHolds() TAVIX_REQUIRES(_mutex);
  void AwaitDurable() TAVIX_EXCLUDES(_mutex);
  size_t SendSome(std::string_view bytes) TAVIX_REQUIRES(_mutex);
  size_t SendOnce(KeptOutput::Pieces& pieces, size_t count) TAVIX_REQUIRES(_mutex);
  bool IsPeerGone() const;
  void Break(End end) TAVIX_REQUIRES(_mutex);
  void Drop(End end) TAVIX_REQUIRES(_mutex);
  void BreakFor(End end) TAVIX_EXCLUDES(_mutex);
  template <class Work>
  bool DoOrBreak(Work work) TAVIX_EXCLUDES(_mutex);

  const int _descriptor;
  const Bounds _bounds;
  DurabilityGate* const _gate;  // may be null
  const std::function<void()> _onKept;
  Ticket _messageTicket = 0;  // the writer's
  mutable osa::PlainMutex _mutex;
  std::atomic<size_t> _keptBytes{0};                  // the size of _kept, for readers without the mutex
  size_t _left TAVIX_GUARDED_BY(_mutex) = 0;          // how many kept bytes have left
  std::vector<Hold> _holds TAVIX_GUARDED_BY(_mutex);  // in the order of their bytes
  Ticket _minTicket TAVIX_GUARDED_BY(_mutex) = 0;     // for every message from now on
  bool _isAwaiting TAVIX_GUARDED_BY(_mutex) = false;  // the gate will call OnDurable
  bool _reportsSent TAVIX_GUARDED_BY(_mutex) = false;
  std::atomic<bool> _isBroken{false};  // written with the mutex held
  std::atomic<End> _end{End::kNone};   // likewise
  Clock::time_point _lastProgress TAVIX_GUARDED_BY(_mutex){};
  SharedBound::Part _part;  // but for what may be asked at any time, used with the mutex held
  KeptOutput _kept TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::daemon
