#include "tavix/settings/server/ISettingsSerializer.h"

namespace tavix::settings::server {

void ISettingsSerializer::SkipPayloadEnd(std::istream&) const {}

}  // namespace tavix::settings::server
