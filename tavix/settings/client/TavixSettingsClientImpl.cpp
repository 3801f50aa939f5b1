#include "tavix/settings/client/TavixSettingsClientImpl.h"

#include <unistd.h>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"

namespace tavix::settings::client {

TavixSettingsClientImpl::TavixSettingsClientImpl() : _logger(core::Logger::GetLogger("TavixSettings")) {}

bool TavixSettingsClientImpl::FindValue(const std::string& group, const std::string& key,
                                        std::optional<std::string>& value) const {
  core::IniFile settings;
  if (!GetSettings({group}, settings)) return false;
  if (settings.HasValue(group, key)) {
    value = settings.GetValue(group, key);
  } else {
    value.reset();
  }
  return true;
}

void TavixSettingsClientImpl::ThrowTooOld(const char* call) {
  throw osa::Exception("%s can't be called: tavix-settings-server is older than this request", call);
}

void TavixSettingsClientImpl::BindToProcess() {
  _process = getpid();
}

bool TavixSettingsClientImpl::IsLeftToParent() const {
  return _process != 0 && _process != getpid();
}

void TavixSettingsClientImpl::Detach(IChangeCallback* cb) {
  _commonDispatcher.RemoveCallback(cb);
}

void TavixSettingsClientImpl::AddConnectionObserver(IConnectionObserver*) {}

void TavixSettingsClientImpl::RemoveConnectionObserver(IConnectionObserver*) {}

}  // namespace tavix::settings::client
