#include "programs/server/persistence/JournalNames.h"

#include <utility>

namespace tavix::daemon {

void JournalNames::OnFound(bool isInPlace) {
  OnOpened();
  if (isInPlace) _owner = 0;
}

JournalNames::Number JournalNames::OnNextCreated() {
  _isUseless = false;  // making it removed what had the name
  return _owner = ++_last;
}

void JournalNames::OnGivenUp(bool isUseful) {
  if (_current != 0 && _owner == _current && !isUseful) _isUseless = true;
  _current = 0;
}

void JournalNames::OnTookPlace(Number journal) {
  if (_owner != journal) return;
  _owner = 0;
  _isUseless = false;
}

bool JournalNames::ReleaseNext() {
  if (_current != 0 && _owner == _current) return false;
  _owner = 0;
  _isUseless = false;
  return true;
}

bool JournalNames::TakeUselessName() {
  if (!std::exchange(_isUseless, false)) return false;
  _owner = 0;
  return true;
}

}  // namespace tavix::daemon
