#include "tests/support/DocumentText.h"

#include <sstream>

#include "tavix/settings/server/LayerView.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::test {

core::IniFile DocumentOf(const std::string& text) {
  core::IniFile document;
  document.LoadFromString(text);
  return document;
}

std::string TextOf(const core::IniFile& document) {
  std::ostringstream text;
  document.SaveToStream(text);
  return text.str();
}

std::string TextOf(const settings::server::LayerView& layer) {
  return TextOf(layer.Copy());
}

std::string AllSettingsOf(const settings::server::SettingsManager& store) {
  std::ostringstream text;
  store.DumpAllSettings(text);
  return text.str();
}

std::string UserSettingsOf(const settings::server::SettingsManager& store) {
  std::ostringstream text;
  store.DumpUserSettings(text);
  return text.str();
}

}  // namespace tavix::test
