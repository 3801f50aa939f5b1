#include "programs/server/history/RollbackWords.h"

#include <cstdint>
#include <exception>
#include <new>
#include <optional>
#include <utility>

#include "programs/server/history/EntryAnswer.h"
#include "programs/server/history/RequestWords.h"
#include "programs/server/history/Rollback.h"
#include "programs/server/history/SettingsOfCheckpoint.h"
#include "programs/server/history/SettingsOfRevision.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/RefusedChange.h"

namespace tavix::daemon {

using settings::server::ChangeOrigin;
using settings::server::RefusedChange;

namespace {

constexpr std::string_view kRollback = "rollback";
constexpr std::string_view kTest = "test-rollback";
constexpr char kCheckpointMark = '@';

}  // namespace

const RollbackWords::Command* RollbackWords::Find(std::string_view word) const {
  static const Command rollback{true, true, false, false};
  static const Command test{true, false, true, false};
  if (word == kRollback) return &rollback;
  return word == kTest ? &test : nullptr;
}

RollbackWords::Answer RollbackWords::CarryOut(const Call& call) {
  try {
    return RollBack(call);
  } catch (const RefusedChange&) {
    throw;
  } catch (const std::bad_alloc&) {
    return Refuse("out of memory");
  } catch (const std::exception& exception) {
    return Refuse(exception.what());
  }
}

// What is answered is durable before anybody is shown it.
RollbackWords::Answer RollbackWords::RollBack(const Call& call) {
  std::string_view args = call.args;
  const std::string name = TakeArgument(args);
  const SettingsFilter filter(TakeRest(args));
  const std::unique_ptr<EarlierSettings> earlier = FindEarlier(name, filter);
  Rollback rollback(_store, _history, *earlier, filter);
  ChangeOrigin origin = call.origin;
  origin.command = kRollback;
  Answer answer = Show({});
  const bool isTest = call.word == kTest;
  const HistoryEntry entry = isTest ? rollback.Test(origin) : rollback.Make(origin, answer.ticket);
  const bool isDifferent = !entry.was.IsEmpty() || !entry.is.IsEmpty();
  if (isDifferent) AddEntry(entry, 0, answer.data);
  if (isTest || !isDifferent) answer.ticket = _gate.FindLast(nullptr);
  return answer;
}

std::unique_ptr<EarlierSettings> RollbackWords::FindEarlier(const std::string& name,
                                                            const SettingsFilter& filter) const {
  if (!name.empty() && name.front() == kCheckpointMark)
    return std::make_unique<SettingsOfCheckpoint>(_history, _checkpoints.Load(name.substr(1)).settings);
  const std::optional<uint64_t> revision = ParseDecimal(name);
  if (!revision) throw osa::Exception("'%s' is neither a revision nor \"@\" and a checkpoint", name.c_str());
  return std::make_unique<SettingsOfRevision>(_history, filter, *revision, _maxBytes);
}

void RollbackWords::AddFeatures(std::set<std::string>& features) const {
  features.emplace(kRollback);
}

}  // namespace tavix::daemon
