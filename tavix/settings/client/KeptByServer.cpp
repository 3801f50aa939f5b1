#include "tavix/settings/client/KeptByServer.h"

#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::settings::client {

bool IsKeptByServer() {
  try {
    const auto figures = ProtocolClient(ProtocolOptions()).GetServerInfo();
    const auto kept = figures.find("kept");
    return (kept == figures.end() || kept->second != "false") && figures.count("failure") == 0;
  } catch (const osa::Exception& exception) {
    core::Logger::GetLogger("TavixSettings")->Warning("Whether changes are kept is not known: %s", exception.what());
    return true;
  }
}

}  // namespace tavix::settings::client
