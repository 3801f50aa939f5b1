#include "tavix/settings/server/ClientState.h"

#include <utility>

#include "tavix/settings/server/InfoText.h"

namespace tavix::settings::server {

using core::IniFile;

void ClientState::SetIdentity(const ClientIdentity& identity, std::vector<gid_t> groups) {
  _identity = identity;
  _groups = std::move(groups);
}

void ClientState::AddIdentity(IniFile::KeyMap& lines) const {
  lines["connection"] = ClientIdentity::NameOf(_identity.connection);
  if (_identity.connection == ClientIdentity::Connection::kTcp) lines["user"] = "nobody";
  if (_identity.user != ClientIdentity::kNoUser) lines["user"] = std::to_string(_identity.user);
  if (_identity.group != ClientIdentity::kNoGroup) lines["group"] = std::to_string(_identity.group);
  if (_identity.process != ClientIdentity::kNoProcess) lines["process"] = std::to_string(_identity.process);
  if (_groups.empty()) return;
  std::string& groups = lines["groups"];
  for (const gid_t group : _groups) groups.append(groups.empty() ? 0 : 1, ',').append(std::to_string(group));
}

bool ClientState::TakeNote(std::string_view text) {
  _reason.clear();
  GetNext().note.clear();
  _isNoteRefused = text.size() > kMaxNoteBytes;
  if (_isNoteRefused) {
    Refuse("bound: a note of " + std::to_string(text.size()) + " bytes is longer than the " +
           std::to_string(kMaxNoteBytes) + " allowed");
  } else {
    _next->note = text;
  }
  return !_isNoteRefused;
}

void ClientState::TakeTrial(std::string_view text) {
  if (!_isNoteRefused) BeginRequest();
  GetNext().trial = text.substr(0, ChangeOrigin::kMaxTrialBytes + 1);
}

ChangeOrigin ClientState::BeginChange(std::string_view command) {
  if (!std::exchange(_isNoteRefused, false)) _reason.clear();
  _current = std::move(_next);
  if (!_current) return {_identity, command, {}};
  return {_identity, command, _current->note, _current->trial};
}

ClientState::Request& ClientState::GetNext() {
  if (!_next) _next = std::make_unique<Request>();
  return *_next;
}

void ClientState::Refuse(std::string_view reason) {
  if (!reason.empty()) _reason = CutText(reason, kMaxReasonBytes);
}

void ClientState::TakeReason(IniFile::KeyMap& lines) {
  if (!_reason.empty()) lines["reason"] = std::exchange(_reason, {});
}

}  // namespace tavix::settings::server
