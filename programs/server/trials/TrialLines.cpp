#include "programs/server/trials/TrialLines.h"

#include <algorithm>

namespace tavix::daemon {

// A journal that failed may have been given them before.
void TrialLines::DropLast(size_t bytes) noexcept {
  _text.resize(_text.size() - std::min(bytes, _text.size()));
  _journaled = std::min(_journaled, _text.size());
  _nextJournaled = std::min(_nextJournaled, _text.size());
}

void TrialLines::OnJournaled() {
  _journaled = _text.size();
  Drop();
}

void TrialLines::BeginSnapshot() {
  _hasNext = true;
  _nextJournaled = _text.size();
}

void TrialLines::FailSnapshot() {
  _hasNext = false;
  Drop();
}

void TrialLines::OnNextJournaled() {
  _nextJournaled = _text.size();
}

void TrialLines::Follow() {
  _hasNext = false;
  _journaled = _nextJournaled;
  Drop();
}

void TrialLines::DropAll() noexcept {
  _text.clear();
  _journaled = _nextJournaled = 0;
}

void TrialLines::Drop() {
  const size_t dropped = _hasNext ? std::min(_journaled, _nextJournaled) : _journaled;
  _text.erase(0, dropped);
  _journaled -= dropped;
  _nextJournaled -= std::min(_nextJournaled, dropped);
}

}  // namespace tavix::daemon
