#include "programs/server/trials/SharedTrials.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "tavix/osa/Exception.h"
#include "tavix/settings/server/ChangeOrigin.h"

namespace tavix::daemon {

using settings::server::PlannedChange;

namespace {

osa::Descriptor CreateTimer() {
  osa::Descriptor timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  if (!timer) throw osa::Exception("Failed to create a timer for trials: %s", std::strerror(errno));
  return timer;
}

timespec ToTimespec(std::chrono::nanoseconds time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  timespec value{};
  value.tv_sec = static_cast<time_t>(seconds.count());
  value.tv_nsec = static_cast<decltype(value.tv_nsec)>((time - seconds).count());
  return value;
}

}  // namespace

SharedTrials::SharedTrials(size_t maxPending, size_t maxBytes, std::function<Time()> getTime)
    : _getTime(std::move(getTime)), _timer(CreateTimer()), _book(maxPending, maxBytes) {}

void SharedTrials::AcknowledgeTimer() {
  uint64_t ignored = 0;
  static_cast<void>(read(_timer.Get(), &ignored, sizeof ignored));
}

void SharedTrials::RetryLater() {
  const osa::PlainMutexLock lock(_mutex);
  _nextRetry = _getTime() + std::chrono::seconds(1);
  SetTimer();
}

// While nothing is pending, changes of others pay for no lock.
void SharedTrials::Prepare(const PlannedChange& change) {
  _preparedBytes.store(0, std::memory_order_relaxed);
  if (change.origin.trial.empty() && !_hasPending.load(std::memory_order_acquire)) return;
  const osa::PlainMutexLock lock(_mutex);
  _book.Prepare(change, _getTime());
  _lines.Reserve(_book.GetPreparedBytes());
  _preparedBytes.store(_book.GetPreparedBytes(), std::memory_order_relaxed);
}

void SharedTrials::Commit(uint64_t revision) noexcept {
  if (!IsPrepared()) return;
  const osa::PlainMutexLock lock(_mutex);
  _preparedBytes.store(0, std::memory_order_relaxed);
  _lines.AddReserved(_book.Commit(revision));
  SetTimer();
}

size_t SharedTrials::PrepareConfirmation(const std::string& name, const Client& client) {
  const osa::PlainMutexLock lock(_mutex);
  _lines.Reserve(TrialBook::kMaxEndBytes);
  const std::string line = _book.SpellConfirmation(name, client, _getTime());
  _lines.AddReserved(line);
  return line.size();
}

void SharedTrials::Confirm(const std::string& name) {
  const osa::PlainMutexLock lock(_mutex);
  _book.Confirm(name, _getTime());
  SetTimer();
}

void SharedTrials::DropConfirmation(size_t bytes) {
  const osa::PlainMutexLock lock(_mutex);
  _lines.DropLast(bytes);
}

void SharedTrials::RequireRevertible(const std::string& name, const Client& client) {
  const osa::PlainMutexLock lock(_mutex);
  _book.RequireRevertible(name, client);
}

void SharedTrials::BeginPlan(const std::string& name) {
  const osa::PlainMutexLock lock(_mutex);
  _book.BeginPlan(name);
}

OldSettings SharedTrials::GetSettings(const std::string& name, const SettingName* last) {
  const osa::PlainMutexLock lock(_mutex);
  return _book.GetSettings(name, last);
}

bool SharedTrials::EndReverted(const std::string& name) {
  const osa::PlainMutexLock lock(_mutex);
  _lines.Reserve(TrialBook::kMaxEndBytes);
  const std::string lines = _book.EndReverted(name, _getTime());
  _lines.AddReserved(lines);
  SetTimer();
  return !lines.empty();
}

void SharedTrials::DropReleased() {
  OldSettings released;
  const osa::PlainMutexLock lock(_mutex);
  released = _book.TakeReleased();
}

std::vector<std::string> SharedTrials::FindPending() {
  const osa::PlainMutexLock lock(_mutex);
  return _book.FindPending();
}

std::vector<std::string> SharedTrials::FindDue() {
  const osa::PlainMutexLock lock(_mutex);
  return _book.FindDue(_getTime());
}

std::vector<std::string> SharedTrials::FindKnown() {
  const osa::PlainMutexLock lock(_mutex);
  return _book.FindKnown(_getTime());
}

std::optional<Trial> SharedTrials::FindTrial(const std::string& name) {
  const osa::PlainMutexLock lock(_mutex);
  return _book.FindTrial(name);
}

void SharedTrials::Load(std::string_view lines) {
  const osa::PlainMutexLock lock(_mutex);
  _book.Load(lines);
  SetTimer();
}

std::string SharedTrials::GetUnjournaled() {
  const osa::PlainMutexLock lock(_mutex);
  return std::string(_lines.GetUnjournaled());
}

void SharedTrials::OnJournaled() {
  const osa::PlainMutexLock lock(_mutex);
  _lines.OnJournaled();
}

std::string SharedTrials::GetUnjournaledByNext() {
  const osa::PlainMutexLock lock(_mutex);
  return std::string(_lines.GetUnjournaledByNext());
}

void SharedTrials::OnNextJournaled() {
  const osa::PlainMutexLock lock(_mutex);
  _lines.OnNextJournaled();
}

void SharedTrials::Follow() {
  const osa::PlainMutexLock lock(_mutex);
  _lines.Follow();
}

void SharedTrials::FailSnapshot() {
  const osa::PlainMutexLock lock(_mutex);
  _lines.FailSnapshot();
}

void SharedTrials::DropLines() {
  const osa::PlainMutexLock lock(_mutex);
  _lines.DropAll();
}

std::string SharedTrials::BeginSnapshot() {
  const osa::PlainMutexLock lock(_mutex);
  std::string pending = _book.Spell();
  _lines.BeginSnapshot();
  return pending;
}

// A time that is over makes it readable at once, but a time of 0, which stops it.
void SharedTrials::SetTimer() {
  const std::optional<Time> next = _book.FindNextEnd();
  _hasPending.store(next.has_value(), std::memory_order_release);
  itimerspec setting{};
  if (next) {
    const std::chrono::nanoseconds time = std::max(*next, _nextRetry).time_since_epoch();
    setting.it_value = ToTimespec(std::max(time, std::chrono::nanoseconds(1)));
  }
  timerfd_settime(_timer.Get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

}  // namespace tavix::daemon
