#pragma once

#include <istream>
#include <locale>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>

namespace tavix::core {

// For the constructors below. To set a stream's locale costs more than a short text, so the same one is not set again.
inline void SetUpMemoryStream(std::ios& stream, std::streambuf& buffer) {
  stream.rdbuf(&buffer);
  if (stream.getloc() != std::locale::classic()) stream.imbue(std::locale::classic());
}

// Appends what is written to a string, which the owner may read and clear at any time. Keeps its memory for the next
// use, which makes it cheaper than a string stream. When memory runs out, writing throws std::bad_alloc: other streams
// would only note it, and half a text would pass for a whole one.
//
// Threads: one at a time.
class StringOstream : public std::ostream {
 public:
  StringOstream() : std::ostream(nullptr) {
    SetUpMemoryStream(*this, _buffer);
    exceptions(std::ios::badbit);
  }

  const std::string& GetText() const { return _buffer.text; }

  // The text, moved out.
  std::string TakeText() { return std::move(_buffer.text); }

  // Write without looking at the stream's state, for less than "<<" takes.
  void Append(std::string_view text) { _buffer.text.append(text); }
  void AppendLine(std::string_view line) { _buffer.text.append(line).push_back('\n'); }

  // Asks for memory for a text of that length in advance.
  void Reserve(size_t bytes) { _buffer.text.reserve(bytes); }

  // Forgets the text and any error; keeps "max" bytes of memory for the next one.
  void Reset(size_t max) {
    _buffer.text.clear();
    if (_buffer.text.capacity() > max) std::string().swap(_buffer.text);
    clear();
  }

 private:
  struct Buffer : std::streambuf {
    int_type overflow(int_type character) override {
      if (!traits_type::eq_int_type(character, traits_type::eof()))
        text.push_back(traits_type::to_char_type(character));
      return traits_type::not_eof(character);
    }
    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
      text.append(bytes, static_cast<size_t>(count));
      return count;
    }
    std::string text;
  };

  Buffer _buffer;
};

// Counts the bytes that are written instead of keeping them.
class CountingOstream : public std::ostream {
 public:
  CountingOstream() : std::ostream(nullptr) { SetUpMemoryStream(*this, _buffer); }

  size_t GetCount() const { return _buffer.count; }

 private:
  struct Buffer : std::streambuf {
    int_type overflow(int_type character) override {
      ++count;
      return traits_type::not_eof(character);
    }
    std::streamsize xsputn(const char*, std::streamsize more) override {
      count += static_cast<size_t>(more);
      return more;
    }
    size_t count = 0;
  };

  Buffer _buffer;
};

// Reads bytes that somebody else keeps. Made once, it serves one text after the other. A reader that is given a view,
// and not just a stream, may look at the bytes where they are.
//
// Threads: one at a time.
class ViewIstream final : public std::istream {
 public:
  ViewIstream() : std::istream(nullptr) { SetUpMemoryStream(*this, _buffer); }

  // text: borrowed until the next call.
  void SetText(std::string_view text) {
    _buffer.SetText(text);
    clear();
  }

  // What was not read yet.
  std::string_view GetRest() const { return _buffer.GetRest(); }

  // Passes bytes of the rest, as if they had been read.
  void Skip(size_t count) { _buffer.Skip(count); }

  // As std::getline, down to the stream's state, but shows the line instead of copying it.
  bool TakeLine(std::string_view& line) {
    const std::string_view rest = GetRest();
    if (!good() || rest.empty()) {
      setstate(good() ? eofbit | failbit : failbit);
      return false;
    }
    const size_t feed = rest.find('\n');
    line = rest.substr(0, feed);
    Skip(line.size() + (feed == std::string_view::npos ? 0 : 1));
    if (feed == std::string_view::npos) setstate(eofbit);
    return true;
  }

 private:
  struct Buffer : std::streambuf {
    // The get area is never written to; its type is that of all stream buffers.
    void SetText(std::string_view text) {
      char* begin = const_cast<char*>(text.data());
      setg(begin, begin, begin + text.size());
    }
    std::string_view GetRest() const { return {gptr(), static_cast<size_t>(egptr() - gptr())}; }
    void Skip(size_t count) { setg(eback(), gptr() + count, egptr()); }
  };

  Buffer _buffer;
};

}  // namespace tavix::core
