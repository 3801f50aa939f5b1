#include "tavix/settings/client/RemoteCommand.h"

namespace tavix::settings::client {

bool RemoteCommand::HandleResponse(std::istream&) {
  return true;
}

}  // namespace tavix::settings::client
