#include "tavix/settings/client/MessageReader.h"

#include <istream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <utility>

#include "tavix/core/DelimitedIstream.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/client/ReplyLine.h"
#include "tavix/settings/common/CallbackDispatcher.h"
#include "tavix/settings/common/DelimitedValues.h"

namespace tavix::settings::client {

void MessageReader::HandleMessage(const std::string& line) {
  if (SkipsRest(line)) return ReportUnexpected();
  if (line.empty())
    throw std::runtime_error("Unexpected empty line returned from tcp connection with tavix-settings-server");
  const std::string word = FirstWord(line);
  if (word == protocol::kAsync) {
    HandleNotice();
  } else {
    HandleReply(word);
  }
}

bool MessageReader::ReadMessage() {
  std::string line;
  if (!std::getline(_in, line)) return false;
  HandleMessage(line);
  return true;
}

// The first byte tells a notice from a reply, unless it is a blank: those may stand before the first word of both. An
// empty line ends the connection. The end of the input is less than any byte.
bool MessageReader::ReadOutcome() {
  while (!_targets.slot.IsPosted()) {
    const auto first = _in.peek();
    if (first == protocol::kAsync[0] || first <= ' ' || !ReadMessage()) return false;
  }
  return true;
}

bool MessageReader::AwaitsInput() const {
  return _in.good() && _in.rdbuf()->in_avail() <= 0;
}

bool MessageReader::SkipsRest(const std::string& line) {
  const bool skips = _skipsLine || _skipsUntilTerminator;
  _skipsLine = false;
  if (line == protocol::kTerminator) _skipsUntilTerminator = false;
  return skips;
}

void MessageReader::HandleNotice() {
  std::set<std::string> groups;
  common::readDelimitedValues(&_in, std::inserter(groups, groups.begin()));
  core::IniFile settings;
  {
    stl::DelimitedIstream payload(&_in, protocol::kTerminator);
    settings.LoadFromStream(payload, "change notice");
  }
  // A notice that was cut off may lack groups or keys. The next connection brings no other one: users that
  // need to know what was missed read again when it is connected.
  if (_in.good()) _targets.dispatcher.OnChange(groups, settings);
}

void MessageReader::HandleReply(const std::string& word) {
  std::unique_ptr<RemoteCommand> command = TakeCommand();
  if (!command) return ReportUnexpected();
  const ResponseStatus status = ReadReply(*command, word);
  if (!_in.good()) return _targets.slot.Drop(std::move(command));  // the loss that follows fails the caller
  if (status.received && command->AwaitsMore()) return _targets.slot.PutBack(std::move(command));
  if (!status.received) ExpectRest(word);
  _targets.slot.Finish(std::move(command), status);
}

// First without the right to write: a caller blocked in a large request, and a server blocked in a large reply, would
// else wait for each other. With it, a command whose request is written is certainly queued, because callers queue it
// before they give the right back.
std::unique_ptr<RemoteCommand> MessageReader::TakeCommand() {
  if (std::unique_ptr<RemoteCommand> command = _targets.slot.Take()) return command;
  SendRightLock right(_targets.sendRight, osa::kWaitForever);
  return _targets.slot.Take();
}

// A reply with another keyword is no reply to this command. One that the command can't parse is: it was received, and
// its outcome is false.
ResponseStatus MessageReader::ReadReply(RemoteCommand& command, const std::string& word) {
  ResponseStatus status;
  if (!command.Accepts(word)) return status;
  status.received = true;
  try {
    status.result = command.HandleResponse(_in);
  } catch (const std::exception& exception) {
    _targets.logger.Error("Exception handling response from server: %s", exception.what());
  }
  return status;
}

// What follows the first word of a reply of this kind.
void MessageReader::ExpectRest(const std::string& word) {
  _skipsLine = word == protocol::kResult;
  _skipsUntilTerminator = word == protocol::kData;
}

void MessageReader::ReportUnexpected() const {
  _targets.logger.Error("Message received without corresponding request");
}

}  // namespace tavix::settings::client
