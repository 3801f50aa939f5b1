// Hosts a store of its own, as a program does that needs no daemon or wants to keep settings in its own way. Serves one
// session of the protocol, whose requests stand below; a server would hand each connection's streams to a handler.

#include <iostream>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tavix/settings/server/SettingsManager.h"

using tavix::core::IniFile;
using namespace tavix::settings::server;

namespace {

// Where the settings come from, and where the users' changes go. This one keeps them in a string.
class StringPersister : public ISettingsPersister {
 public:
  void LoadDefaultSettings(SettingsCombiner& combiner) override {
    combiner.LoadFromString("[Lamp]\nbrightness=50\ncolour=white\n");
  }

  void LoadUserSettings(SettingsCombiner& combiner) override { combiner.LoadFromString(_saved); }

  void SaveUserSettings(const IniFile& userSettings) override {
    std::ostringstream text;
    userSettings.SaveToStream(text);
    _saved = text.str();
  }

  const std::string& GetSaved() const { return _saved; }

 private:
  std::string _saved = "[Lamp]\ncolour=amber\n";
};

constexpr char kRequests[] =
    R"(subscribe
Lamp
.
merge
[Lamp]
brightness=80
.
test-and-merge
[Lamp]
brightness=80
.
[Lamp]
colour=blue
.
quit
)";

}  // namespace

int main() {
  StringPersister persister;
  SettingsManager store(&persister, nullptr, nullptr, false);
  SerializationManager serializations;
  ServerEnv env{&store, &serializations};

  std::istringstream requests(kRequests);
  ClientHandler handler(&env, &requests, &std::cout);
  handler.Run();

  std::cout << "\nWhat was saved:\n" << persister.GetSaved();
}
