#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"

// What the lists and payloads of requests may hold. A request that holds more throws osa::Exception, which ends its
// connection.
//
// Threads: one, which reads the request.
namespace tavix::settings::server {

// The max size of a list. 0: no limit.
struct ListBounds {
  size_t listed;
  size_t nameBytes;
};

void CheckCount(size_t count, size_t max, const char* what);
void CheckName(const std::string& name, size_t max);

// Whether the name can stand on a line of a list.
bool IsLine(const std::string& name);

bool IsPattern(const std::string& value);

// Of all groups and keys. A group whose name can't stand in a list could be announced to nobody.
void CheckNames(const core::IniFile& document, size_t maxBytes);

// Passes a list's values on to another iterator. Throws once there are too many, or one is too long, whatever follows.
template <class Target>
class CountingIterator {
 public:
  CountingIterator(Target target, const ListBounds& bounds) : _target(target), _bounds(bounds) {}

  CountingIterator& operator=(const std::string& value) {
    CheckName(value, _bounds.nameBytes);
    CheckCount(++_count, _bounds.listed, "names and patterns");
    *_target++ = value;
    return *this;
  }
  CountingIterator& operator*() { return *this; }
  CountingIterator& operator++() { return *this; }
  CountingIterator& operator++(int) { return *this; }

 private:
  Target _target;
  const ListBounds _bounds;
  size_t _count = 0;
};

// Keeps a list's values up to the limit, and counts the others, so that the list is read to its end in any case.
class BoundedSet {
 public:
  explicit BoundedSet(const ListBounds& bounds) : _bounds(bounds) {}

  // For readDelimitedValues, by reference.
  struct Iterator {
    Iterator& operator=(const std::string& value) {
      set->Add(value);
      return *this;
    }
    Iterator& operator*() { return *this; }
    Iterator& operator++(int) { return *this; }

    BoundedSet* set;
  };

  Iterator GetIterator() { return {this}; }
  bool IsTooLong() const { return _count > _bounds.listed && _bounds.listed > 0; }
  const std::set<std::string>& GetValues() const { return _values; }

 private:
  void Add(const std::string& value);

  const ListBounds _bounds;
  std::set<std::string> _values;
  size_t _count = 0;
};

}  // namespace tavix::settings::server
