#pragma once

#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::web {

// A group's version: 32 digits, 128 bits of a hash over all keys and values that readers see. Groups that are equal
// have one version, whatever their names. salt: makes the versions of a group with secrets of no use for guessing them.
std::string VersionOf(const core::IniFile::KeyMap& keys, const std::string& salt = std::string());

}  // namespace tavix::web
