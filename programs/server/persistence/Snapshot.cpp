#include "programs/server/persistence/Snapshot.h"

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <exception>

#include "programs/server/persistence/Checksum.h"
#include "programs/server/persistence/LongLine.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::daemon {

using settings::server::GroupDiscriminator;

namespace {

constexpr std::string_view kFirstLine =
    "# User settings, kept by tavix-settings-server. Stop it before you edit them; keep this line and the last.\n";
constexpr char kRevision[] = "# Revision %" SCNu64 "%c";
constexpr std::string_view kLastLine = "# End of user settings: ";

struct LastLine {
  SnapshotEnd end;
  uint32_t checksum = 0;
  bool found = false;
  bool isLast = false;
  bool matches = false;
};

// Where the last line that begins like ours begins. Another's text may have to be gone through to its begin.
size_t FindBeginOfLastLine(std::string_view text) {
  for (size_t end = text.size(); const void* found = memrchr(text.data(), kLastLine.front(), end);) {
    const auto begin = static_cast<size_t>(static_cast<const char*>(found) - text.data());
    const bool beginsLine = begin == 0 || text[begin - 1] == '\n';
    if (beginsLine && text.compare(begin, kLastLine.size(), kLastLine) == 0) return begin;
    end = begin;
  }
  return std::string_view::npos;
}

// The checksum covers the last line up to itself.
LastLine FindLastLine(std::string_view text) {
  LastLine line;
  const size_t begin = FindBeginOfLastLine(text);
  if (begin == std::string_view::npos) return line;
  const size_t feed = text.find('\n', begin);
  const std::string fields(text.substr(begin + kLastLine.size(), feed - begin - kLastLine.size()));
  int beforeChecksum = 0;
  int size = -1;
  line.found = std::sscanf(fields.c_str(),
                           "generation %" SCNu64 ", journal %" SCNu64 " to %" SCNu64 ", written %" SCNd64
                           ", crc32 %n%" SCNx32 "%n",
                           &line.end.generation, &line.end.journalFollows, &line.end.journalEnd, &line.end.written,
                           &beforeChecksum, &line.checksum, &size) == 5 &&
               line.end.generation > 0;
  line.isLast = line.found && feed + 1 == text.size() && size == static_cast<int>(fields.size());
  const size_t covered = begin + kLastLine.size() + static_cast<size_t>(beforeChecksum);
  line.matches = line.isLast && Checksum(text.substr(0, covered)) == line.checksum;
  return line;
}

bool IsBeginOfOurs(std::string_view text) {
  return text.substr(0, kFirstLine.size()) == kFirstLine.substr(0, text.size());
}

bool IsZeroInside(std::string_view text) {
  return text.find('\0') != std::string_view::npos;
}

// Whether a line begins so.
bool HasLine(std::string_view text, std::string_view begin) {
  for (size_t at = text.find(begin); at != std::string_view::npos; at = text.find(begin, at + 1)) {
    if (at == 0 || text[at - 1] == '\n') return true;
  }
  return false;
}

// A walk over the names of a large document would take longer. A name may be spelled with escapes.
bool MayHaveRestricted(const std::string& text) {
  return GroupDiscriminator::IsRestrictedGroup(text) || text.find('\\') != std::string::npos;
}

// Behind the first line.
std::optional<uint64_t> FindRevision(std::string_view text) {
  constexpr size_t kMaxBytes = 64;
  if (text.substr(0, kFirstLine.size()) != kFirstLine) return std::nullopt;
  const std::string line(text.substr(kFirstLine.size(), kMaxBytes));
  uint64_t revision = 0;
  char feed = 0;
  if (std::sscanf(line.c_str(), kRevision, &revision, &feed) != 2 || feed != '\n') return std::nullopt;
  return revision;
}

// Behind the line with the revision.
std::string_view FindEntries(std::string_view text) {
  const size_t begin = text.find('\n', kFirstLine.size()) + 1;
  size_t end = begin;
  while (end < text.size() && text[end] == '#' && text.compare(end, kLastLine.size(), kLastLine) != 0) {
    const size_t feed = text.find('\n', end);
    end = feed == std::string_view::npos ? text.size() : feed + 1;
  }
  return text.substr(begin, end - begin);
}

bool Parse(const std::string& path, const FileContent& content, Snapshot& snapshot) {
  try {
    snapshot.settings.LoadFromMemory(content.bytes, path);
    return true;
  } catch (const std::exception& exception) {
    snapshot.problem = exception.what();
    return false;
  }
}

// Empty: it may be read, if it parses.
std::string FindDamage(const FileContent& content, const LastLine& line) {
  if (!content.problem.empty()) return content.problem;
  if (line.matches) return "";
  // Settings text spells a zero byte as an escape: zeros are left where a file system lost what was written.
  if (IsZeroInside(content.bytes)) return "it holds zeros";
  if (!line.found) return IsBeginOfOurs(content.bytes) && !content.bytes.empty() ? "it has no last line" : "";
  // An editor changes the time, too. What differs under the old time has rotted.
  return content.modificationTime == line.end.written ? "its checksum is wrong" : "";
}

}  // namespace

