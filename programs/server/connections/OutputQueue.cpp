#include "programs/server/connections/OutputQueue.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <string_view>
#include <utility>

#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
constexpr size_t kLarge = 64 * 1024;  // a message that is worth a look whether anybody reads the next one

}  // namespace

OutputQueue::OutputQueue(int descriptor, const Bounds& bounds, DurabilityGate* gate, std::function<void()> onKept)
    : _descriptor(descriptor),
      _bounds(bounds),
      _gate(gate),
      _onKept(std::move(onKept)),
      _part(bounds.all, descriptor),
      _kept(_part) {}

std::ostream& OutputQueue::GetOstream() {
  throw osa::Exception("An output queue has no stream");
}

void OutputQueue::HoldMessages(Ticket ticket) {
  osa::PlainMutexLock lock(_mutex);
  _minTicket = std::max(_minTicket, ticket);
}

void OutputQueue::BeginMessage(const settings::common::GroupNameMatcher* groups) {
  if (_gate) HoldMessage(_gate->FindLast(groups));
}

void OutputQueue::WriteMessage(std::string_view message, const settings::common::GroupNameMatcher* groups) {
  BeginMessage(groups);
  Write(message);
}

bool OutputQueue::WriteSharedMessage(const KeptOutput::Text& message,
                                     const settings::common::GroupNameMatcher* groups) {
  BeginMessage(groups);
  WriteShared(message);
  return true;
}

size_t OutputQueue::Send() {
  {
    osa::PlainMutexLock lock(_mutex);
    SendSendable();
  }
  AwaitDurable();
  _bounds.all.ReturnUnusedMemory();
  return GetKeptBytes();
}

void OutputQueue::Close() {
  {
    osa::PlainMutexLock lock(_mutex);
    // Not by Break: the connection is about to go, and must not be called any more.
    _isBroken = true;
    _kept.Clear();
    _keptBytes = 0;
    _holds.clear();
    _part.End();
  }
  _bounds.all.ReturnUnusedMemory();
}

void OutputQueue::ReportSent(bool isReported) {
  osa::PlainMutexLock lock(_mutex);
  _reportsSent = isReported;
}

size_t OutputQueue::GetSendableBytes() const {
  osa::PlainMutexLock lock(_mutex);
  return CountSendable();
}

OutputQueue::Clock::time_point OutputQueue::GetLastProgress() const {
  osa::PlainMutexLock lock(_mutex);
  return _lastProgress;
}

void OutputQueue::OnDurable() {
  {
    osa::PlainMutexLock lock(_mutex);
    _isAwaiting = false;
    if (_isBroken) return;
    // The peer had nothing to take so far; its time to make progress begins now.
    if (CountSendable() == 0) _lastProgress = Clock::now();
    SendSendable();
    if (_isBroken) return;
    if (CountSendable() > 0 || _reportsSent) _onKept();
  }
  AwaitDurable();
}

void OutputQueue::Write(std::string_view message) {
  DoOrBreak([&] { FlushMessage(message, nullptr); });
  EndMessage();
}

void OutputQueue::WriteShared(const KeptOutput::Text& message) {
  DoOrBreak([&] { FlushMessage(*message, &message); });
  EndMessage();
}

void OutputQueue::EndMessage() {
  _messageTicket = 0;
  if (_keptBytes > 0) AwaitDurable();
}

// What is sent leaves at once only if nothing is kept before it, and nothing holds it.
void OutputQueue::FlushMessage(std::string_view message, const KeptOutput::Text* shared) {
  osa::PlainMutexLock lock(_mutex);
  if (!CanReachPeer() || message.empty()) return;
  const Ticket ticket = std::max(_messageTicket, _minTicket);
  const bool isHeld = _gate && !_gate->IsDurable(ticket);
  // A hold is for everything behind it: what waits for no later change needs none of its own.
  const bool isHeldLonger = isHeld && (_holds.empty() || ticket > _holds.back().ticket);
  if (isHeldLonger) _holds.push_back({_left + _kept.GetSize(), ticket});
  const bool goesAtOnce = !isHeld && _kept.GetSize() == 0;
  const size_t sent = goesAtOnce ? SendSome(message) : 0;
  if (sent < message.size() && !_isBroken) Keep(message, sent, shared);
}

void OutputQueue::Keep(std::string_view message, size_t sent, const KeptOutput::Text* shared) {
  if (_kept.GetSize() == 0) _lastProgress = Clock::now();
  if (shared) {
    _kept.Append(*shared, sent);
  } else {
    _kept.Append(message.substr(sent));
  }
  NoteKept();
  Enforce();
  if (!_isBroken && CountSendable() > 0) _onKept();
}

