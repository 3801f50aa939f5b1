#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>

#include "tavix/osa/Export.h"

namespace tavix::core {

// The types of IniFile, which stands on what is declared here.
using SettingsKeys = std::map<std::string, std::string>;
using SettingsGroups = std::map<std::string, SettingsKeys>;

// Reads settings text into groups of its own. The grammar is docs/settings-text.md.
//
// Threads: one at a time.
// Errors:  osa::Exception for a line that is no settings text.
class SettingsTextReader {
 public:
  // Whether a group of that name is kept.
  using GroupFilter = std::function<bool(std::string_view name)>;

  // source: what error texts call the text. isWanted: the groups that are kept; of others only errors are found. null:
  // all are kept. Both outlive the reader.
  explicit SettingsTextReader(const std::string& source, const GroupFilter* isWanted = nullptr)
      : _source(source), _isWanted(isWanted) {}

  // Lines that follow one another; the last one may lack its line feed.
  void ReadLines(const char* begin, const char* end);

  // Lines until the stream ends. No more is taken from the stream than its buffer holds when it is filled: a view that
  // is filled line by line stands right behind the line that is no settings text.
  void ReadStream(std::istream& in);

  // What was read since the last such call, moved out. The next line that is neither blank nor a comment has to be a
  // header.
  SettingsGroups TakeGroups();

 private:
  void ReadLine(const char* begin, const char* end, bool hasEscapes);
  void ReadHeader(const char* begin, const char* end, bool hasEscapes);
  void ReadSetting(const char* begin, const char* end, bool hasEscapes);
  void OpenGroup(std::string_view name);
  void SetValue(std::string_view key, std::string_view value);
  [[noreturn]] void Fail(const char* expected, const char* begin, const char* end) const;

  const std::string& _source;
  const GroupFilter* const _isWanted;
  size_t _lineNumber = 0;
  SettingsGroups _groups;
  bool _hasGroup = false;         // a group is open
  SettingsKeys* _open = nullptr;  // its keys, in _groups; null: it is not kept
};

// Writes settings text to a stream, through a small buffer of its own.
//
// Threads: one at a time.
class SettingsTextWriter {
 public:
  explicit SettingsTextWriter(std::ostream& out) : _out(out) {}

  // Flushes what was not; a stream's exception ends here.
  ~SettingsTextWriter();

  SettingsTextWriter(const SettingsTextWriter&) = delete;
  SettingsTextWriter& operator=(const SettingsTextWriter&) = delete;

  void WriteGroup(const std::string& name, const SettingsKeys& keys);

  // Passes on what the buffer holds. Throws when the stream was set to throw.
  void Flush();

 private:
  enum class Place { kName, kKey, kValue };

  void WriteText(const std::string& text, Place place);
  void WriteEscaped(const std::string& text, Place place);
  void Append(const char* bytes, size_t count);
  void Append(char byte);

  std::ostream& _out;
  size_t _used = 0;
  char _buffer[2048];
};

// Makes text fit for a message: control bytes as \xHH, cut after "max" bytes.
TAVIX_DAEMON_EXPORT std::string PrintableText(const std::string& text, size_t max);

}  // namespace tavix::core
