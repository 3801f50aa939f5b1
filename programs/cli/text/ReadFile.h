#pragma once

#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::programs::cli {

// The bytes of a file, or of standard input when "path" is "-". Throws Failure, kExitUsage, that says why it can't be
// read.
std::string ReadFile(const std::string& path);

// A file of settings, such as a backup.
struct SettingsFile {
  std::string name;  // as errors call it
  core::IniFile settings;
  std::set<std::string> covered;  // the groups and patterns that it was made of; none: all that there was
  bool isJson = false;            // which can't tell what it covers
  bool isCutOff = false;          // a part of a backup
};

// A file of settings text or JSON, "-" for standard input. Throws Failure: as ReadFile does; kExitBadInput, with the
// place.
SettingsFile ReadSettingsFile(const std::string& path);

// Which groups of a file are meant, and of the store that it is compared with or takes the place of: those that the
// command line names, or else those that the file covers. Throws Failure, kExitUsage, when the file holds a group that
// it says it does not cover.
std::set<std::string> FindSelection(const SettingsFile& file, const std::vector<std::string>& words);

}  // namespace tavix::programs::cli
