#include "tavix/settings/client/TavixSettingsClientImpl.h"

#include "tavix/core/Logger.h"

namespace tavix::settings::client {

TavixSettingsClientImpl::TavixSettingsClientImpl() : _logger(core::Logger::GetLogger("TavixSettings")) {}

void TavixSettingsClientImpl::Detach(IChangeCallback* cb) {
  _commonDispatcher.RemoveCallback(cb);
}

void TavixSettingsClientImpl::AddConnectionObserver(IConnectionObserver*) {}

void TavixSettingsClientImpl::RemoveConnectionObserver(IConnectionObserver*) {}

}  // namespace tavix::settings::client
