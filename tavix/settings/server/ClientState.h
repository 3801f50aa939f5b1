#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/ClientIdentity.h"

namespace tavix::settings::server {

// What a handler keeps of its client from one request to the next: who it is, the note for its next change, and why its
// last request was not carried out as a whole.
//
// The last request is the last one that can be refused: a change, a subscription or a note. Requests that only read or
// ask leave the reason alone, so that a client may wait for the end of its change by an empty get and then ask why. A
// note that was refused is missing from the change that it was for: so its reason outlives that change.
//
// Threads: the handler's.
class ClientState {
 public:
  static constexpr size_t kMaxNoteBytes = 256;
  static constexpr size_t kMaxReasonBytes = 512;  // as settings text

  // groups: the client's others; ascending.
  void SetIdentity(const ClientIdentity& identity, std::vector<gid_t> groups);
  const ClientIdentity& GetIdentity() const { return _identity; }

  // Adds what `info whoami` shows.
  void AddIdentity(core::IniFile::KeyMap& lines) const;

  // Keeps a note for the next change, in place of an earlier one. False: it is too long, and the reason is kept; the
  // next change has no note, as an earlier one was not meant for it.
  [[nodiscard]] bool TakeNote(std::string_view text);

  // Keeps what was asked for the next change, in place of what was asked earlier.
  void TakeTrial(std::string_view text);

  // A change begins, and uses both up. The origin is valid as long as "command", and until the next change.
  ChangeOrigin BeginChange(std::string_view command);

  // Another request begins that can be refused.
  void BeginRequest() { _reason.clear(); }

  // Why the request at hand is not carried out; empty: it is. A text that is too long is cut.
  void Refuse(std::string_view reason);

  // Adds the reason, if there is one, and forgets it.
  void TakeReason(core::IniFile::KeyMap& lines);

 private:
  // What goes with a change.
  struct Request {
    std::string note;
    std::string trial;
  };

  Request& GetNext();

  ClientIdentity _identity;
  std::vector<gid_t> _groups;
  std::unique_ptr<Request> _next;     // for the next change; few clients have one
  std::unique_ptr<Request> _current;  // of the change at hand
  std::string _reason;
  bool _isNoteRefused = false;  // that of the next change
};

}  // namespace tavix::settings::server
