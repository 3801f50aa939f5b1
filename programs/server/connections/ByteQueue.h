#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tavix::daemon {

// Bytes that come at one end and leave at the other. However many there are, adding some neither moves nor copies those
// before, and memory beyond the first 64 KiB goes back to the system at once when its bytes leave. (A string that grows
// copies everything each time that it doubles: a notice to many stalled subscribers, whose queues are equally long,
// would pay for all of them at once. And what many small allocations surround, the C library keeps.)
//
// Threads: one at a time.
// Errors:  std::bad_alloc, with the queue as it was but for whole blocks that were added.
class ByteQueue {
 public:
  size_t GetSize() const { return _size; }

  void Append(const char* bytes, size_t count);

  // The first bytes, as many as lie together; none when the queue is empty.
  std::string_view GetFront() const { return GetRun(0); }

  // The bytes from that one on, counted from the first, as many as lie together. offset: at most the size.
  std::string_view GetRun(size_t offset) const;

  // Drops that many of the first bytes, of those that GetFront shows at most.
  void Drop(size_t count);

  // Gives all memory back.
  void Clear();

 private:
  struct Unmap {
    void operator()(char* block) const;
  };
  using Block = std::unique_ptr<char, Unmap>;

  static Block MakeBlock();

  std::string _head;           // before the blocks; takes nothing more once there are some
  std::vector<Block> _blocks;  // full but for the last. An empty one takes no memory of its own
  size_t _dropped = 0;         // of the head, or else of the first block
  size_t _usedOfLast = 0;      // of the last block
  size_t _size = 0;
};

}  // namespace tavix::daemon
