#include "tavix/settings/client/TavixSettingsClientImpl.h"

#include "tavix/core/Logger.h"

namespace tavix::settings::client {

TavixSettingsClientImpl::TavixSettingsClientImpl() : _logger(core::Logger::GetLogger("TavixSettings")) {}

}  // namespace tavix::settings::client
