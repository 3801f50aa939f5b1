#include "tavix/settings/client/ReadRight.h"

#include <utility>

namespace tavix::settings::client {

bool ReadRight::WasAskedFor() {
  osa::PlainMutexLock lock(_mutex);
  return std::exchange(_wasAskedFor, false);
}

bool ReadRight::AwaitInput(osa::InputWatch& watch) {
  Offer(watch);
  while (!TryTakeBack(watch.Await())) continue;
  return !TakeFailure();
}

void ReadRight::Offer(osa::InputWatch& watch) {
  osa::PlainMutexLock lock(_mutex);
  _state = State::kOffered;
  _watch = &watch;
  _hasCallerRead = false;
  if (std::exchange(_isPaused, false)) watch.Resume();
}

// The input that ended the sleep may have been read by a caller meanwhile. Then the worker sleeps again, which takes no
// time if there is more: a worker that read without input would keep the right until the next message.
bool ReadRight::TryTakeBack(bool hasInput) {
  osa::PlainMutexLock lock(_mutex);
  while (_state == State::kReading) lock.Wait(_readingEnded);
  if (_state == State::kWorker) return true;  // it was handed over
  if (std::exchange(_hasCallerRead, false) || !hasInput) return false;
  _state = State::kWorker;
  return true;
}

bool ReadRight::TakeFailure() {
  osa::PlainMutexLock lock(_mutex);
  return std::exchange(_hasFailed, false);
}

// The watch is paused and resumed under the lock, so that a state and what the watch does in it change together.
bool ReadRight::TryAsk() {
  osa::PlainMutexLock lock(_mutex);
  _wasAskedFor = true;
  if (_state != State::kOffered) return false;
  _state = State::kWriting;
  _isPaused = true;
  _watch->Pause();
  return true;
}

bool ReadRight::TryTake() {
  osa::PlainMutexLock lock(_mutex);
  if (_state != State::kWriting) return false;  // the worker has taken the right, and may have offered it again
  _state = State::kReading;
  _hasCallerRead = true;
  return true;
}

void ReadRight::GiveBack() {
  osa::PlainMutexLock lock(_mutex);
  _state = State::kOffered;
  _isPaused = false;
  _watch->Resume();
  _readingEnded.notify_one();
}

void ReadRight::HandOver(bool hasFailed) {
  osa::PlainMutexLock lock(_mutex);
  if (_state != State::kWriting && _state != State::kReading) return;
  _state = State::kWorker;
  _hasFailed = hasFailed;
  _watch->Wake();
  _readingEnded.notify_one();
}

bool ReadTurn::Begin() {
  _hasTurn = _hasTurn && _right.TryTake();
  return _hasTurn;
}

void ReadTurn::GiveBack() {
  _hasTurn = false;
  _right.GiveBack();
}

void ReadTurn::HandOver(bool hasFailed) {
  if (std::exchange(_hasTurn, false)) _right.HandOver(hasFailed);
}

}  // namespace tavix::settings::client
