#pragma once

#include "tavix/core/IniFile.h"
#include "tavix/settings/Amendment.h"

namespace tavix::settings::server {

// An amendment by a store's own host, which can do what no client can ask for. A plain value.
//
//     drop     groups leave the user settings with all their keys, before anything else is changed; the record of
//              deleted groups stays as it is, so their defaults show again only where they are not deleted. Keys do not
//              count. Names are never patterns. The record is not dropped. A group may be in the other changes, too
//
// So a host can bring back any user settings of before, group by group, by an amendment that never fails:
//
//     the group was not there               drop[group]
//     it was there with other values        set[group]key=OLD
//     it was there and lacked keys          unset[group]key=
//     it was there without keys             set[group], beside its keys in unset
//     the record of deleted groups          the same, key by key: never drop, never unset[group] or replace
//
// Replace and a group without keys in unset also edit the record: nothing is to be brought back by them.
struct StoreAmendment : Amendment {
  core::IniFile drop;
};

}  // namespace tavix::settings::server
