#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "programs/server/persistence/SnapshotId.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/server/LayerView.h"

namespace tavix::daemon {

// What one change made of the user layer: settings texts of the groups that are gone (headers only), and of those that
// are new or different, whole. A change that extends groups names in the first text those that are replaced, too; what
// else stands in the second is added to what its groups hold.
//
// What stands before the first text are comments: the entries of the history.
struct Change {
  std::string removed;
  std::string set;
  bool extends = false;
  std::string history = {};
};

// userSettings: after the change. added: what further groups have got, which are the same else.
Change DescribeChange(const settings::server::LayerView& userSettings, const std::set<std::string>& changedGroups,
                      const core::IniFile& added = {});

// Makes the change to a document. Throws osa::Exception for what is no settings text; the document is as it was then.
void ApplyChange(core::IniFile& document, std::string_view removed, std::string_view set, bool extends = false);

// Whether ApplyChange would make one.
bool MakesDifference(const core::IniFile& document, std::string_view removed, std::string_view set, bool extends);

// The bytes of a journal, docs/persistence.md: a header that says which snapshot it follows, then records. Each
// record's checksum covers the one before it, so that records count in their order only, and only in this journal.
constexpr size_t kJournalHeaderSize = 128;

// wholeFrom: where the records end that belong together, and count all or not at all beside another journal. extends:
// whether there are changes that extend groups. That makes a difference of one byte, which a journal can change later
// without a moment in which half of it is written.
std::string EncodeJournalHeader(const SnapshotId& follows, uint64_t wholeFrom, bool extends = false);
constexpr size_t kJournalVersionAt = 25;
constexpr char kExtendingVersion = '2';

// What the first record's checksum starts with.
uint32_t BeginJournalChecksum(const SnapshotId& follows);

// checksum: of what stands before; set to that of what is returned.
std::string EncodeRecord(const Change& change, uint32_t& checksum);

// A record of two texts that are not at hand as a whole. The line's checksum is that of the two texts, which starts
// with the one of BeginChecksum.
struct RecordLine {
  bool extends = false;
  size_t removed = 0;  // bytes
  size_t set = 0;

  uint64_t CountRecordBytes() const;
  uint32_t BeginChecksum(uint32_t before) const;
  std::string Encode(uint32_t checksum) const;
};

// Whether a header may begin so.
bool IsBeginOfJournal(std::string_view bytes);

// Walks through a journal until its end, or the first record that is torn, damaged or out of order.
//
// Threads: one.
class JournalReader {
 public:
  // bytes: outlive the reader.
  explicit JournalReader(std::string_view bytes);

  // Whether there is a header; nothing else may be asked otherwise.
  bool IsJournal() const { return _isJournal; }
  const SnapshotId& GetFollowed() const { return _follows; }
  uint64_t GetWholeFrom() const { return _wholeFrom; }
  bool HasExtendingVersion() const { return _hasExtendingVersion; }

  // The next record, its texts within the bytes. False at the end.
  bool Next();
  std::string_view GetRemoved() const { return _removed; }
  std::string_view GetSet() const { return _set; }
  bool Extends() const { return _extends; }

  // Behind the last good record.
  uint64_t GetEnd() const { return _end; }
  uint32_t GetChecksum() const { return _checksum; }

  // Whether something else than the zeros that were filled ahead stands there.
  bool HasMore() const;

  // How many bytes that are.
  size_t CountMore() const;

  // Where the first record behind the end begins that is whole, but does not count for what stands before it. npos:
  // there is none.
  size_t FindLater() const;

  // Whether the rest is damaged, rather than a change that was not finished when the power went: that leaves zeros, or
  // nothing, where it was not written.
  bool IsRotten() const;

 private:
  const std::string_view _bytes;
  bool _isJournal = false;
  SnapshotId _follows;
  uint64_t _wholeFrom = 0;
  bool _hasExtendingVersion = false;
  size_t _end = 0;
  uint32_t _checksum = 0;
  std::string_view _removed;
  std::string_view _set;
  bool _extends = false;
};

}  // namespace tavix::daemon
