#include "programs/common/client/JsonParser.h"

#include <algorithm>
#include <iterator>

namespace tavix::programs {

namespace {

// A place in a text that keeps account of how far the parser has read. A type of this file alone: of one that others
// could have, too, the compiler keeps readers of binary forms that nobody needs.
class Cursor {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  // read: outlives this.
  Cursor(const char* at, const char*& read) : _at(at), _read(&read) {}

  reference operator*() const { return *_at; }
  bool operator==(const Cursor& other) const { return _at == other._at; }
  bool operator!=(const Cursor& other) const { return _at != other._at; }

  Cursor& operator++() {
    *_read = ++_at;
    return *this;
  }

  Cursor operator++(int) {
    const Cursor before = *this;
    ++*this;
    return before;
  }

 private:
  const char* _at;
  const char** _read;
};

}  // namespace

// What the parser says is wrong, without the name and the number that it gives such errors.
bool JsonTaker::parse_error(size_t, const std::string&, const nlohmann::detail::exception& error) {
  const std::string reason = error.what();
  OnBadText(reason.substr(reason.find("] ") + 2));
  return false;
}

// The parser has read one character beyond what it reports.
size_t JsonTaker::GetLine() const {
  const char* const end = _read == _begin ? _begin : _read - 1;
  return 1 + static_cast<size_t>(std::count(_begin, end, '\n'));
}

bool ParseJson(std::string_view text, JsonTaker& taker) {
  const char* const end = text.data() + text.size();
  taker._begin = text.data();
  taker._read = text.data();
  return nlohmann::json::sax_parse(Cursor(text.data(), taker._read), Cursor(end, taker._read), &taker);
}

}  // namespace tavix::programs
