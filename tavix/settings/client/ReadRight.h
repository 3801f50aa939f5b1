#pragma once

#include <condition_variable>

#include "tavix/osa/InputWatch.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::settings::client {

// The right to read from the connection of a multi-threaded client. While the worker sleeps between two messages, a
// caller may have it and read its own reply, so that the reply wakes no thread but the one that waits for it:
//
//     kWorker    The worker has the right: it reads, runs callbacks, or has no connection. Replies are read by it.
//     kOffered   The worker sleeps until input comes, and nothing is read ahead. Nobody has the right.
//     kWriting   A caller has asked for the right and writes its request. Input does not wake the worker, unless the
//                writer has to wait for the server: then the worker takes the right as from kOffered, for the server
//                may read no request before its output is read.
//     kReading   The caller has the right. When the worker wakes all the same, it waits for the caller.
//
// The worker goes from kWorker to kOffered and back; a caller from kOffered to kWriting and kReading, and back to
// kOffered, or to kWorker: it hands over what is the worker's, a notice or the end of the input. Callbacks run
// on the worker alone, therefore, and a callback of a notice has returned before a reply behind the notice is read.
//
// The worker offers the right only where callers ask for it: to sleep until input comes, and then to read it, costs a
// notice more than to sleep in reading.
//
// Threads: the worker, and one caller at a time, by a ReadTurn.
// Locks:   its own mutex, inside the right to write; that of a watch inside it. Nothing is read or written under it.
class ReadRight {
 public:
  ReadRight() = default;

  ReadRight(const ReadRight&) = delete;
  ReadRight& operator=(const ReadRight&) = delete;

  // Whether a caller has asked for the right since this was called last.
  [[nodiscard]] bool WasAskedFor() TAVIX_EXCLUDES(_mutex);

  // The worker's, which has the right, between two messages: offers it until there is something to read, and has it
  // again. False when a caller has handed over a message of which it has read a part. watch: outlives the call.
  [[nodiscard]] bool AwaitInput(osa::InputWatch& watch) TAVIX_EXCLUDES(_mutex);

 private:
  friend class ReadTurn;

  enum class State { kWorker, kOffered, kWriting, kReading };

  // The worker's.
  void Offer(osa::InputWatch& watch) TAVIX_EXCLUDES(_mutex);
  bool TryTakeBack(bool hasInput) TAVIX_EXCLUDES(_mutex);
  bool TakeFailure() TAVIX_EXCLUDES(_mutex);

  // The caller's.
  bool TryAsk() TAVIX_EXCLUDES(_mutex);
  bool TryTake() TAVIX_EXCLUDES(_mutex);
  void GiveBack() TAVIX_EXCLUDES(_mutex);
  void HandOver(bool hasFailed) TAVIX_EXCLUDES(_mutex);

  osa::PlainMutex _mutex;
  std::condition_variable _readingEnded;
  State _state TAVIX_GUARDED_BY(_mutex) = State::kWorker;
  osa::InputWatch* _watch TAVIX_GUARDED_BY(_mutex) = nullptr;  // in all states but kWorker
  bool _wasAskedFor TAVIX_GUARDED_BY(_mutex) = false;
  bool _isPaused TAVIX_GUARDED_BY(_mutex) = false;       // the watch
  bool _hasCallerRead TAVIX_GUARDED_BY(_mutex) = false;  // since the worker last looked
  bool _hasFailed TAVIX_GUARDED_BY(_mutex) = false;      // a caller, in the middle of a message
};

// A caller's turn to read, for the length of a scope. What its owner does not give back is handed over.
//
// Threads: belongs to the caller that made it.
class ReadTurn {
 public:
  explicit ReadTurn(ReadRight& right) : _right(right) {}
  ~ReadTurn() { HandOver(); }

  ReadTurn(const ReadTurn&) = delete;
  ReadTurn& operator=(const ReadTurn&) = delete;

  // Before the request is written, with the right to write.
  void Ask() { _hasTurn = _right.TryAsk(); }

  // Once the request is written and its command is queued. False: the worker reads the reply.
  [[nodiscard]] bool Begin();

  // The reply was read, and nothing is read ahead.
  void GiveBack();

  // The worker has to go on reading. hasFailed: in the middle of a message, so that it can't.
  void HandOver(bool hasFailed = false);

 private:
  ReadRight& _right;
  bool _hasTurn = false;  // from Ask on
};

}  // namespace tavix::settings::client