void OutputQueue::NoteKept() {
  _keptBytes = _kept.GetSize();
}

// What waits for the peer and what waits for the disk are counted apart: a slow disk is not the client's fault.
void OutputQueue::Enforce() {
  const size_t unread = CountSendable();
  if (unread > _bounds.unread) {
    Break(End::kUnread);
  } else if (_kept.GetSize() - unread > _bounds.held) {
    Break(End::kHeld);
  }
}

void OutputQueue::SendSendable() {
  DropDurableHolds();
  bool takesMore = !_isBroken;
  while (takesMore && CountSendable() > 0) {
    KeptOutput::Pieces pieces;
    const size_t sent = SendOnce(pieces, _kept.GetFront(pieces, CountSendable()));
    takesMore = sent > 0;
    if (_isBroken) return;
    if (sent > 0) _lastProgress = Clock::now();
    _kept.Drop(sent);
    NoteKept();
    _left += sent;
  }
}

size_t OutputQueue::CountSendable() const {
  return _holds.empty() ? _kept.GetSize() : _holds.front().begin - _left;
}

// Tickets become durable in their order, and holds are in the order of their tickets.
void OutputQueue::DropDurableHolds() {
  const auto isHeld = [this](const Hold& hold) { return !_gate->IsDurable(hold.ticket); };
  _holds.erase(_holds.begin(), std::find_if(_holds.begin(), _holds.end(), isHeld));
}

// The gate may have been passed meanwhile; then it is for this thread to send.
void OutputQueue::AwaitDurable() {
  Ticket ticket = 0;
  {
    osa::PlainMutexLock lock(_mutex);
    if (_holds.empty() || _isAwaiting || _isBroken) return;
    ticket = _holds.front().ticket;
    _isAwaiting = true;
  }
  // With the mutex released: a wait that there is no memory for breaks the queue, which takes the mutex.
  bool isHeld = true;
  DoOrBreak([&] { isHeld = _gate->Await(ticket, shared_from_this()); });
  if (!isHeld) OnDurable();
}

size_t OutputQueue::SendSome(std::string_view bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    KeptOutput::Pieces pieces;
    pieces[0] = {const_cast<char*>(bytes.data()) + done, bytes.size() - done};
    const size_t sent = SendOnce(pieces, 1);
    if (sent == 0) break;
    done += sent;
  }
  if (done >= kLarge && !_isBroken && IsPeerGone()) Break(End::kPeer);
  return done;
}

// Returns 0 when the socket takes nothing, now or ever.
size_t OutputQueue::SendOnce(KeptOutput::Pieces& pieces, size_t count) {
  msghdr message{};
  message.msg_iov = pieces.data();
  message.msg_iovlen = count;
  while (true) {
    const ssize_t sent = count == 1 ? send(_descriptor, pieces[0].iov_base, pieces[0].iov_len, kFlags)
                                    : sendmsg(_descriptor, &message, kFlags);
    if (sent > 0) return static_cast<size_t>(sent);
    if (sent < 0 && errno == EINTR) continue;
    if (sent == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) Break(End::kPeer);
    return 0;
  }
}

// A peer that left before its answer came is known to be gone once that was sent. The next answer may be as large.
bool OutputQueue::IsPeerGone() const {
  pollfd look{_descriptor, 0, 0};
  return poll(&look, 1, 0) > 0 && (look.revents & (POLLERR | POLLHUP));
}

// A peer that is gone may have sent requests before, which are still to be read. Any other reason ends the connection:
// the loop sees it as an event of the socket.
void OutputQueue::Break(End end) {
  if (_isBroken) return;
  Drop(end);
  shutdown(_descriptor, end == End::kPeer ? SHUT_WR : SHUT_RDWR);
  _onKept();
}

void OutputQueue::Drop(End end) {
  _end = end;
  _isBroken = true;
  _kept.Clear();
  NoteKept();
  _holds.clear();
}

void OutputQueue::OnPeerGone() {
  osa::PlainMutexLock lock(_mutex);
  if (!_isBroken) Drop(End::kPeer);
}

void OutputQueue::BreakFor(End end) {
  osa::PlainMutexLock lock(_mutex);
  Break(end);
}

// A handler would take an exception for its own, and the connection would live on, mute.
template <class Work>
bool OutputQueue::DoOrBreak(Work work) {
  try {
    work();
  } catch (const std::exception&) {
    BreakFor(End::kMemory);
  }
  return !_isBroken;
}

}  // namespace tavix::daemon
