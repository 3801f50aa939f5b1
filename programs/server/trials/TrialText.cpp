#include "programs/server/trials/TrialText.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <utility>

#include "programs/server/trials/TrialOrder.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::ClientIdentity;

namespace {

constexpr std::string_view kPending = "#t ";
constexpr std::string_view kOld = "#t- ";
constexpr std::string_view kAbsent = "#t! ";
constexpr std::string_view kWritten = "#t~ ";
constexpr std::string_view kEnd = "#c ";
constexpr char kNobody[] = "-";

std::string_view TakeUntil(std::string_view& text, char end) {
  const size_t at = text.find(end);
  const std::string_view taken = text.substr(0, at);
  text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
  return taken;
}

bool TakeMark(std::string_view& line, std::string_view mark) {
  if (line.substr(0, mark.size()) != mark) return false;
  line.remove_prefix(mark.size());
  return true;
}

// Whether settings text has it as it is, wherever it stands: nearly always.
bool IsPlain(std::string_view text) {
  constexpr std::string_view kSpecial = "\\[]=#;\x7f";
  const bool hasPlainEnds = text.empty() || (text.front() != ' ' && text.back() != ' ');
  return hasPlainEnds && std::none_of(text.begin(), text.end(), [&](char c) {
           return static_cast<unsigned char>(c) < ' ' || kSpecial.find(c) != std::string_view::npos;
         });
}

// The group's line of settings text and, if there is a key, `key=value`.
std::string Spell(const SettingName& name, const std::string& value) {
  if (IsPlain(name.group) && (!name.key || (IsPlain(*name.key) && IsPlain(value)))) {
    std::string text = '[' + name.group + ']';
    if (name.key) text.append(*name.key).append(1, '=').append(value);
    return text;
  }
  IniFile document;
  document[name.group];
  if (name.key) document[name.group][*name.key] = value;
  core::StringOstream out;
  document.SaveToStream(out);
  std::string text = out.GetText();
  text.pop_back();
  const size_t feed = text.find('\n');
  if (feed != std::string::npos) text.erase(feed, 1);
  return text;
}

template <class Id>
std::string SpellId(Id id, Id nobody) {
  return id == nobody ? kNobody : std::to_string(id);
}

template <class Id>
void ReadId(std::string_view text, Id& id) {
  Id read{};
  const auto result = std::from_chars(text.data(), text.data() + text.size(), read);
  if (result.ec == std::errc() && result.ptr == text.data() + text.size()) id = read;
}

ClientIdentity ReadClient(std::string_view text) {
  ClientIdentity client;
  const std::string_view connection = TakeUntil(text, ' ');
  for (const auto known : {ClientIdentity::Connection::kUnix, ClientIdentity::Connection::kTcp,
                           ClientIdentity::Connection::kLocal, ClientIdentity::Connection::kDaemon}) {
    if (connection == ClientIdentity::NameOf(known)) client.connection = known;
  }
  ReadId(TakeUntil(text, ' '), client.user);
  ReadId(TakeUntil(text, ' '), client.group);
  ReadId(TakeUntil(text, ' '), client.process);
  return client;
}

struct Setting {
  SettingName name;
  std::string value;
};

// A name holds no "]" that is not escaped. Empty: it is no setting.
std::optional<Setting> ReadSetting(std::string_view line) {
  const size_t end = line.find(']');
  if (line.empty() || line.front() != '[' || end == std::string_view::npos) return std::nullopt;
  const std::string_view setting = line.substr(end + 1);
  std::string text(line.substr(0, end + 1));
  text.append(1, '\n').append(setting);
  if (!setting.empty() && setting.find('=') == std::string_view::npos) text += '=';
  try {
    IniFile document;
    document.LoadFromMemory(text, "trial");
    const auto group = document.begin();
    if (group == document.end()) return std::nullopt;
    if (group->second.empty()) return Setting{{group->first, std::nullopt}, ""};
    const auto& [key, value] = *group->second.begin();
    return Setting{{group->first, key}, value};
  } catch (const osa::Exception&) {
    return std::nullopt;
  }
}

// One line behind `#t NAME`. False: it is of another kind.
bool ReadLineOfTrial(std::string_view line, const std::string& trial, ITrialLines& lines) {
  const bool isOld = TakeMark(line, kOld);
  const bool isAbsent = !isOld && TakeMark(line, kAbsent);
  if (!isOld && !isAbsent && !TakeMark(line, kWritten)) return false;
  std::optional<Setting> setting = ReadSetting(line);
  if (!setting || trial.empty()) return true;
  if (isOld) {
    lines.OnSetting(trial, std::move(setting->name), std::move(setting->value));
  } else if (isAbsent) {
    lines.OnSetting(trial, std::move(setting->name), std::nullopt);
  } else {
    lines.OnWritten(trial, setting->name);
  }
  return true;
}

}  // namespace

// A key that is empty would look like none without its "=".
std::string SpellSetting(const SettingName& name) {
  std::string text = Spell(name, "");
  if (name.key && !name.key->empty()) text.pop_back();
  return text;
}

std::string SpellClient(const ClientIdentity& client) {
  return std::string(ClientIdentity::NameOf(client.connection)) + " " + SpellId(client.user, ClientIdentity::kNoUser) +
         " " + SpellId(client.group, ClientIdentity::kNoGroup) + " " +
         SpellId(client.process, ClientIdentity::kNoProcess);
}

std::string SpellPending(const std::string& trial, const ClientIdentity& client) {
  return std::string(kPending).append(trial).append(1, ' ').append(SpellClient(client)).append(1, '\n');
}

void AppendOldSettings(const OldSettings& settings, std::string& lines) {
  for (const auto& [name, old] : settings)
    lines.append(old ? kOld : kAbsent).append(old ? Spell(name, *old) : SpellSetting(name)).append(1, '\n');
}

void AppendWrittenSetting(const SettingName& name, std::string& lines) {
  lines.append(kWritten).append(SpellSetting(name)).append(1, '\n');
}

std::string SpellEnd(const std::string& trial, std::string_view state) {
  return std::string(kEnd).append(trial).append(1, ' ').append(state).append(1, '\n');
}

std::string_view TakeTrialLines(std::string_view text) {
  std::string_view rest = text;
  while (rest.substr(0, 2) == "#t" || rest.substr(0, 2) == "#c") TakeUntil(rest, '\n');
  return text.substr(0, text.size() - rest.size());
}

void ReadTrialLines(std::string_view text, ITrialLines& lines) {
  std::string trial;
  while (!text.empty()) {
    std::string_view line = TakeUntil(text, '\n');
    if (TakeMark(line, kPending)) {
      trial = TakeUntil(line, ' ');
      if (!IsTrialName(trial)) trial.clear();
      if (!trial.empty()) lines.OnPending(trial, ReadClient(line));
    } else if (TakeMark(line, kEnd)) {
      const std::string name(TakeUntil(line, ' '));
      if (IsTrialName(name)) lines.OnEnd(name, line);
    } else if (!ReadLineOfTrial(line, trial, lines)) {
      return;
    }
  }
}

}  // namespace tavix::daemon
