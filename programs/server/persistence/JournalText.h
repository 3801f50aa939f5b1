#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// What one change made of the user layer: settings texts of the groups that are gone (headers only), and of those that
// are new or different, whole.
struct Change {
  std::string removed;
  std::string set;
};

// userSettings: after the change.
Change DescribeChange(const core::IniFile& userSettings, const std::set<std::string>& changedGroups);

// Makes the change to a document. Throws osa::Exception for what is no settings text; the document is as it was then.
void ApplyChange(core::IniFile& document, std::string_view removed, std::string_view set);

// The bytes of a journal, docs/persistence.md: a header that says which snapshot it follows, then records. Each
// record's checksum covers the one before it, so that records count in their order only, and only in this journal.
constexpr size_t kJournalHeaderSize = 64;

// checksum: of what stands before; set to that of what is returned.
std::string EncodeJournalHeader(uint64_t follows, uint32_t& checksum);
std::string EncodeRecord(const Change& change, uint32_t& checksum);

// Walks through a journal until its end, or the first record that is torn, damaged or out of order.
class JournalReader {
 public:
  // bytes: outlive the reader.
  explicit JournalReader(std::string_view bytes);

  // Whether there is a header; nothing else may be asked otherwise.
  bool IsJournal() const { return _isJournal; }
  uint64_t GetFollowed() const { return _follows; }

  // The next record, its texts within the bytes. False at the end.
  bool Next();
  std::string_view GetRemoved() const { return _removed; }
  std::string_view GetSet() const { return _set; }

  // Behind the last good record.
  uint64_t GetEnd() const { return _end; }
  uint32_t GetChecksum() const { return _checksum; }

  // Whether something else than the zeros that were filled ahead stands there.
  bool HasMore() const;

 private:
  const std::string_view _bytes;
  bool _isJournal = false;
  uint64_t _follows = 0;
  uint64_t _end = 0;
  uint32_t _checksum = 0;
  std::string_view _removed;
  std::string_view _set;
};

}  // namespace tavix::daemon
