#include "tavix/settings/client/Commands.h"

#include <istream>
#include <limits>
#include <ostream>

#include "tavix/core/DelimitedIstream.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/client/ProtocolConstants.h"

namespace tavix::settings::client {

namespace {

void WriteGroups(std::ostream& os, const std::set<std::string>& groups) {
  for (const std::string& group : groups) os << group << '\n';
}

void EndRequest(std::ostream& os) {
  os << protocol::kTerminator << std::endl;
}

bool ReadOutcome(std::istream& is) {
  std::string outcome;
  std::getline(is, outcome);
  return outcome == protocol::kOk;
}

}  // namespace

void GetSettingsCommand::SendRequest(std::ostream& os) {
  os << protocol::kGet << ' ' << protocol::kDelimited << '\n';
  WriteGroups(os, *_groups);
  EndRequest(os);
}

bool GetSettingsCommand::HandleResponse(std::istream& is) {
  stl::DelimitedIstream payload(&is, protocol::kTerminator);
  try {
    _result->LoadFromStream(payload, "reply");
  } catch (...) {
    payload.ignore(std::numeric_limits<std::streamsize>::max());  // what follows belongs to the next message
    throw;
  }
  return true;
}

void MergeCommand::SendRequest(std::ostream& os) {
  os << protocol::kMerge;
  if (_flags & kNoPersistFlag) os << ' ' << protocol::kNoPersist;
  os << '\n';
  _settings->SaveToStream(os);
  EndRequest(os);
}

void TestAndMergeCommand::SendRequest(std::ostream& os) {
  os << protocol::kTestAndMerge << '\n';
  _test->SaveToStream(os);
  os << protocol::kTerminatorLine;
  _settings->SaveToStream(os);
  EndRequest(os);
}

bool TestAndMergeCommand::HandleResponse(std::istream& is) {
  if (ReadOutcome(is)) _success = true;
  return _success;
}

std::array<const core::IniFile*, 5> PartsOf(const Amendment& amendment) {
  return {&amendment.present, &amendment.absent, &amendment.set, &amendment.unset, &amendment.replace};
}

void AmendCommand::SendRequest(std::ostream& os) {
  os << protocol::kAmend << '\n';
  for (const core::IniFile* const part : PartsOf(*_amendment)) {
    part->SaveToStream(os);
    os << protocol::kTerminatorLine;
  }
  os.flush();
}

bool AmendCommand::HandleResponse(std::istream& is) {
  if (ReadOutcome(is)) _success = true;
  return _success;
}

bool FeaturesCommand::IsAbout(const std::string& line, const std::string& name) {
  return line.compare(0, line.find(' '), name) == 0;
}

void FeaturesCommand::SendRequest(std::ostream& os) {
  os << protocol::kInfo << ' ' << protocol::kFeatures << '\n' << protocol::kGet << ' ' << protocol::kDelimited << '\n';
  EndRequest(os);
}

bool FeaturesCommand::Accepts(const std::string& word) {
  _isList = !_hasList && word == "Features";
  return _isList || word == protocol::kData;
}

bool FeaturesCommand::HandleResponse(std::istream& is) {
  if (_isList) {
    ReadList(is);
    return false;
  }
  for (std::string line; std::getline(is, line) && line != protocol::kTerminator;) continue;
  return _success;
}

// The rule, the features, an empty line.
void FeaturesCommand::ReadList(std::istream& is) {
  _hasList = true;
  for (std::string line; std::getline(is, line) && !line.empty();) {
    if (IsAbout(line, protocol::kAmend)) _success = true;
  }
}

void OverwriteCommand::SendRequest(std::ostream& os) {
  os << protocol::kOverwrite << '\n';
  WriteGroups(os, *_groups);
  os << protocol::kTerminatorLine;
  _settings->SaveToStream(os);
  EndRequest(os);
}

void RestoreToDefaultsCommand::SendRequest(std::ostream& os) {
  os << protocol::kRestore << '\n';
  WriteGroups(os, *_groups);
  EndRequest(os);
}

void WriteSubscribeRequest(std::ostream& os, const std::set<std::string>& groups) {
  os << protocol::kSubscribe << '\n';
  WriteGroups(os, groups);
  EndRequest(os);
}

}  // namespace tavix::settings::client
