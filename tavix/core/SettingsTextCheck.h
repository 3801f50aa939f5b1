#pragma once

#include <string>
#include <string_view>

#include "tavix/core/SettingsText.h"
#include "tavix/osa/Export.h"

namespace tavix::core {

// Finds what is wrong with settings text, at a small part of the cost of loading it.
//
// Threads: one at a time.
// Errors:  osa::Exception, what loading would throw; then nothing more can be read.
class TAVIX_DAEMON_EXPORT SettingsTextCheck {
 public:
  // source: what error texts call the text; outlives the object.
  explicit SettingsTextCheck(const std::string& source) : _reader(source, &_none) {}

  SettingsTextCheck(const SettingsTextCheck&) = delete;
  SettingsTextCheck& operator=(const SettingsTextCheck&) = delete;

  // Lines that follow one another; the last one may lack its line feed.
  void ReadLines(std::string_view lines);

 private:
  const SettingsTextReader::GroupFilter _none = [](std::string_view) { return false; };
  SettingsTextReader _reader;
};

}  // namespace tavix::core
