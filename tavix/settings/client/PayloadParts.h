#pragma once

#include <optional>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/core/SettingsText.h"

// Read a payload line by line, and give its parts while the rest is still to come. After an error they give nothing
// more: the rest of the lines may be read over.
//
// Threads: one.
namespace tavix::settings::client {

// Gives each group when the next one begins, so that no more than one is kept. Groups that do not ascend are an error:
// somebody who has printed a group can't add to it any more.
class PayloadGroups {
 public:
  using Part = core::IniFile;  // of one group

  PayloadGroups() = default;

  PayloadGroups(const PayloadGroups&) = delete;
  PayloadGroups& operator=(const PayloadGroups&) = delete;

  // line: without its line feed.
  std::optional<Part> ReadLine(const std::string& line);

  // The last part, if there is one.
  std::optional<Part> Finish();

  // Empty: there was no error.
  const std::string& GetError() const { return _error; }

 private:
  std::optional<Part> TakeGroup();

  const std::string _source = "settings text";
  core::SettingsTextReader _reader{_source};
  std::optional<std::string> _last;  // the name of the group that was given last
  std::string _error;
};

// Gives the names of the groups alone.
class PayloadNames {
 public:
  using Part = std::string;

  PayloadNames() = default;

  PayloadNames(const PayloadNames&) = delete;
  PayloadNames& operator=(const PayloadNames&) = delete;

  std::optional<Part> ReadLine(const std::string& line);
  std::optional<Part> Finish() { return std::nullopt; }
  const std::string& GetError() const { return _error; }

 private:
  const std::string _source = "settings text";
  std::optional<std::string> _name;  // of the group that the line begins
  const core::IniFile::GroupFilter _remember = [this](std::string_view name) {
    _name = name;
    return false;
  };
  core::SettingsTextReader _reader{_source, &_remember};
  std::string _error;
};

}  // namespace tavix::settings::client
