#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

namespace tavix::settings::common {

// A hash table whose items have numbers: small ones, which stay until the item is removed and are used again
// afterwards. An item has the members "hash" and "next", which the table sets, and as a new one holds no memory.
//
// Threads: as a standard container.
template <class Item>
class NumberedTable {
 public:
  using Number = uint32_t;
  static constexpr Number kNone = UINT32_MAX;

  // The item with that hash of which "isIt" is true, or kNone.
  template <class IsIt>
  Number Find(uint64_t hash, IsIt isIt) const {
    if (_heads.empty()) return kNone;
    for (Number number = HeadOf(hash); number != kNone; number = _items[number].next) {
      if (_items[number].hash == hash && isIt(_items[number])) return number;
    }
    return kNone;
  }

  Number Add(uint64_t hash, Item item) {
    if (_size >= _heads.size()) Grow();
    if (_free == kNone) {
      _items.emplace_back();
      _items.back().next = kNone;
      _free = static_cast<Number>(_items.size() - 1);
    }
    const Number number = _free;
    _free = _items[number].next;
    _items[number] = std::move(item);
    _items[number].hash = hash;
    Link(number);
    ++_size;
    return number;
  }

  void Remove(Number number) {
    Number* link = &HeadOf(_items[number].hash);
    while (*link != number) link = &_items[*link].next;
    *link = _items[number].next;
    _items[number] = Item();
    _items[number].next = _free;
    _free = number;
    --_size;
  }

  Item& operator[](Number number) { return _items[number]; }
  const Item& operator[](Number number) const { return _items[number]; }

  size_t GetSize() const { return _size; }

  // All numbers are below it. An item that was removed is as a new one.
  Number GetEnd() const { return static_cast<Number>(_items.size()); }

 private:
  Number& HeadOf(uint64_t hash) { return _heads[static_cast<size_t>(hash) & (_heads.size() - 1)]; }
  Number HeadOf(uint64_t hash) const { return _heads[static_cast<size_t>(hash) & (_heads.size() - 1)]; }

  void Link(Number number) {
    Number& head = HeadOf(_items[number].hash);
    _items[number].next = head;
    head = number;
  }

  void Grow() {
    constexpr size_t kFirst = 8;
    std::vector<Number> old(_heads.empty() ? kFirst : 2 * _heads.size(), Number{kNone});
    _heads.swap(old);
    for (Number number : old) {
      while (number != kNone) {
        const Number next = _items[number].next;
        Link(number);
        number = next;
      }
    }
  }

  std::deque<Item> _items;     // by number
  std::vector<Number> _heads;  // of chains of items; a power of two of them
  Number _free = kNone;        // the chain of numbers without an item
  size_t _size = 0;
};

}  // namespace tavix::settings::common
