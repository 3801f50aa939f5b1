#include "programs/server/history/ExtraWords.h"

namespace tavix::daemon {

const settings::server::IExtraCommands::Command* ExtraWords::Find(std::string_view word) const {
  for (const IExtraCommands* owner : _owners) {
    if (const Command* command = owner->Find(word)) return command;
  }
  return nullptr;
}

settings::server::IExtraCommands::Answer ExtraWords::CarryOut(const Call& call) {
  for (IExtraCommands* owner : _owners) {
    if (owner->Find(call.word)) return owner->CarryOut(call);
  }
  return {};
}

void ExtraWords::AddFeatures(std::set<std::string>& features) const {
  for (const IExtraCommands* owner : _owners) owner->AddFeatures(features);
}

}  // namespace tavix::daemon
