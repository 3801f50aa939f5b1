#pragma once

#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {
class LayerView;
class SettingsManager;
}  // namespace tavix::settings::server

namespace tavix::test {

// Settings documents as settings text, in which tests are easy to read and differences easy to see.

core::IniFile DocumentOf(const std::string& text);
std::string TextOf(const core::IniFile& document);
std::string TextOf(const settings::server::LayerView& layer);

// What readers of a store see, and its user layer.
std::string AllSettingsOf(const settings::server::SettingsManager& store);
std::string UserSettingsOf(const settings::server::SettingsManager& store);

}  // namespace tavix::test
