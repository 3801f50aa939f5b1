#pragma once

#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {
class SettingsManager;
}

namespace tavix::test {

// Settings documents as settings text, in which tests are easy to read and differences easy to see.

core::IniFile DocumentOf(const std::string& text);
std::string TextOf(const core::IniFile& document);

// What readers of a store see, and its user layer.
std::string AllSettingsOf(const settings::server::SettingsManager& store);
std::string UserSettingsOf(const settings::server::SettingsManager& store);

}  // namespace tavix::test
