#include "programs/common/client/DaemonSession.h"

#include <algorithm>
#include <utility>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Revisions.h"
#include "programs/common/client/Spelling.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::programs {

using core::IniFile;
using settings::client::ProtocolClient;
using settings::client::ProtocolException;

namespace {

ExitCode ExitCodeOf(ProtocolException::Reason reason) {
  switch (reason) {
    case ProtocolException::Reason::kUsage:
      return kExitUsage;
    case ProtocolException::Reason::kUnreadable:
      return kExitBadInput;
    case ProtocolException::Reason::kTooOld:
      return kExitNotApplied;
    default:
      return kExitNoServer;
  }
}

// What is on the wire is spelled already, but for what would upset a terminal: backslashes stay as they are.
std::string SpellLine(const std::string& line) {
  std::string spelled;
  for (size_t at = 0; at < line.size(); ++at) {
    const size_t next = std::min(line.find('\\', at), line.size());
    spelled += SpellValue(line.substr(at, next - at));
    if (next < line.size()) spelled += '\\';
    at = next;
  }
  return spelled;
}

// The first word of a line is the name of a feature; what follows describes it.
std::map<std::string, std::string> ByFirstWord(const std::set<std::string>& lines) {
  std::map<std::string, std::string> features;
  for (const std::string& line : lines) {
    const size_t end = std::min(line.find(' '), line.size());
    features.emplace(line.substr(0, end), line.substr(std::min(end + 1, line.size())));
  }
  return features;
}

// What a person calls the request: some words are parts of a feature.
std::string NameOfFeature(const std::string& line) {
  const std::string word = line.substr(0, line.find(' '));
  if (word == "test-rollback") return "rollback";
  return word == "forget" ? "checkpoint" : word;
}

ProtocolClient::Trace Spelled(const DaemonSession::Trace& trace) {
  if (!trace) return nullptr;
  return [trace](char direction, const std::string& line) { trace(direction, SpellLine(line)); };
}

}  // namespace

template <class Call>
auto DaemonSession::Run(Call call) const {
  try {
    return call();
  } catch (const ProtocolException& exception) {
    const bool isUnreachable = exception.GetReason() == ProtocolException::Reason::kUnreachable;
    throw Failure(ExitCodeOf(exception.GetReason()), exception.what(), isUnreachable ? _hint : exception.GetHint());
  }
}

// Without its change, a note or a trial would go with the next one: what can't be sent is found first.
template <class... Parts>
void DaemonSession::Introduce(const Parts&... parts) {
  if (_note.empty() && _trial.empty()) return;
  Run([&] { (ProtocolClient::RequireSendable(parts), ...); });
  if (_hasTried) RequireNotEnded();
  Run([&] {
    if (!_note.empty()) _client->Note(_note);
    if (!_trial.empty()) _client->Try(_trialSeconds, _trial);
  });
  _hasTried = !_trial.empty();
}

// The first write may have changed nothing: then there is no such trial.
void DaemonSession::RequireNotEnded() {
  const ProtocolClient::Answer answer = Run([&] { return _client->Ask("trial " + _trial); });
  if (answer.isRefused || !answer.data.HasGroup(_trial)) return;
  const TrialState trial = TrialState::From(_trial, answer.data[_trial]);
  if (trial.state == "confirmed")
    throw Failure(kExitConditionFailed,
                  Join({"condition failed: somebody has confirmed ", _trial, " before the whole change was made"}));
  if (!trial.IsPending())
    throw Failure(kExitReverted, Join({"reverted ", _trial, ": its time was over before the whole change was made"}));
}

DaemonSession::DaemonSession(const settings::client::ProtocolOptions& options, std::string hint, const Trace& trace)
    : _hint(std::move(hint)), _client(Run([&] { return std::make_unique<ProtocolClient>(options, Spelled(trace)); })) {}

IniFile DaemonSession::Get(const Groups& groups) {
  return Run([&] { return _client->Get(groups); });
}

void DaemonSession::GetEach(const Groups& groups, const TakeGroup& take) {
  Run([&] { _client->GetEach(groups, take); });
}

