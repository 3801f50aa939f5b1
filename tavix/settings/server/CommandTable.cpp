#include "tavix/settings/server/CommandTable.h"

#include <algorithm>

#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/server/ClientHandler.h"

namespace tavix::settings::server {

namespace protocol = client::protocol;

const CommandTable::Command CommandTable::kCommands[kCount] = {
    {protocol::kDump, "", &ClientHandler::Dump},
    {protocol::kGet, "l", &ClientHandler::GetSections},
    {protocol::kInfo, "", &ClientHandler::Info},
    {protocol::kMerge, "p", &ClientHandler::Merge},
    {protocol::kOverwrite, "lp", &ClientHandler::Overwrite},
    {protocol::kQuit, "", &ClientHandler::Quit},
    {protocol::kRestore, "l", &ClientHandler::RestoreDefaults},
    {protocol::kSerialize, "", &ClientHandler::ChangeSerialization},
    {protocol::kSubscribe, "l", &ClientHandler::Subscribe},
    {protocol::kTestAndMerge, "pp", &ClientHandler::TestAndMerge},
};

const CommandTable::Command* CommandTable::Find(std::string_view word) {
  const auto* const found = std::find_if(begin(), end(), [&](const Command& command) { return word == command.word; });
  return found == end() ? nullptr : found;
}

}  // namespace tavix::settings::server
