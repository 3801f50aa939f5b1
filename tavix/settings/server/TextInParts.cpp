#include "tavix/settings/server/TextInParts.h"

#include <algorithm>
#include <utility>

#include "tavix/settings/server/GroupWalk.h"
#include "tavix/settings/server/ISettingsSerializer.h"

namespace tavix::settings::server {

using core::IniFile;

namespace {

constexpr int kMaxRounds = 6;
constexpr size_t kFewParts = 4;
constexpr GroupWalk::Work kWorkOfAPart = 1000;
constexpr size_t kBytesBehind = 64;  // of what callers append to the text

}  // namespace

// What is made again is cut into ever smaller parts: where many groups change, less and less is made again for each.
void TextInParts::Collect(const Reader& readDocument, const std::function<std::set<std::string>()>& takeChanged) {
  _parts.assign(1, Part());
  Make(readDocument, 0, _bytesOfAPart);
  size_t bytes = _bytesOfAPart;
  for (int round = 0; round < kMaxRounds; ++round) {
    const std::set<size_t> parts = FindParts(takeChanged());
    bytes = std::max<size_t>(bytes / 4, 1);
    size_t made = 0;
    for (auto part = parts.rbegin(); part != parts.rend(); ++part) made += Make(readDocument, *part, bytes);
    if (parts.size() <= kFewParts || made <= _bytesOfAPart) return;
  }
}

void TextInParts::Update(const LayerView& document, const std::set<std::string>& changedGroups) {
  if (_parts.empty()) _parts.emplace_back();
  const std::set<size_t> parts = FindParts(changedGroups);
  for (auto part = parts.rbegin(); part != parts.rend(); ++part) {
    for (size_t at = *part; !MakePart(document, at, _bytesOfAPart); ++at) continue;
  }
}

// Cuts it into parts of about that size if it is longer. Reads the document for about a whole part's length at a time.
// Returns the text's length.
size_t TextInParts::Make(const Reader& readDocument, size_t part, size_t bytes) {
  size_t all = 0;
  for (bool isDone = false; !isDone;) {
    readDocument([&](const LayerView& document) {
      for (size_t made = 0; !isDone && made < _bytesOfAPart; ++part) {
        isDone = MakePart(document, part, bytes);
        const size_t size = _parts[part].text.size();
        made += isDone || size >= bytes ? std::max(size, bytes) : _bytesOfAPart;  // else many groups were visited
        all += size;
      }
    });
  }
  return all;
}

// False when it was too long: then the next part begins where this one ends, and is not made yet.
bool TextInParts::MakePart(const LayerView& document, size_t part, size_t bytes) {
  const auto end = part + 1 < _parts.size() ? document.FindPlace(_parts[part + 1].first) : document.GetEnd();
  const auto rest = Write(document, _parts[part], end, bytes);
  if (rest == end) return true;
  const auto next = _parts.insert(_parts.begin() + static_cast<std::ptrdiff_t>(part) + 1, Part());
  next->first = rest->first;
  return false;
}

// Returns the first group that the part has no room for.
LayerView::Group TextInParts::Write(const LayerView& document, Part& part, LayerView::Group end, size_t bytes) {
  _out.Reset(2 * _bytesOfAPart);
  part.groups = 0;
  GroupWalk::Work work = kWorkOfAPart;
  auto group = document.FindPlace(part.first);
  for (; group != end && work > 0 && _out.GetText().size() < bytes; --work) {
    if (_pWalk) group = _pWalk->FindNext(document.GetDocument(), group, end, work);
    if (group == end || work == 0) break;
    if (_pSerializer) {
      _pSerializer->WriteGroup(_out, document.Resolve(group));
    } else {
      IniFile::SaveGroupToStream(_out, document.Resolve(group));
    }
    ++part.groups;
    ++group;
  }
  part.text = _out.GetText();
  return group;
}

std::set<size_t> TextInParts::FindParts(const std::set<std::string>& groups) const {
  const auto isBefore = [](const std::string& name, const Part& part) { return name < part.first; };
  std::set<size_t> parts;
  for (const std::string& name : groups) {
    if (_pWalk && !_pWalk->Matches(name)) continue;
    const auto next = std::upper_bound(_parts.begin(), _parts.end(), name, isBefore);
    parts.insert(static_cast<size_t>(next - _parts.begin()) - 1);
  }
  return parts;
}

size_t TextInParts::CountGroups() const {
  size_t groups = 0;
  for (const Part& part : _parts) groups += part.groups;
  return groups;
}

size_t TextInParts::CountBytes() const {
  size_t bytes = 0;
  for (const Part& part : _parts) bytes += part.text.size();
  return bytes;
}

// A text that grew by doubling would be copied again and again, and take twice the memory in the end.
void TextInParts::MoveTo(core::StringOstream& out) {
  out.Reserve(out.GetText().size() + CountBytes() + kBytesBehind);
  for (Part& part : _parts) {
    out.Append(part.text);
    std::string().swap(part.text);
  }
  _parts.clear();
}

void TextInParts::MoveTo(std::ostream& out) {
  if (auto* const text = dynamic_cast<core::StringOstream*>(&out)) return MoveTo(*text);
  for (Part& part : _parts) {
    out.write(part.text.data(), static_cast<std::streamsize>(part.text.size()));
    std::string().swap(part.text);
  }
  _parts.clear();
}

}  // namespace tavix::settings::server
