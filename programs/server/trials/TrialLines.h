#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tavix::daemon {

// The lines about trials that the journals lack, oldest first. What a change's own record does not take along is taken
// by a later record of the same journal.
//
// In order: lines are added. BeginSnapshot is a snapshot's moment: from there on the next journal takes lines, too, and
// becomes the journal with Follow; FailSnapshot, in its place, says that there is no next one.
//
// Threads: one at a time.
// Errors:  std::bad_alloc from Reserve, which has changed nothing then.
class TrialLines {
 public:
  // Asks for the memory of so many bytes that will be added.
  void Reserve(size_t bytes) { _text.reserve(_text.size() + bytes); }
  void AddReserved(std::string_view lines) noexcept { _text += lines; }

  // Takes back what was added last, which no journal has.
  void DropLast(size_t bytes) noexcept;

  // The lines that the journal lacks, and that it has them now.
  std::string_view GetUnjournaled() const { return std::string_view(_text).substr(_journaled); }
  void OnJournaled();

  void BeginSnapshot();
  void FailSnapshot();

  // No journal will take any of them: while no snapshot is made, the next one has all.
  void DropAll() noexcept;

  // As for the journal.
  std::string_view GetUnjournaledByNext() const { return std::string_view(_text).substr(_nextJournaled); }
  void OnNextJournaled();
  void Follow();

 private:
  void Drop();

  std::string _text;
  size_t _journaled = 0;      // how much of it the journal has
  size_t _nextJournaled = 0;  // and how much the snapshot, or the next journal
  bool _hasNext = false;
};

}  // namespace tavix::daemon
