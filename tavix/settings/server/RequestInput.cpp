#include "tavix/settings/server/RequestInput.h"

#include "tavix/settings/server/ISettingsSerializer.h"

namespace tavix::settings::server {

namespace {

constexpr size_t kKeptMemory = 4 * 1024;  // an idle connection keeps no more than this

}  // namespace

bool RequestInput::TakeLine(std::string_view& line) {
  if (_view) return _view->TakeLine(line);
  if (_line.capacity() > kKeptMemory) std::string().swap(_line);
  if (!std::getline(_in, _line)) return false;
  line = _line;
  return true;
}

void RequestInput::TakePayload(const ISettingsSerializer& serializer, core::IniFile& document) {
  if (_view) {
    serializer.OnDeserializeView(*_view, document);
  } else {
    serializer.OnDeserialize(_in, document);
  }
}

void RequestInput::SkipPayloadEnd(const ISettingsSerializer& serializer) {
  serializer.SkipPayloadEnd(_in);
}

}  // namespace tavix::settings::server
