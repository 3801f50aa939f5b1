#include "tavix/settings/server/CommandTable.h"

#include <algorithm>
#include <iterator>

#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/server/ClientHandler.h"
#include "tavix/settings/server/Words.h"

namespace tavix::settings::server {

namespace protocol = client::protocol;

namespace {

// In bytes: requests that are read and carried out in less than a millisecond.
constexpr size_t kShortRequest = 32 * 1024;
constexpr size_t kShortSubscription = 8 * 1024;

std::string_view LineOf(std::string_view request) {
  return request.substr(0, request.find('\n'));
}

}  // namespace

const CommandTable::Command CommandTable::kCommands[] = {
    {protocol::kAmend, "ppppp", Duration::kByPattern, Effect::kNone, &ClientHandler::Amend},
    {protocol::kDump, "", Duration::kLong, Effect::kClientOnly, &ClientHandler::Dump},
    {protocol::kGet, "l", Duration::kBySize, Effect::kClientOnly, &ClientHandler::GetSections},
    {protocol::kInfo, "", Duration::kIfSubscribed, Effect::kClientOnly, &ClientHandler::Info},
    {protocol::kMerge, "p", Duration::kBySize, Effect::kNone, &ClientHandler::Merge},
    {protocol::kNote, "", Duration::kBySize, Effect::kNone, &ClientHandler::TakeNote},
    {protocol::kOverwrite, "lp", Duration::kByPattern, Effect::kNone, &ClientHandler::Overwrite},
    {protocol::kQuit, "", Duration::kBySize, Effect::kNone, &ClientHandler::Quit},
    {protocol::kRestore, "l", Duration::kLong, Effect::kNone, &ClientHandler::RestoreDefaults},
    {protocol::kSerialize, "", Duration::kBySize, Effect::kSetsSerialization, &ClientHandler::ChangeSerialization},
    {protocol::kSubscribe, "l", Duration::kBySubscription, Effect::kClientOnly, &ClientHandler::Subscribe},
    {protocol::kTestAndMerge, "pp", Duration::kBySize, Effect::kNone, &ClientHandler::TestAndMerge},
};

const CommandTable::Command* CommandTable::begin() {
  return std::begin(kCommands);
}

const CommandTable::Command* CommandTable::end() {
  return std::end(kCommands);
}

const CommandTable::Command* CommandTable::Find(std::string_view word) {
  if (word.empty()) return nullptr;
  // Each request is looked for several times: the first letter tells most of them apart.
  const auto isWord = [&](const Command& command) { return command.word[0] == word[0] && word == command.word; };
  const auto* const found = std::find_if(begin(), end(), isWord);
  return found == end() ? nullptr : found;
}

bool CommandTable::IsLong(std::string_view request) {
  if (request.size() > kShortRequest) return true;
  std::string_view line = LineOf(request);
  const Command* const command = Find(TakeWord(line));
  if (!command) return false;
  switch (command->duration) {
    case Duration::kBySize:
      return false;
    case Duration::kBySubscription:
      return request.size() > kShortSubscription;
    case Duration::kByPattern:
      return request.find('*') != std::string_view::npos;
    case Duration::kIfSubscribed:
      return TakeWord(line) == protocol::kSubscribed;
    case Duration::kLong:
      break;
  }
  return true;
}

bool CommandTable::IsForClientOnly(std::string_view request) {
  std::string_view line = LineOf(request);
  const Command* const command = Find(TakeWord(line));
  return command && command->effect == Effect::kClientOnly;
}

}  // namespace tavix::settings::server
