// Reads one setting of the device and prints it. The settings server must be running; TAVIX_SETTINGS_SERVER=HOST:PORT
// says where if it is not 127.0.0.1:7211.

#include <iostream>
#include "tavix/settings/TavixSettingsClient.h"

int main() {
  using tavix::settings::TavixSettingsClient;
  TavixSettingsClient settings(TavixSettingsClient::SingleThreaded);
  std::cout << settings.GetValue("[Video/Streams/Main]resolution") << "\n";
}
