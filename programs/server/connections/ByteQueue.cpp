#include "programs/server/connections/ByteQueue.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace tavix::daemon {

namespace {

constexpr size_t kMaxHead = 64 * 1024;
constexpr size_t kBlock = 256 * 1024;
constexpr size_t kKeptMemory = 4 * 1024;  // an empty queue keeps no more than this

}  // namespace

void ByteQueue::Unmap::operator()(char* block) const {
  munmap(block, kBlock);
}

ByteQueue::Block ByteQueue::MakeBlock() {
  void* memory = mmap(nullptr, kBlock, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  return Block(static_cast<char*>(memory));
}

void ByteQueue::Append(const char* bytes, size_t count) {
  if (_blocks.empty() && _head.size() + count <= kMaxHead) {
    _head.append(bytes, count);
    _size += count;
    return;
  }
  while (count > 0) {
    if (_blocks.empty() || _usedOfLast == kBlock) {
      _blocks.push_back(MakeBlock());
      _usedOfLast = 0;
    }
    const size_t part = std::min(count, kBlock - _usedOfLast);
    std::memcpy(_blocks.back().get() + _usedOfLast, bytes, part);
    _usedOfLast += part;
    _size += part;
    bytes += part;
    count -= part;
  }
}

std::string_view ByteQueue::GetRun(size_t offset) const {
  size_t at = _dropped + offset;
  if (at < _head.size()) return std::string_view(_head).substr(at);
  at -= _head.size();
  const size_t block = at / kBlock;
  if (block >= _blocks.size()) return std::string_view();
  const size_t used = block + 1 == _blocks.size() ? _usedOfLast : kBlock;
  return std::string_view(_blocks[block].get() + at % kBlock, used - at % kBlock);
}

void ByteQueue::Drop(size_t count) {
  const bool isRunDropped = count == GetFront().size();
  _dropped += count;
  _size -= count;
  if (!isRunDropped) return;
  _dropped = 0;
  if (_head.empty()) {
    if (!_blocks.empty()) _blocks.erase(_blocks.begin());
    return;
  }
  _head.clear();
  if (_head.capacity() > kKeptMemory) std::string().swap(_head);
}

void ByteQueue::Clear() {
  std::string().swap(_head);
  std::vector<Block>().swap(_blocks);
  _dropped = _usedOfLast = _size = 0;
}

}  // namespace tavix::daemon
