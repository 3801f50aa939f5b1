#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>

#include "programs/web/daemon/ClientSession.h"
#include "programs/web/daemon/DaemonLink.h"
#include "programs/web/http/Message.h"
#include "programs/web/http/Query.h"
#include "programs/web/http/Refusal.h"
#include "programs/web/interface/AnswerSize.h"
#include "programs/web/interface/GroupReads.h"
#include "tavix/core/IniFile.h"

namespace tavix::web {

// What is shown of groups, and whether anybody may write. A plain value that does not change.
struct View {
  bool showsRestricted = false;
  bool isReadOnly = false;
  std::string salt;  // of the versions of groups whose values are masked

  bool IsMasked(const std::string& group) const;
  std::string FindVersion(const std::string& group, const core::IniFile::KeyMap& keys) const;

  // An object of keys and values; a masked value is null.
  nlohmann::json ValuesToJson(const std::string& group, const core::IniFile::KeyMap& keys) const;
};

// One request of the interface on a worker.
//
// Threads: one, the worker's.
// Errors:  what carries it out throws Refusal, ProtocolException or Failure.
struct Call {
  // All outlive this.
  Call(DaemonLink& daemonLink, const GroupReads& theReads, const Request& theRequest, const View& theView,
       const AnswerBounds& bounds)
      : link(daemonLink),
        reads(theReads),
        session(daemonLink),
        request(theRequest),
        query(theRequest.query),
        view(theView),
        size(bounds) {}

  // The one group that is named, as it is now; nothing when it does not exist.
  std::optional<core::IniFile::KeyMap> ReadGroup(const std::string& name);

  // The same of the user settings alone.
  std::optional<core::IniFile::KeyMap> ReadUserGroup(const std::string& name);

  // Groups by names and '*' patterns; what they take counts as a part of the answer.
  core::IniFile ReadGroups(const std::set<std::string>& groups);

  DaemonLink& link;
  const GroupReads& reads;  // behind the request's arrival
  ClientSession session;
  const Request& request;
  const Query query;
  const View& view;
  AnswerSize size;
};

// Carry a request out and answer it.
using Handler = Response (*)(Call& call);

// Throws Refusal, 422, for a name that no line of the protocol can hold.
void RequireSendable(const std::string& group);

// Throws Refusal, 403, for a restricted group.
void RequireUnrestricted(const Call& call, const std::string& group);

// Throws Refusal, 403, for a group whose values are masked: who may compare them could guess them.
void RequireUnmasked(const Call& call, const std::string& group);

}  // namespace tavix::web
