#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Follower.h"
#include "programs/cli/text/Assignments.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Options {
  std::vector<std::string> words;
  double seconds = -1;  // negative: no end
  bool isUnset = false;
  bool isChanged = false;
};

using Value = std::optional<std::string>;

// One setting, and what is waited for: this value, or any.
struct Condition {
  std::string group;
  std::string key;
  Value value;
};

Value ValueOf(const IniFile& settings, const Condition& condition) {
  if (!settings.HasValue(condition.group, condition.key)) return std::nullopt;
  return settings.GetValue(condition.group, condition.key);
}

// "[group]key", or with "=value"; GROUP KEY, or with a third word.
std::vector<Condition> ParseWaits(const Options& options) {
  std::vector<Condition> conditions;
  const std::vector<std::string>& words = options.words;
  const bool isBare = !words.empty() && (words[0].empty() || words[0].front() != '[');
  const bool isPair = isBare && words.size() == 2 && words[1].find('=') == std::string::npos;
  for (const std::string& word : words) {
    const size_t close = word.find(']');
    const bool hasValue = isBare || (close != std::string::npos && word.find('=', close) != std::string::npos);
    if (isPair || (isBare && !conditions.empty())) break;
    const IniFile assigned = hasValue ? ParseAssignments(isBare ? words : std::vector<std::string>{word}) : IniFile();
    for (const auto& [group, keys] : assigned) {
      for (const auto& [key, value] : keys) conditions.push_back({group, key, value});
    }
    if (hasValue) continue;
    const Target target = ParseSettings({word}).front();
    conditions.push_back({target.group, *target.key, std::nullopt});
  }
  if (isPair) {
    RefusePattern(words[0]);
    conditions.push_back({words[0], words[1], std::nullopt});
  }
  return conditions;
}

void RequireNamesAlone(const std::vector<Condition>& conditions, const Options& options) {
  if (!options.isUnset && !options.isChanged) return;
  for (const Condition& condition : conditions) {
    if (condition.value)
      throw Failure(kExitUsage, "--unset and --changed take '[group]key' without a value, not " +
                                    SpellAssignment(condition.group, condition.key, *condition.value));
  }
}

class Wait {
 public:
  Wait(Context& context, const Options& options)
      : _options(options), _conditions(ParseWaits(options)), _follower(context, GroupsOf(_conditions)) {
    for (const Condition& condition : _conditions) _before.push_back(ValueOf(_follower.GetSettings(), condition));
  }

  int Run() {
    Follower::End end;
    if (_options.seconds >= 0)
      end = Follower::Clock::now() + std::chrono::milliseconds(static_cast<long long>(_options.seconds * 1000));
    while (!Holds()) {
      if (!_follower.AwaitChange(end) && !Holds()) throw Failure(kExitNo, "waited in vain: " + DescribeFirst());
    }
    return kExitDone;
  }

 private:
  static std::set<std::string> GroupsOf(const std::vector<Condition>& conditions) {
    std::set<std::string> groups;
    for (const Condition& condition : conditions) groups.insert(condition.group);
    return groups;
  }

  bool Holds(size_t index) const {
    const Value value = ValueOf(_follower.GetSettings(), _conditions[index]);
    if (_options.isChanged) return value != _before[index];
    if (_options.isUnset) return !value;
    return value && (!_conditions[index].value || *value == *_conditions[index].value);
  }

  bool Holds() const {
    for (size_t i = 0; i < _conditions.size(); ++i) {
      if (!Holds(i)) return false;
    }
    return true;
  }

  std::string DescribeFirst() const {
    size_t index = 0;
    while (index + 1 < _conditions.size() && Holds(index)) ++index;
    const Condition& condition = _conditions[index];
    const Value value = ValueOf(_follower.GetSettings(), condition);
    const std::string name = SpellSetting(condition.group, condition.key);
    return value ? name + " is '" + SpellValue(*value) + "'" : name + " is not set";
  }

  const Options& _options;
  const std::vector<Condition> _conditions;
  Follower _follower;
  std::vector<Value> _before;  // of each condition
};

}  // namespace

void AddWait(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command =
      line.Add("wait", "Wait until settings have a value, or are there at all", [options](Context& context) {
        RequireNamesAlone(ParseWaits(*options), *options);
        return Wait(context, *options).Run();
      });
  command.AddTexts("SETTING", options->words, "'[group]key=value', '[group]key', GROUP KEY, or GROUP KEY VALUE")
      .Require();
  command.AddSeconds("--timeout", options->seconds, 0, "Give up after so many seconds, with exit status 1");
  const DeclaredOption unset = command.AddFlag("--unset", options->isUnset, "Until the settings are not there");
  command.AddFlag("--changed", options->isChanged, "Until the settings are not what they are now").Exclude(unset);
}

}  // namespace tavix::programs::cli
