#include "programs/server/persistence/TrialFile.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "programs/server/persistence/Checksum.h"
#include "programs/server/persistence/StartReads.h"

namespace tavix::daemon {

namespace {

constexpr char kHeader[] = "# trials of %016" PRIx64 " %08" PRIx32 ", %08zx ";
constexpr char kHeaderEnd[] = "%08" PRIx32 "\n";
constexpr size_t kHeaderSize = 57;
constexpr std::string_view kMark = "# trials of ";

std::string SpellHeader(const SnapshotId& snapshot, std::string_view lines) {
  char text[kHeaderSize + 1];
  const int begin = std::snprintf(text, sizeof text, kHeader, snapshot.generation, snapshot.checksum, lines.size());
  const size_t size = static_cast<size_t>(begin);
  std::snprintf(text + size, sizeof text - size, kHeaderEnd, Checksum(lines, Checksum({text, size})));
  return text;
}

}  // namespace

std::string TrialFile::Spell(const Section& section) {
  return section.lines.empty() ? "" : SpellHeader(section.snapshot, section.lines) + section.lines;
}

// Takes the next section. Empty: there is none, or it is damaged.
std::optional<TrialFile::Section> TrialFile::TakeSection(std::string_view& text) {
  const std::string header(text.substr(0, kHeaderSize));
  Section section;
  size_t size = 0;
  if (std::sscanf(header.c_str(), "# trials of %" SCNx64 " %" SCNx32 ", %zx", &section.snapshot.generation,
                  &section.snapshot.checksum, &size) != 3)
    return std::nullopt;
  if (text.size() - header.size() < size) return std::nullopt;
  section.lines = text.substr(header.size(), size);
  if (SpellHeader(section.snapshot, section.lines) != header) return std::nullopt;
  text.remove_prefix(header.size() + size);
  return section;
}

// A device boots with a file that nobody may read; it is another thing that the system has no descriptor for it.
FileContent TrialFile::Read() const {
  try {
    return ReadAtStart(_files, _path);
  } catch (const UserSettingsRefused& refused) {
    if (refused.GetReason() == UserSettingsRefused::Reason::kNoResources) throw;
    FileContent content;
    content.exists = true;
    content.problem = refused.what();
    return content;
  }
}

// What was never to take its place is forgotten.
std::string TrialFile::Load(const SnapshotId& snapshot, std::vector<std::string>& problems) {
  const FileContent content = Read();
  if (!content.exists) {
    _isKnown = true;
    return "";
  }
  std::string_view text = content.bytes;
  bool isDamaged = false;
  while (!text.empty()) {
    if (std::optional<Section> section = TakeSection(text)) {
      if (section->snapshot == snapshot) {
        _current = std::move(*section);
      } else if (section->snapshot.generation < snapshot.generation) {
        _earlier.push_back(std::move(*section));
      }
    } else {
      isDamaged = true;
      text.remove_prefix(std::min(text.find(kMark, 1), text.size()));
    }
  }
  if (!content.problem.empty()) {
    problems.push_back("What was on trial is not known: " + content.problem);
  } else if (isDamaged) {
    problems.push_back("'" + _path + "' is damaged: what was on trial may not be known");
  }
  return _current.lines;
}

void TrialFile::Write(const SnapshotId& next, std::string lines) {
  _next = {next, std::move(lines)};
  std::string text;
  for (const Section& section : _earlier) text += Spell(section);
  text += Spell(_current) + Spell(_next);
  if (_isKnown && text == _text) return;
  if (!text.empty()) {
    Replace(text);
  } else {
    RemoveQuietly(_files, _path);
  }
  _text = std::move(text);
  _isKnown = true;
}

void TrialFile::Replace(const std::string& text) {
  const std::string newPath = programs::NewFileOf(_path);
  _isKnown = false;
  try {
    const std::unique_ptr<File> file = _files.Create(newPath);
    file->Reserve(text.size());
    file->WriteAt(0, text);
    file->Sync();
    _files.Rename(newPath, _path);
  } catch (...) {
    RemoveQuietly(_files, newPath);
    throw;
  }
  _files.SyncDirectoryOf(_path);
}

void TrialFile::OnBackedUp() {
  _earlier.assign(1, _current);
}

void TrialFile::OnReplaced() {
  _current = std::move(_next);
}

}  // namespace tavix::daemon