void DaemonSession::GetEachName(const Groups& groups, const TakeName& take) {
  Run([&] { _client->GetEachName(groups, take); });
}

IniFile DaemonSession::GetUserSettings() {
  return Run([&] { return _client->GetUserSettings(); });
}

void DaemonSession::GetEachOfUser(const TakeGroup& take) {
  Run([&] { _client->GetEachOfUser(take); });
}

bool DaemonSession::IsRestricted(const std::string& group) const {
  return settings::server::GroupDiscriminator::IsRestrictedGroup(group);
}

void DaemonSession::Merge(const IniFile& settings, bool isVolatile) {
  Introduce(settings);
  Run([&] { _client->Merge(settings, isVolatile); });
}

bool DaemonSession::TestAndMerge(const IniFile& test, const IniFile& settings) {
  Introduce(test, settings);
  return Run([&] { return _client->TestAndMerge(test, settings); });
}

void DaemonSession::Overwrite(const Groups& groups, const IniFile& settings) {
  Introduce(groups, settings);
  Run([&] { _client->Overwrite(groups, settings); });
}

void DaemonSession::Restore(const Groups& groups) {
  Introduce(groups);
  Run([&] { _client->Restore(groups); });
}

std::vector<std::string> DaemonSession::GetSubscribed() {
  return Run([&] { return _client->GetSubscribed(); });
}

std::map<std::string, std::string> DaemonSession::GetServerInfo() {
  return Run([&] { return _client->GetServerInfo(); });
}

// Asked once: the answer is the connection's.
const std::map<std::string, std::string>* DaemonSession::FindFeatures() {
  if (!_hasAskedFeatures) {
    if (const auto lines = Run([&] { return _client->GetFeatures(); })) _features = ByFirstWord(*lines);
    _hasAskedFeatures = true;
  }
  return _features ? &*_features : nullptr;
}

bool DaemonSession::CanAmend() {
  const std::map<std::string, std::string>* features = FindFeatures();
  return features != nullptr && features->count("amend") != 0;
}

std::map<std::string, std::string> DaemonSession::GetWhoami() {
  return Run([&] { return _client->GetWhoami(); });
}

std::string DaemonSession::TakeRefusal() {
  return Run([&] { return _client->TakeRefusal(); });
}

Session::Answer DaemonSession::Ask(const std::string& line, Effect effect) {
  if (effect == Effect::kSettings) Introduce(Groups{line});
  try {
    ProtocolClient::Answer answer = Run([&] { return _client->Ask(line); });
    return {answer.isRefused, std::move(answer.reason), std::move(answer.data)};
  } catch (const Failure& failure) {
    if (failure.GetCode() != kExitNotApplied) throw;
    throw Failure(kExitNotApplied, Join({GetAddress(), " has no '", NameOfFeature(line), "'"}));
  }
}

void DaemonSession::SetTrial(unsigned seconds, const std::string& name) {
  _trialSeconds = seconds;
  _trial = name;
  _hasTried = false;
}

// A daemon that reports features takes notes.
void DaemonSession::SetNote(const std::string& note) {
  constexpr size_t kMaxBytes = 256;
  if (note.empty() || note.size() > kMaxBytes || note.find('\n') != std::string::npos)
    throw Failure(kExitUsage, "--note: expected a line of 1 to 256 bytes");
  if (FindFeatures() == nullptr) throw Failure(kExitNotApplied, "not applied: the server is too old for --note");
  _note = note;
}

bool DaemonSession::Amend(const settings::Amendment& amendment) {
  Introduce(amendment.present, amendment.absent, amendment.set, amendment.unset, amendment.replace);
  return Run([&] { return _client->Amend(amendment); });
}

IniFile DaemonSession::Subscribe(const Groups& groups) {
  return Run([&] { return _client->Subscribe(groups); });
}

std::optional<Session::Notice> DaemonSession::AwaitNotice(std::optional<std::chrono::milliseconds> limit) {
  std::optional<ProtocolClient::Notice> notice = Run([&] { return _client->AwaitNotice(limit); });
  if (!notice) return std::nullopt;
  return Notice{std::move(notice->groups), std::move(notice->settings)};
}

}  // namespace tavix::programs
