#include "tavix/settings/client/TavixSettingsConnection.h"

#include <istream>
#include <ostream>

#include "tavix/core/Logger.h"

namespace tavix::settings::client {

TavixSettingsConnection::TavixSettingsConnection() : _logger(core::Logger::GetLogger("TavixSettingsConnection")) {}

bool TavixSettingsConnection::IsInOrder() const {
  return IsReady() && !GetIstream()->fail() && !GetOstream()->fail();
}

}  // namespace tavix::settings::client
