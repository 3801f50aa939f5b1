#include "programs/server/connections/KeptOutput.h"

#include <algorithm>

namespace tavix::daemon {

namespace {

constexpr size_t kMaxUncounted = 64 * 1024;  // of shared texts: a few cost no lock
constexpr size_t kReferenceCost = 32;        // bytes, here and in the part

}  // namespace

void KeptOutput::Append(std::string_view bytes) {
  _own.Append(bytes.data(), bytes.size());
  _ownBehind += bytes.size();
  _size += bytes.size();
  CountOwn();
}

void KeptOutput::Append(const Text& text, size_t begin) {
  const size_t rest = text->size() - begin;
  const bool isFirst = _size == 0;
  // A small rest costs less as a copy; and the first text alone may begin inside (_begin).
  if (rest < kMinShared || (begin > 0 && !isFirst)) return Append(std::string_view(*text).substr(begin));
  if (!_references) _references = std::make_unique<References>();
  _references->push_back({_ownBehind, text});
  _ownBehind = 0;
  if (isFirst) _begin = begin;
  _size += rest;
  _uncountedBytes += text->size();
  if (_uncountedBytes > kMaxUncounted) CountTexts();
}

void KeptOutput::CountOwn() {
  const size_t references = _references ? _references->size() : 0;
  _part.Set(_own.GetSize() + references * kReferenceCost);
}

void KeptOutput::CountTexts() {
  for (; _counted < _references->size(); ++_counted) _part.AddText(*(*_references)[_counted].text);
  _uncountedBytes = 0;
  CountOwn();
}

size_t KeptOutput::GetFront(Pieces& pieces, size_t limit) const {
  size_t used = 0;
  size_t own = 0;  // that the pieces cover
  const auto add = [&](std::string_view piece) {
    piece = piece.substr(0, limit);
    limit -= piece.size();
    pieces[used++] = {const_cast<char*>(piece.data()), piece.size()};
    return piece.size();
  };
  const auto addOwn = [&](size_t end) {
    while (own < end && limit > 0 && used < pieces.size()) own += add(_own.GetRun(own).substr(0, end - own));
  };
  size_t begin = _begin;
  for (size_t i = 0; _references && i < _references->size() && limit > 0 && used < pieces.size(); ++i) {
    const Reference& reference = (*_references)[i];
    addOwn(own + reference.ownBefore);
    if (limit > 0 && used < pieces.size()) add(std::string_view(*reference.text).substr(begin));
    begin = 0;
  }
  addOwn(_own.GetSize());
  return used;
}

void KeptOutput::Drop(size_t count) {
  _size -= count;
  while (count > 0 && _references) {
    size_t& own = _references->front().ownBefore;
    const size_t part = std::min(count, own);
    own -= part;
    DropOwn(part);
    count -= part + DropShared(count - part);
  }
  _ownBehind -= count;
  DropOwn(count);
  CountOwn();
}

void KeptOutput::DropOwn(size_t count) {
  while (count > 0) {
    const size_t part = std::min(count, _own.GetFront().size());
    _own.Drop(part);
    count -= part;
  }
}

// Of the first reference's text, which the part forgets before its memory may become that of another text. Returns how
// many bytes it dropped.
size_t KeptOutput::DropShared(size_t count) {
  const std::string& text = *_references->front().text;
  const size_t part = std::min(count, text.size() - _begin);
  _begin += part;
  if (_begin < text.size()) return part;
  _begin = 0;
  if (_counted > 0) {
    --_counted;
    _part.DropText();
  } else {
    _uncountedBytes -= text.size();
  }
  _references->pop_front();
  if (_references->empty()) _references.reset();
  return part;
}

void KeptOutput::Clear() {
  _part.Clear();
  _own.Clear();
  _references.reset();
  _counted = _uncountedBytes = _begin = _ownBehind = _size = 0;
}

}  // namespace tavix::daemon
