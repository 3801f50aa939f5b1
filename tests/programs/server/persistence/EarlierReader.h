#pragma once

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tavix/core/IniFile.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

// The user settings as a daemon finds them that knows neither history nor trials: by the rules of docs/persistence.md,
// and by nothing of what today's daemon reads them with, but for the settings text. Comments are skipped.
class EarlierReader {
 public:
  // Throws std::runtime_error for what such a daemon would take for damaged.
  explicit EarlierReader(const MemoryFiles& files) {
    ReadSnapshot(files.Get(kUserFile));
    const std::string path = kUserFile;
    const std::string next = files.Get(path + ".journal.new");
    if (!next.empty() && ReadJournal(next, true)) return;
    const std::string journal = files.Get(path + ".journal");
    if (!journal.empty()) ReadJournal(journal, false);
  }

  const core::IniFile& GetSettings() const { return _settings; }
  size_t CountRecords() const { return _records; }

 private:
  static constexpr size_t kHeaderBytes = 128;
  static constexpr size_t kLineBytes = 36;

  // ISO 3309, bit by bit.
  static uint32_t Checksum(std::string_view bytes, uint32_t start = 0) {
    uint32_t crc = ~start;
    for (const char byte : bytes) {
      crc ^= static_cast<unsigned char>(byte);
      for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (crc % 2 != 0 ? 0xEDB88320u : 0);
    }
    return ~crc;
  }

  static core::IniFile Parse(std::string_view text) {
    core::IniFile document;
    document.LoadFromMemory(text, "text");
    return document;
  }

  void ReadSnapshot(const std::string& text) {
    const std::string mark = "\n# End of user settings: generation ";
    const size_t line = text.rfind(mark);
    if (line == std::string::npos) throw std::runtime_error("The snapshot has no last line");
    int64_t written = 0;
    int covered = 0;
    const int read =
        std::sscanf(text.c_str() + line + mark.size(),
                    "%" SCNu64 ", journal %" SCNu64 " to %" SCNu64 ", written %" SCNd64 ", crc32 %n%" SCNx32 "\n",
                    &_generation, &_journalFollows, &_journalEnd, &written, &covered, &_checksum);
    if (read != 5) throw std::runtime_error("The snapshot's last line is another one");
    const size_t end = line + mark.size() + static_cast<size_t>(covered);
    if (Checksum(std::string_view(text).substr(0, end)) != _checksum)
      throw std::runtime_error("The snapshot's checksum is wrong");
    _settings = Parse(text);
  }

  // False: it does not belong to the snapshot, or is not whole so far that it counts.
  bool ReadJournal(const std::string& text, bool isNew) {
    uint64_t generation = 0;
    uint32_t checksum = 0;
    uint64_t wholeFrom = 0;
    char version = 0;
    const char* const format = "# tavix-settings journal %c, follows %" SCNx64 " %" SCNx32 ", whole from %" SCNx64;
    if (std::sscanf(text.c_str(), format, &version, &generation, &checksum, &wholeFrom) != 4) return false;
    const bool isOwn = generation == _generation && checksum == _checksum;
    if (!isOwn && generation != _journalFollows) return false;
    std::string begin = text.substr(0, text.find(", whole"));
    begin[begin.find(',') - 1] = '1';
    const core::IniFile before = _settings;
    const uint64_t end = ReadRecords(text, Checksum(begin), isOwn ? kHeaderBytes : _journalEnd);
    const bool counts = !isNew || (end >= wholeFrom && end > kHeaderBytes);
    if (!counts) _settings = before;
    return counts;
  }

  // Returns where the last good record ends. from: the changes before are in the snapshot.
  uint64_t ReadRecords(const std::string& text, uint32_t checksum, uint64_t from) {
    size_t at = kHeaderBytes;
    while (at + kLineBytes <= text.size()) {
      char kind[7] = "";
      size_t removed = 0;
      size_t set = 0;
      uint32_t own = 0;
      const std::string line = text.substr(at, kLineBytes);
      if (std::sscanf(line.c_str(), "# %6s %zx %zx %" SCNx32 "\n", kind, &removed, &set, &own) != 4) break;
      const std::string_view texts = std::string_view(text).substr(at + kLineBytes, removed + set);
      const uint32_t behindLine = Checksum(line.substr(0, kLineBytes - 9), checksum);
      if (texts.size() < removed + set || Checksum(texts, behindLine) != own) break;
      if (at >= from) Apply(texts.substr(0, removed), texts.substr(removed), std::string(kind) == "extend");
      checksum = own;
      at += kLineBytes + removed + set;
    }
    if (text.find_first_not_of('\0', at) != std::string::npos) throw std::runtime_error("The journal is damaged");
    return at;
  }

  void Apply(std::string_view removed, std::string_view set, bool extends) {
    const core::IniFile changed = Parse(set);
    for (const auto& group : Parse(removed)) _settings.RemoveGroup(group.first);
    for (auto group = changed.begin(); !extends && group != changed.end(); ++group) _settings.RemoveGroup(group->first);
    _settings.MergeSettings(changed);
    ++_records;
  }

  core::IniFile _settings;
  uint64_t _generation = 0;
  uint64_t _journalFollows = 0;
  uint64_t _journalEnd = 0;
  uint32_t _checksum = 0;
  size_t _records = 0;
};

}  // namespace tavix::test
