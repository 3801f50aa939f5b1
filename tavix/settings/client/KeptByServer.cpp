#include "tavix/settings/client/KeptByServer.h"

#include <exception>

#include "tavix/core/Logger.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::settings::client {

Keeping AskServerForKeeping() {
  try {
    const auto figures = ProtocolClient(ProtocolOptions()).GetServerInfo();
    const auto kept = figures.find("kept");
    const bool isKept = kept == figures.end() || kept->second != "false";
    return isKept && figures.count("failure") == 0 ? Keeping::kKept : Keeping::kNotKept;
  } catch (const std::exception& exception) {
    core::Logger::GetLogger("TavixSettings")->Warning("Whether changes are kept is not known: %s", exception.what());
    return Keeping::kUnknown;
  }
}

}  // namespace tavix::settings::client
