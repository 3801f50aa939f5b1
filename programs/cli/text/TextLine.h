#pragma once

#include <string>
#include <string_view>

namespace tavix::programs::cli {

// Walks over the lines of settings text (docs/settings-text.md), and says what each one is.
//
// Threads: one.
// Owns:    nothing of the text, which outlives this.
class TextLine {
 public:
  enum class Kind {
    kOther,    // blank, or a comment
    kHeader,   // opens a group
    kSetting,  // of the open group
    kWrong,    // no settings text
  };

  explicit TextLine(std::string_view text) : _rest(text) {}

  // Goes to the next line, at first to the first one; false when there is none.
  bool Next();

  size_t GetNumber() const { return _number; }  // from 0 on
  Kind GetKind() const { return _kind; }

  // As it stands there, without its line feed.
  std::string_view GetText() const { return _text; }

  // Whether there is a carriage return in front of its line feed.
  bool HasReturn() const { return !_text.empty() && _text.back() == '\r'; }

  // The open group.
  const std::string& GetGroup() const { return _group; }

  // Of a setting.
  std::string ReadKey() const;
  std::string ReadValue() const;

 private:
  void Judge(std::string_view content);

  std::string_view _rest;
  std::string_view _text;
  size_t _number = static_cast<size_t>(-1);
  Kind _kind = Kind::kOther;
  bool _hasGroup = false;
  std::string _group;
  std::string_view _key;  // as they are spelled
  std::string_view _value;
};

}  // namespace tavix::programs::cli
