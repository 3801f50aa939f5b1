#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tavix::bridge {

// Names as parts of topics: letters, digits and "-._~/" stand for themselves, any other byte is "%HH".
std::string EncodeForTopic(const std::string& name);

// Nothing: the text is not what EncodeForTopic makes.
std::optional<std::string> DecodeFromTopic(const std::string& text);

// Whom a document is for. What stands later here stands above what stands earlier.
enum class Level { kAll, kClass, kDevice };

// A document's place. A plain value.
struct DocumentName {
  Level level = Level::kDevice;
  std::string name;  // as the topic spells it

  bool operator<(const DocumentName& other) const {
    return level != other.level ? level < other.level : name < other.name;
  }
  bool operator==(const DocumentName& other) const { return level == other.level && name == other.name; }
};

// The topics of one device.
//
// Threads: a plain value.
class Topics {
 public:
  // root: may hold '/'. deviceClass: may be empty: the device is of none.
  Topics(const std::string& root, const std::string& device, const std::string& deviceClass);

  std::string GetDesiredPrefix(Level level) const;  // empty: the device is of no class
  std::string GetReportedPrefix() const { return _device + "reported/"; }
  std::string GetDesiredIndex() const { return _device + "desired-index"; }
  std::string GetIndex() const { return _device + "index"; }
  std::string GetStatus() const { return _device + "status"; }

  std::string GetReported(const std::string& group) const { return GetReportedPrefix() + EncodeForTopic(group); }
  std::string GetDesired(const DocumentName& document) const;
  std::string GetResult(const std::string& documentName) const { return _device + "result/" + documentName; }

  // Nothing: the topic is of another kind.
  std::optional<DocumentName> FindDocument(const std::string& topic) const;
  std::optional<std::string> FindReportedGroup(const std::string& topic) const;

 private:
  std::string _device;  // these end with '/'
  std::string _class;
  std::string _all;
};

}  // namespace tavix::bridge
