#pragma once

#include <optional>
#include <string>
#include <vector>

#include "programs/cli/Console.h"
#include "tavix/core/IniFile.h"

// What differs between two documents, and how it is shown.
namespace tavix::cli {

// One setting that differs; or, without a key, a group that came without settings or went.
struct Change {
  std::string group;
  std::optional<std::string> key;
  std::optional<std::string> before;  // of a setting; empty: it was not there
  std::optional<std::string> after;
  bool hasCome = false;  // of a group
};

// In ascending order of groups and keys; a group that went stands before its settings.
std::vector<Change> FindChanges(const core::IniFile& before, const core::IniFile& after);

// Lines with '-' for what goes and '+' for what comes; with kJson, an array of objects.
void PrintChanges(Console& console, Output output, const std::vector<Change>& changes);

// "[group]key: old -> new" on one line; with kJson, one object on one line.
void PrintEvent(Console& console, Output output, const Change& change);

}  // namespace tavix::cli