void BeginSnapshot(core::StringOstream& text) {
  text << kFirstLine;
}

void WriteRevision(core::StringOstream& text, uint64_t revision) {
  text << "# Revision " << std::to_string(revision) << "\n";
}

SnapshotId EndSnapshot(core::StringOstream& text, const SnapshotEnd& end) {
  char line[200];
  std::snprintf(line, sizeof line,
                "generation %" PRIu64 ", journal %" PRIu64 " to %" PRIu64 ", written %" PRId64 ", crc32 ",
                end.generation, end.journalFollows, end.journalEnd, end.written);
  text << kLastLine << line;
  const uint32_t checksum = Checksum(text.GetText());
  std::snprintf(line, sizeof line, "%08" PRIx32 "\n", checksum);
  text << line;
  return {end.generation, checksum};
}

bool IsWholeSnapshot(std::string_view text) {
  return FindLastLine(text).matches;
}

int64_t GetTimeOfSnapshot() {
  constexpr int64_t kCoarsest = int64_t{2} * 1000 * 1000 * 1000;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const int64_t nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
  return nanoseconds - nanoseconds % kCoarsest;
}

Snapshot ReadSnapshot(const std::string& path, const FileContent& content) {
  Snapshot snapshot;
  if (!content.exists) return snapshot;
  const LastLine line = FindLastLine(content.bytes);
  snapshot.end = line.end;
  snapshot.checksum = line.checksum;
  snapshot.bytes = content.bytes.size();
  snapshot.hasLongLine = HasLongLine(content.bytes);
  snapshot.mayHaveRestricted = MayHaveRestricted(content.bytes);
  snapshot.revision = FindRevision(content.bytes);
  if (snapshot.revision) snapshot.entries = FindEntries(content.bytes);
  snapshot.problem = FindDamage(content, line);
  if (!snapshot.problem.empty()) snapshot.problem = "'" + path + "': " + snapshot.problem;
  if (!snapshot.problem.empty() || !Parse(path, content, snapshot)) {
    snapshot.state = Snapshot::State::kDamaged;
  } else if (line.matches) {
    snapshot.state = Snapshot::State::kIntact;
  } else {
    snapshot.state = line.found ? Snapshot::State::kEdited : Snapshot::State::kForeign;
  }
  return snapshot;
}

bool HoldsNothing(std::string_view bytes) {
  return bytes.find_first_not_of('\0') == std::string_view::npos;
}

bool ForeignLook::Add(std::string_view lines) {
  _holdsNothing = _holdsNothing && HoldsNothing(lines);
  _isOurs = _isOurs || HasLine(lines, kFirstLine) || HasLine(lines, kLastLine);
  if (_isOurs || !_problem.empty()) return !_isOurs;
  try {
    _check.ReadLines(lines);
  } catch (const osa::Exception& exception) {
    _problem = exception.what();
  }
  return true;
}

std::string ForeignLook::GetReason(const FileContent& content) const {
  if (content.error != 0 || _holdsNothing || _isOurs) return "";
  return content.problem.empty() ? _problem : content.problem;
}

}  // namespace tavix::daemon
