#pragma once

#include <istream>
#include <locale>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

namespace tavix::core {

// Appends what is written to a string, which the owner may read and clear at any time. Keeps its memory for the next
// use, which makes it cheaper than a string stream.
class StringOstream : public std::ostream {
 public:
  StringOstream() : std::ostream(nullptr) {
    init(&_buffer);
    imbue(std::locale::classic());
  }

  const std::string& GetText() const { return _buffer.text; }

  // Forgets the text and any error; keeps "most" bytes of memory for the next one.
  void Reset(size_t most) {
    _buffer.text.clear();
    if (_buffer.text.capacity() > most) std::string().swap(_buffer.text);
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

// Reads bytes that somebody else keeps. Made once, it serves one text after the other.
class ViewIstream : public std::istream {
 public:
  ViewIstream() : std::istream(nullptr) {
    init(&_buffer);
    imbue(std::locale::classic());
  }

  // text: borrowed until the next call.
  void SetText(std::string_view text) {
    _buffer.SetText(text);
    clear();
  }

 private:
  struct Buffer : std::streambuf {
    // The get area is never written to; its type is that of all stream buffers.
    void SetText(std::string_view text) {
      char* begin = const_cast<char*>(text.data());
      setg(begin, begin, begin + text.size());
    }
  };

  Buffer _buffer;
};

}  // namespace tavix::core
