#include "tavix/settings/common/TextCopy.h"

#include <algorithm>
#include <iterator>

namespace tavix::settings::common {

namespace {

constexpr PatternIndex::Id kIdsOfAPiece = 4096;

}  // namespace

void TextCopy::OnChanged(const std::vector<PatternIndex::Id>& texts) {
  _changed.insert(_changed.end(), texts.begin(), texts.end());
}

bool TextCopy::CopyPiece(const PatternIndex& index) {
  const PatternIndex::Id end = index.GetEndOfIds();
  const PatternIndex::Id pieceEnd = end - std::min(end, _next) > kIdsOfAPiece ? _next + kIdsOfAPiece : end;
  for (; _next < pieceEnd; ++_next) {
    if (index.IsUsed(_next)) _copied.emplace_back(_next, index.GetText(_next));
  }
  return _next < end;
}

void TextCopy::Finish(const PatternIndex& index) {
  std::sort(_changed.begin(), _changed.end());
  _changed.erase(std::unique(_changed.begin(), _changed.end()), _changed.end());
  for (const PatternIndex::Id id : _changed) {
    if (index.IsUsed(id)) _current.push_back(index.GetText(id));
  }
}

void TextCopy::MoveTo(std::set<std::string>& out) {
  RemoveChanged();
  std::vector<std::string> texts = std::move(_current);
  texts.reserve(texts.size() + _copied.size());
  for (Copied& copied : _copied) texts.push_back(std::move(copied.second));
  _copied.clear();
  std::sort(texts.begin(), texts.end());
  auto hint = out.begin();
  for (std::string& text : texts) hint = std::next(out.insert(hint, std::move(text)));
}

void TextCopy::RemoveChanged() {
  const auto isChanged = [&](const Copied& copied) {
    return std::binary_search(_changed.begin(), _changed.end(), copied.first);
  };
  _copied.erase(std::remove_if(_copied.begin(), _copied.end(), isChanged), _copied.end());
}

}  // namespace tavix::settings::common
