#pragma once

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "programs/server/connections/ByteQueue.h"
#include "programs/server/connections/SharedBound.h"

namespace tavix::daemon {

// The bytes that wait to be sent to one peer: some of its own, and texts that it shares with other queues, in the order
// in which they came. A shared text costs each of its queues a reference. Its memory goes back when the last queue has
// dropped its last byte.
//
// Threads: one at a time.
// Errors:  std::bad_alloc, after which the queue is only to be cleared.
class KeptOutput {
 public:
  using Text = std::shared_ptr<const std::string>;
  using Pieces = std::array<iovec, 64>;

  // A shared rest that is shorter is copied: a reference to it would hardly cost less.
  static constexpr size_t kMinShared = 256;

  // part: counts what is kept; outlives the queue.
  explicit KeptOutput(SharedBound::Part& part) : _part(part) {}

  size_t GetSize() const { return _size; }

  void Append(std::string_view bytes);

  // The text without its first "begin" bytes. It is shared as long as it waits.
  void Append(const Text& text, size_t begin);

  // The first bytes where they lie, "limit" of them at most. Returns how many pieces that are; 0 when it is empty.
  size_t GetFront(Pieces& pieces, size_t limit) const;

  // Drops that many of the first bytes.
  void Drop(size_t count);

  // Gives all memory back.
  void Clear();

 private:
  struct Reference {
    size_t ownBefore;  // own bytes between the reference before and this one
    Text text;
  };
  using References = std::deque<Reference>;

  void CountOwn();
  void CountTexts();
  void DropOwn(size_t count);
  size_t DropShared(size_t count);

  SharedBound::Part& _part;
  ByteQueue _own;
  std::unique_ptr<References> _references;  // null when there are none: an idle queue is small
  size_t _counted = 0;                      // of the references, from the first one: the part knows them
  size_t _uncountedBytes = 0;               // of the others
  size_t _begin = 0;                        // of the first reference's text: what comes before has left
  size_t _ownBehind = 0;                    // own bytes behind the last reference
  size_t _size = 0;
};

}  // namespace tavix::daemon
