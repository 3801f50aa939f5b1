#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <optional>

#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/client/RemoteCommand.h"

namespace tavix::settings::client {

// What became of a request: whether a reply with the expected keyword came, and what handling it returned.
struct ResponseStatus {
  bool received = false;
  bool result = false;
};

// Hands the one request that awaits a reply from its caller to the reader, and its outcome back. The reader is whoever
// has the right to read: the worker, or the caller itself (ReadRight).
//
// Of the caller's request:
//
//     kNone     no request is under way, or its outcome is posted
//     kQueued   it is written, and its reply has not come
//     kTaken    the reader reads its reply
//
// A caller queues a command, kQueued, and awaits an outcome. The reader takes the command when its reply comes, kTaken,
// reads the reply and finishes, kNone: the outcome is posted. Of a reply in parts it puts the command back between
// these, kQueued. A reply that ends too soon is no outcome: the reader drops the command, kNone, and then the worker
// fails the slot, because the connection is lost. That posts a failure whether or not somebody awaits one; a failure
// that nobody awaited stays for the next caller on purpose.
//
// So a caller may get a failure while its own request is in order. It leaves then, from any state:
//
//     kQueued   the command is withdrawn: it waits, before all later ones, for the reply that still comes
//     kTaken    the worker reads the reply to its end, and the outcome is posted to nobody
//
// Replies come in the order of the requests, so withdrawn commands are taken first. They are dropped when the
// connection is lost, unless its replies outlive it.
//
// Threads: one caller at a time, and one reader.
// Locks:   its own mutex, inside all others; nothing is read or written under it.
// Owns:    the commands that are queued or withdrawn. The reader owns the one that it took.
class ReplySlot {
 public:
  ReplySlot() = default;

  ReplySlot(const ReplySlot&) = delete;
  ReplySlot& operator=(const ReplySlot&) = delete;

  // The caller's. Once the request is written whole, and before its reply can be looked for. No other is queued.
  void Queue(std::unique_ptr<RemoteCommand> command) TAVIX_EXCLUDES(_mutex);

  // The caller's. Waits for an outcome without limit. A command that is still queued or taken is left behind.
  [[nodiscard]] ResponseStatus Await() TAVIX_EXCLUDES(_mutex);

  // The reader's, when a reply comes: the oldest command that has none. Null: nobody awaits a reply.
  [[nodiscard]] std::unique_ptr<RemoteCommand> Take() TAVIX_EXCLUDES(_mutex);

  // The reader's, with the command that it took: the reply was read. The command is gone before its caller goes on, so
  // that what the reply was read into is then the caller's alone.
  void Finish(std::unique_ptr<RemoteCommand> command, ResponseStatus status) TAVIX_EXCLUDES(_mutex);

  // The reader's, with the command that it took: a part of the reply was read, and the next is still to come.
  void PutBack(std::unique_ptr<RemoteCommand> command) TAVIX_EXCLUDES(_mutex);

  // The reader's, with the command that it took: the reply ended too soon.
  void Drop(std::unique_ptr<RemoteCommand> command) TAVIX_EXCLUDES(_mutex);

  // Whether Await would return at once.
  [[nodiscard]] bool IsPosted() const TAVIX_EXCLUDES(_mutex);

  // Whether a caller's request has no reply yet.
  [[nodiscard]] bool IsQueued() const TAVIX_EXCLUDES(_mutex);

  // The worker's, when the connection is lost. canRepliesCome: replies are still read later.
  void Fail(bool canRepliesCome) TAVIX_EXCLUDES(_mutex);

 private:
  enum class State { kNone, kQueued, kTaken };

  void Post(ResponseStatus status) TAVIX_REQUIRES(_mutex);

  mutable osa::PlainMutex _mutex;
  std::condition_variable _posted;
  State _state TAVIX_GUARDED_BY(_mutex) = State::kNone;
  std::unique_ptr<RemoteCommand> _queued TAVIX_GUARDED_BY(_mutex);  // in kQueued
  std::deque<std::unique_ptr<RemoteCommand>> _withdrawn TAVIX_GUARDED_BY(_mutex);
  std::optional<ResponseStatus> _outcome TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::settings::client
