#include "tavix/settings/client/ReplySlot.h"

#include <utility>

namespace tavix::settings::client {

void ReplySlot::Queue(std::unique_ptr<RemoteCommand> command) {
  osa::PlainMutexLock lock(_mutex);
  _queued = std::move(command);
  _state = State::kQueued;
}

ResponseStatus ReplySlot::Await() {
  osa::PlainMutexLock lock(_mutex);
  lock.Wait(_posted, [this]() TAVIX_REQUIRES(_mutex) { return _outcome.has_value(); });
  const ResponseStatus status = *_outcome;
  _outcome.reset();
  // An earlier loss failed this call: wherever its own reply is on its way, no other caller may get it.
  if (_state == State::kQueued) _withdrawn.push_back(std::move(_queued));
  _state = State::kNone;
  return status;
}

std::unique_ptr<RemoteCommand> ReplySlot::Take() {
  osa::PlainMutexLock lock(_mutex);
  if (!_withdrawn.empty()) {
    std::unique_ptr<RemoteCommand> oldest = std::move(_withdrawn.front());
    _withdrawn.pop_front();
    return oldest;
  }
  if (_state != State::kQueued) return nullptr;
  _state = State::kTaken;
  return std::move(_queued);
}

// Only a command whose caller still awaits it is in kTaken: a withdrawn one never is, and a caller that leaves ends it.
void ReplySlot::Finish(std::unique_ptr<RemoteCommand> command, ResponseStatus status) {
  osa::PlainMutexLock lock(_mutex);
  command.reset();
  if (_state != State::kTaken) return;
  _state = State::kNone;
  Post(status);
}

// A caller that has left does not await the next part either.
void ReplySlot::PutBack(std::unique_ptr<RemoteCommand> command) {
  osa::PlainMutexLock lock(_mutex);
  if (_state == State::kTaken) {
    _queued = std::move(command);
    _state = State::kQueued;
  } else {
    _withdrawn.push_front(std::move(command));
  }
}

void ReplySlot::Drop(std::unique_ptr<RemoteCommand> command) {
  osa::PlainMutexLock lock(_mutex);
  command.reset();
  if (_state == State::kTaken) _state = State::kNone;
}

bool ReplySlot::IsPosted() const {
  osa::PlainMutexLock lock(_mutex);
  return _outcome.has_value();
}

bool ReplySlot::IsQueued() const {
  osa::PlainMutexLock lock(_mutex);
  return _state == State::kQueued;
}

// A loss of all replies takes no memory: what it threw would end the worker, and its caller would wait for ever.
void ReplySlot::Fail(bool canRepliesCome) {
  osa::PlainMutexLock lock(_mutex);
  if (!canRepliesCome) {
    _queued.reset();
    _withdrawn.clear();
  } else if (_state == State::kQueued) {
    _withdrawn.push_back(std::move(_queued));
  }
  _state = State::kNone;
  Post({});
}

// A slot that is still full holds an outcome that its caller has not seen yet, or a failure that nobody has asked for.
// One failure is enough, and an outcome that came is not taken back by a loss that follows.
void ReplySlot::Post(ResponseStatus status) {
  if (_outcome) return;
  _outcome = status;
  _posted.notify_one();
}

}  // namespace tavix::settings::client
