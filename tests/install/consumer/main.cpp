#include <iostream>

#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"

// Another project's program: reads a value from a store of its own, and catches what the library throws.
int main() {
  using tavix::settings::TavixSettingsClient;
  tavix::core::IniFile defaults;
  defaults.SetValue("Network", "hostname", "camera-7");
  const TavixSettingsClient settings(TavixSettingsClient::Local, defaults);
  std::cout << settings.GetValue("[Network]hostname") << '\n';
  try {
    settings.GetValue("hostname");
  } catch (const tavix::osa::Exception& exception) {
    std::cout << exception.what() << '\n';
  }
}
