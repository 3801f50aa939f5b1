#include "programs/server/persistence/LayerText.h"

#include <algorithm>
#include <utility>

namespace tavix::daemon {

namespace {

constexpr int kMostRounds = 4;
constexpr size_t kFewParts = 4;

}  // namespace

void LayerText::Collect(const Reader& readLayer, const std::function<std::set<std::string>()>& takeChanged) {
  for (bool isLast = false; !isLast;) readLayer([&](const core::IniFile& layer) { isLast = !AddPart(layer); });
  for (int round = 0; round < kMostRounds; ++round) {
    const std::set<size_t> parts = FindParts(takeChanged());
    for (const size_t part : parts) readLayer([&](const core::IniFile& layer) { MakeAgain(layer, part); });
    if (parts.size() <= kFewParts) return;
  }
}

void LayerText::Update(const core::IniFile& layer, const std::set<std::string>& changedGroups) {
  for (const size_t part : FindParts(changedGroups)) MakeAgain(layer, part);
}

// False when it was the last.
bool LayerText::AddPart(const core::IniFile& layer) {
  _parts.push_back({_next, ""});
  _out.Reset(2 * _bytesOfAPart);
  auto group = layer.GetGroups().lower_bound(_next);
  for (; group != layer.GetGroups().end() && _out.GetText().size() < _bytesOfAPart; ++group)
    core::IniFile::SaveGroupToStream(_out, group);
  _parts.back().text = _out.GetText();
  if (group == layer.GetGroups().end()) return false;
  _next = group->first;
  return true;
}

std::set<size_t> LayerText::FindParts(const std::set<std::string>& groups) const {
  const auto isBefore = [](const std::string& name, const Part& part) { return name < part.first; };
  std::set<size_t> parts;
  for (const std::string& name : groups) {
    const auto next = std::upper_bound(_parts.begin(), _parts.end(), name, isBefore);
    parts.insert(static_cast<size_t>(next - _parts.begin()) - 1);
  }
  return parts;
}

void LayerText::MakeAgain(const core::IniFile& layer, size_t part) {
  const auto& groups = layer.GetGroups();
  const auto end = part + 1 < _parts.size() ? groups.lower_bound(_parts[part + 1].first) : groups.end();
  _out.Reset(2 * _bytesOfAPart);
  for (auto group = groups.lower_bound(_parts[part].first); group != end; ++group)
    core::IniFile::SaveGroupToStream(_out, group);
  _parts[part].text = _out.GetText();
}

size_t LayerText::CountBytes() const {
  size_t bytes = 0;
  for (const Part& part : _parts) bytes += part.text.size();
  return bytes;
}

void LayerText::MoveTo(core::StringOstream& out) {
  for (Part& part : _parts) {
    out.Append(part.text);
    std::string().swap(part.text);
  }
  _parts.clear();
}

}  // namespace tavix::daemon
