#include "programs/web/daemon/ClientSession.h"

#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::web {

bool ClientSession::IsRestricted(const std::string& group) const {
  return settings::server::GroupDiscriminator::IsRestrictedGroup(group);
}

}  // namespace tavix::web
