#include "programs/server/connections/SharedBound.h"

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

namespace tavix::daemon {

namespace {

constexpr size_t kNotCounted = 64 * 1024;
constexpr size_t kMuch = 1024 * 1024;

}  // namespace

SharedBound::Part::Part(SharedBound& bound, int descriptor) : _bound(bound), _descriptor(descriptor) {
  osa::PlainMutexLock lock(_bound._mutex);
  _bound._parts.push_back(this);
}

void SharedBound::Part::Set(size_t bytes) {
  // Small amounts are left out, so that most connections never take the lock that all of them share.
  const size_t counted = bytes > kNotCounted || _hasDeparted ? bytes : 0;
  if (counted == _bytes || _ended) return;
  osa::PlainMutexLock lock(_bound._mutex);
  const size_t before = std::exchange(_bytes, counted);
  if (!_isCounted) return;
  _bound._total = _bound._total - before + counted;
  _bound.Enforce();
}

void SharedBound::Part::AddText(const std::string& text) {
  osa::PlainMutexLock lock(_bound._mutex);
  if (!_isCounted || _ended) return;
  if (!_texts) _texts = std::make_unique<std::deque<Texts::value_type*>>();
  // Room in the own list first: when memory is refused behind this, the index was not changed.
  _texts->push_back(nullptr);
  try {
    _texts->back() = &*_bound._texts.try_emplace(&text).first;
  } catch (...) {
    _texts->pop_back();
    if (_texts->empty()) _texts.reset();
    throw;
  }
  Keepers& keepers = _texts->back()->second;
  ++keepers.all;
  if (keepers.counted++ == 0) _bound._total += text.size();
  _textBytes += text.size();
  if (_bound._total > kMuch) _bound._keptMuch = true;
  _bound.Enforce();
}

void SharedBound::Part::DropText() {
  osa::PlainMutexLock lock(_bound._mutex);
  if (_texts) _bound.DropFirstText(*this);
}

void SharedBound::Part::Clear() {
  Set(0);
  osa::PlainMutexLock lock(_bound._mutex);
  while (_texts) _bound.DropFirstText(*this);
}

void SharedBound::Part::Depart(int event) {
  osa::PlainMutexLock lock(_bound._mutex);
  _descriptor = event;
  _hasDeparted = true;
}

// The bound may be gone once the part has ended.
void SharedBound::Part::End() {
  if (_ended) return;
  Clear();
  _ended = true;
  osa::PlainMutexLock lock(_bound._mutex);
  _bound._parts.erase(std::find(_bound._parts.begin(), _bound._parts.end(), this));
}

// First the largest parts are taken out of the total until the rest is within the bound. Then each is put back, the
// smallest first, and picked only if it still exceeds the bound: a text that is shared weighs once, so to end one part
// may make room for another.
//
// Asks for no memory: the bound is enforced when there is little.
void SharedBound::Enforce() {
  Part* chosen = nullptr;
  while (_total > _max) {
    Part* const largest = FindLargest();
    Uncount(*largest);
    largest->_nextChosen = chosen;
    chosen = largest;
  }
  for (Part* part = chosen; part; part = std::exchange(part->_nextChosen, nullptr)) {
    Count(*part);
    if (_total > _max) Pick(*part);
  }
}

// There is one: what exceeds a bound are the bytes of parts that are counted.
SharedBound::Part* SharedBound::FindLargest() const {
  const auto rank = [](const Part* part) {
    const size_t size = part->_isCounted ? part->GetSize() : 0;
    return std::make_pair(part->_hasDeparted && size > 0, size);
  };
  return *std::max_element(_parts.begin(), _parts.end(),
                           [&](const Part* a, const Part* b) { return rank(a) < rank(b); });
}

// Its loop sees it as an event of the socket, or as that of a departed client.
void SharedBound::Pick(Part& part) {
  part._picked = part.GetSize();
  Uncount(part);
  while (part._texts) DropFirstText(part);
  if (part._hasDeparted) {
    eventfd_write(part._descriptor, 1);
  } else {
    shutdown(part._descriptor, SHUT_RDWR);
  }
}

void SharedBound::Count(Part& part) {
  part._isCounted = true;
  _total += part._bytes;
  if (!part._texts) return;
  for (Texts::value_type* text : *part._texts) {
    if (text->second.counted++ == 0) _total += text->first->size();
  }
}

void SharedBound::Uncount(Part& part) {
  part._isCounted = false;
  _total -= part._bytes;
  if (!part._texts) return;
  for (Texts::value_type* text : *part._texts) {
    if (--text->second.counted == 0) _total -= text->first->size();
  }
}

void SharedBound::DropFirstText(Part& part) {
  Texts::value_type& text = *part._texts->front();
  const size_t size = text.first->size();
  part._textBytes -= size;
  if (part._isCounted && --text.second.counted == 0) _total -= size;
  if (--text.second.all == 0) _texts.erase(text.first);
  part._texts->pop_front();
  if (part._texts->empty()) part._texts.reset();
  if (_texts.empty() && std::exchange(_keptMuch, false)) _unused.Note();
}

}  // namespace tavix::daemon
