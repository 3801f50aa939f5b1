// Whatever a client sends, its handler ends or throws an exception of ours, and the store stays one that can be saved.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SettingsManager.h"

using namespace tavix;

namespace {

void SilenceLog() {
  core::IniFile quiet;
  quiet.SetValue("log", "log.level", "0");
  quiet.SetValue("log", "log.syslog", "false");
  core::Logger::ConfigureLogging(quiet, "log");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silent = (SilenceLog(), true);
  static_cast<void>(silent);
  settings::server::SettingsManager store;
  settings::server::SerializationManager serializers;
  settings::server::ServerEnv env{&store, &serializers};
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::ostringstream out;
  try {
    settings::server::ClientHandler(&env, &in, &out).Run();
  } catch (const osa::Exception&) {
  }
  std::ostringstream saved;
  store.DumpUserSettings(saved);
  core::IniFile loaded;
  loaded.LoadFromString(saved.str());
  return 0;
}
