#include "programs/server/persistence/ChangeInParts.h"

#include <utility>

#include "tavix/core/MemoryStream.h"

namespace tavix::daemon {

using core::IniFile;

namespace {

constexpr size_t kBytesOfVisit = 64;  // that a group without text takes the time of

std::string TextOfDocument(const IniFile& document) {
  core::StringOstream out;
  document.SaveToStream(out);
  return out.GetText();
}

}  // namespace

void ChangeInParts::Add(ChangedGroups::Changes changes) {
  for (const ChangedGroups::Many& many : changes.many) _missing.insert(many->begin(), many->end());
  _missing.merge(changes.groups);
  for (const auto& group : changes.added) {
    if (_texts.count(group.first) != 0) _missing.insert(group.first);  // its text lacks what it got since
  }
  _added.MergeSettings(std::move(changes.added));
}

bool ChangeInParts::MakePart(const settings::server::LayerView& layer) {
  core::StringOstream out;
  for (size_t made = 0; !_missing.empty() && made < _bytesOfAPart; made += kBytesOfVisit + out.GetText().size()) {
    const auto name = _missing.begin();
    const auto group = layer.Find(*name);
    out.Reset(_bytesOfAPart);
    if (group) IniFile::SaveGroupToStream(out, *group);
    Text& known = _texts[*name];
    _bytes = _bytes - known.text.size() + out.GetText().size();
    known.isGone = !group;
    known.text = out.GetText();
    _missing.erase(name);
  }
  return !_missing.empty();
}

// As DescribeChange describes a change.
RecordLine ChangeInParts::Seal() {
  const IniFile extensions = FindExtensions();
  RecordLine line;
  line.extends = !extensions.IsEmpty();
  IniFile removed;
  for (const auto& [name, text] : _texts) {
    if (text.isGone || line.extends) removed[name];
  }
  _removed = TextOfDocument(removed);
  _extensions = TextOfDocument(extensions);
  line.removed = _history.size() + _removed.size();
  line.set = _bytes + _extensions.size();
  return line;
}

void ChangeInParts::WriteTexts(const std::function<void(std::string_view)>& write) const {
  write(_history);
  write(_removed);
  for (const auto& text : _texts) write(text.second.text);
  write(_extensions);
}

Change ChangeInParts::GetChange() const {
  Change change;
  change.extends = !_extensions.empty();
  change.history = _history;
  change.removed = _removed;
  for (const auto& text : _texts) change.set += text.second.text;
  change.set += _extensions;
  return change;
}

IniFile ChangeInParts::FindExtensions() const {
  IniFile extensions;
  for (auto group = _added.begin(); group != _added.end(); ++group) {
    if (_texts.count(group->first) == 0) extensions.MergeGroup(group);
  }
  return extensions;
}

ChangedGroups::Changes ChangeInParts::TakeBack() {
  ChangedGroups::Changes changes;
  changes.groups = std::move(_missing);
  for (const auto& text : _texts) changes.groups.insert(text.first);
  changes.added = std::move(_added);
  _texts.clear();
  _missing.clear();
  _added.Clear();
  _bytes = 0;
  return changes;
}

}  // namespace tavix::daemon
