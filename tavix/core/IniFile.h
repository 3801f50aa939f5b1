#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "tavix/osa/Export.h"

namespace tavix::core {

class ViewIstream;

// A settings document: groups of keys with values, all of them byte strings, in ascending byte order. A plain value.
// A setting is missing when its group, or its key in the group, does not exist. An empty name, key or value is legal.
//
// Text form: docs/settings-text.md. Every document survives being saved and loaded.
// Threads:   as a standard container: many readers or one writer. Where there are two processors, files and texts
//            in memory of 4 MiB or more are read, and 10,000 groups or more are copied, by the caller's thread and one
//            more.
// Errors:    osa::Exception that names the source, the line and what stands there. A load that fails changes nothing.
// Methods:   many, as documents are what everything here is made of; all are a few lines over one map.
class TAVIX_EXPORT IniFile {
 public:
  using KeyMap = std::map<std::string, std::string>;
  using GroupMap = std::map<std::string, KeyMap>;
  using iterator = GroupMap::iterator;
  using const_iterator = GroupMap::const_iterator;

  IniFile() = default;

  explicit IniFile(GroupMap groups) : _groups(std::move(groups)) {}

  // Whether a group of that name is wanted. Called on two threads at once for large texts.
  using GroupFilter = std::function<bool(std::string_view name)>;

  // Loads the file at "path", as Load.
  explicit IniFile(const char* path);

  // Add what they read to the document; a key that exists gets the new value.
  void Load(const char* path);
  void LoadFromString(const std::string& text);

  // Adds the wanted groups of the file alone, at a small part of the cost of all. Errors are found in all of it.
  void LoadGroups(const char* path, const GroupFilter& isWanted);

  // source: what error texts call the text.
  void LoadFromMemory(std::string_view text, const std::string& source);

  // Reads until the stream ends. source: what error texts call the stream.
  void LoadFromStream(std::istream& in);
  void LoadFromStream(std::istream& in, const std::string& source);

  // The same from bytes where they lie.
  void LoadFromStream(ViewIstream& in);

  // Write settings text whose every line ends with a line feed and is never "." alone. Texts written one after the
  // other read back as one document. A missing group writes nothing. The stream's state shows failures.
  void SaveToStream(std::ostream& out) const;
  void SaveGroupToStream(std::ostream& out, const std::string& group) const;
  static void SaveGroupToStream(std::ostream& out, const_iterator group);

  // The stored value; a missing setting throws.
  const std::string& GetValue(const std::string& group, const std::string& key) const;

  // The stored value, or an empty string.
  const std::string& GetValueOrDefault(const std::string& group, const std::string& key) const;

  // A decimal number with an optional sign, blanks around it allowed. Missing, not a number or out of range: "def".
  int GetIntOrDefault(const std::string& group, const std::string& key, int def) const;

  // true, yes, on, 1 or false, no, off, 0, in any case. Missing or anything else: "def".
  bool GetBoolOrDefault(const std::string& group, const std::string& key, bool def) const;

  // Create group and key as needed.
  void SetValue(const std::string& group, const std::string& key, const std::string& value);
  void SetInt(const std::string& group, const std::string& key, int value);

  bool HasGroup(const std::string& group) const;
  bool HasValue(const std::string& group, const std::string& key) const;

  // A missing group is no error.
  void RemoveGroup(const std::string& group);

  // Other iterators stay valid.
  void RemoveGroup(const iterator& group);

  // Sets here every value of "src"; removes nothing. A group of "src" without keys is created.
  void MergeSettings(const IniFile& src);

  // The same, moving what it can: "src" is empty afterwards. No text is copied.
  void MergeSettings(IniFile&& src);

  // The same for one group; nothing happens when "src" lacks it.
  void MergeSettings(const IniFile& src, const std::string& group);

  // The same for a group of another document, without a search for it there.
  void MergeGroup(const_iterator group);

  // Whether every value of "other" stands here, byte by byte. Groups without keys ask for nothing.
  bool ContainsSettings(const IniFile& other) const;

  // Adds "value" to the list that the group "name" is, unless it is in it. A member's key is its own text, so that
  // merging two lists loses no member.
  void ValueListAppendUnique(const std::string& name, const std::string& value);

  // The same for many values, in one walk over the list.
  void ValueListAppendUnique(const std::string& name, const std::set<std::string>& values);

  void Clear() { _groups.clear(); }
  bool IsEmpty() const { return _groups.empty(); }

  // The keys of a group: created when missing, or throwing when missing.
  KeyMap& operator[](const std::string& group) { return _groups[group]; }
  const KeyMap& operator[](const std::string& group) const;

  iterator begin() { return _groups.begin(); }
  iterator end() { return _groups.end(); }
  const_iterator begin() const { return _groups.begin(); }
  const_iterator end() const { return _groups.end(); }

  // All groups, for algorithms over sorted ranges.
  const GroupMap& GetGroups() const { return _groups; }

  // The same, to move groups from one document to another.
  GroupMap& GetMutableGroups() { return _groups; }

 private:
  void LoadFile(const char* path, const GroupFilter* isWanted);
  const std::string* FindValue(const std::string& group, const std::string& key) const;

  GroupMap _groups;
};

}  // namespace tavix::core
