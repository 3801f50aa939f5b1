#pragma once

#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::bench {

// The settings that everything is measured with: groups "Net/Interface/G0000042", 20-byte keys, 30-byte values.

std::string GroupName(int group);
std::string KeyName(int key);
std::string ValueText(int group, int key);

// One group as settings text.
std::string GroupText(int group, int keys);

// Groups 0 to groups - 1.
std::string SettingsText(int groups, int keys);
core::IniFile SettingsDocument(int groups, int keys);

// How many groups of that many keys make up settings text of "bytes".
int GroupsInBytes(size_t bytes, int keys);

}  // namespace tavix::bench
