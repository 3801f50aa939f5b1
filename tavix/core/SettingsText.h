#pragma once

#include <iosfwd>
#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::core {

// Reads settings text, line by line, into a document of its own. The grammar is docs/settings-text.md.
class SettingsTextReader {
 public:
  // source: what error texts call the text.
  explicit SettingsTextReader(const std::string& source) : _source(source) {}

  // One line without its line feed. Throws osa::Exception for a line that is no settings text.
  void ReadLine(const char* begin, const char* end);

  // What was read so far, moved out: the reader is done with it.
  IniFile TakeDocument() { return IniFile(std::move(_groups)); }

 private:
  void ReadHeader(const char* begin, const char* end);
  void ReadSetting(const char* begin, const char* end);
  [[noreturn]] void Fail(const char* expected, const char* begin, const char* end) const;

  const std::string& _source;
  size_t _lineNumber = 0;
  IniFile::GroupMap _groups;
  IniFile::KeyMap* _open = nullptr;  // the keys of the group that is open, in _groups
};

// Writes settings text to a stream, through a small buffer of its own that the destructor passes on.
class SettingsTextWriter {
 public:
  explicit SettingsTextWriter(std::ostream& out) : _out(out) {}
  ~SettingsTextWriter();

  SettingsTextWriter(const SettingsTextWriter&) = delete;
  SettingsTextWriter& operator=(const SettingsTextWriter&) = delete;

  void WriteGroup(const std::string& name, const IniFile::KeyMap& keys);

 private:
  enum class Place { kName, kKey, kValue };

  void WriteText(const std::string& text, Place place);
  void WriteEscaped(const std::string& text, Place place);
  void Append(const char* bytes, size_t count);
  void Append(char byte);
  void Flush();

  std::ostream& _out;
  size_t _used = 0;
  char _buffer[2048];
};

// Makes text fit for a message: control bytes as \xHH, cut after "most" bytes.
std::string PrintableText(const std::string& text, size_t most);

}  // namespace tavix::core
