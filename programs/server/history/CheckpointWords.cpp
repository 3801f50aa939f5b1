#include "programs/server/history/CheckpointWords.h"

#include <cstdint>
#include <new>
#include <utility>

#include "programs/server/history/RequestWords.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/server/LayerView.h"

namespace tavix::daemon {

namespace {

constexpr std::string_view kCheckpoint = "checkpoint";
constexpr std::string_view kForget = "forget";

void Add(const std::string& name, const Checkpoints::Checkpoint& checkpoint, core::IniFile& answer) {
  core::IniFile::KeyMap& keys = answer[name];
  keys["bytes"] = std::to_string(checkpoint.bytes);
  if (checkpoint.damage.empty()) {
    keys["revision"] = std::to_string(checkpoint.revision);
    keys["time"] = std::to_string(checkpoint.time);
  } else {
    keys["damaged"] = checkpoint.damage;
  }
}

}  // namespace

const CheckpointWords::Command* CheckpointWords::Find(std::string_view word) const {
  static const Command command{true, false, false, false};
  return word == kCheckpoint || word == kForget ? &command : nullptr;
}

CheckpointWords::Answer CheckpointWords::CarryOut(const Call& call) {
  const std::string name = TakeRest(call.args);
  try {
    if (call.word == kForget) {
      _checkpoints.Forget(name);
      return Show({});
    }
    return name.empty() ? List() : Make(name);
  } catch (const Checkpoints::Refused& refusal) {
    return Refuse(refusal.what());
  } catch (const std::bad_alloc&) {
    return Refuse("out of memory");
  }
}

// What it holds is durable before anybody is shown it.
CheckpointWords::Answer CheckpointWords::Make(const std::string& name) {
  _checkpoints.RequireRoomFor(name);
  constexpr int kMaxRounds = 8;
  core::StringOstream text;
  bool isSpelled = false;
  for (int round = 0; round < kMaxRounds && !isSpelled; ++round) isSpelled = TryToSpell(text);
  if (!isSpelled) SpellCopy(text);
  _checkpoints.Save(name, text);
  core::IniFile made;
  Add(name, _checkpoints.Load(name), made);
  Answer answer = Show(std::move(made));
  answer.ticket = _gate.FindLast(nullptr);
  return answer;
}

// In parts, so that no writer waits for the whole text. False when there was a change while the last part was made:
// then the text may have it, or not.
bool CheckpointWords::TryToSpell(core::StringOstream& text) const {
  text.Reset(text.GetText().size());
  uint64_t revision = 0;
  const auto begin = [&] {
    revision = _history.GetRange().last;
    Checkpoints::Begin(text, revision);
  };
  _store.DumpUserSettingsInParts(text, {{}, begin});
  return _history.GetRange().last == revision;
}

// Where there are changes all the time.
void CheckpointWords::SpellCopy(core::StringOstream& text) const {
  core::IniFile settings;
  uint64_t revision = 0;
  _store.ReadUserSettings([&](const settings::server::LayerView& user) {
    settings = user.Copy();
    revision = _history.GetRange().last;
  });
  text.Reset(text.GetText().size());
  Checkpoints::Begin(text, revision);
  settings.SaveToStream(text);
}

CheckpointWords::Answer CheckpointWords::List() const {
  core::IniFile answer;
  for (const auto& [name, checkpoint] : _checkpoints.List()) Add(name, checkpoint, answer);
  return Show(std::move(answer));
}

}  // namespace tavix::daemon
