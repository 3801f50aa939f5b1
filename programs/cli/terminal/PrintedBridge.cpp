#include "programs/cli/terminal/PrintedBridge.h"

#include <chrono>
#include <cstdlib>
#include <optional>

#include "programs/cli/text/LocalTime.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

// Of kOptionalText and kTime an empty one is none.
enum class Kind : char { kText, kOptionalText, kTime, kCount, kSeconds };

// A member of a status.
struct Figure {
  char member[16];
  char label[16];
  Kind kind;
};

constexpr Figure kFigures[] = {{"engine", "engine", Kind::kText},
                               {"state", "state", Kind::kText},
                               {"link", "link", Kind::kText},
                               {"since", "  since", Kind::kTime},
                               {"daemon", "daemon", Kind::kText},
                               {"lag", "lag", Kind::kSeconds},
                               {"waiting", "waiting", Kind::kCount},
                               {"conflicts", "conflicts", Kind::kCount},
                               {"overridden", "overridden", Kind::kCount},
                               {"refused", "refused", Kind::kCount},
                               {"held", "held", Kind::kCount},
                               {"undecided", "undecided", Kind::kCount},
                               {"leftOut", "left out", Kind::kCount},
                               {"lastError", "last error", Kind::kOptionalText},
                               {"lastErrorTime", "  at", Kind::kTime}};

[[noreturn]] void FailAt(const std::string& source, const std::string& place, const char* problem,
                         const std::string& found) {
  constexpr size_t kMaxShown = 40;
  throw Failure(kExitBadInput, source + ": '" + place + "'" + problem + SpellValue(found.substr(0, kMaxShown)));
}

const char* ExpectedFor(char kind) {
  if (kind == kJsonText) return ": expected a string, found ";
  if (kind == kJsonNumber) return ": expected a whole number from 0 on, found ";
  return kind == kJsonList ? ": expected a list, found " : ": expected true or false, found ";
}

// One answer, with what it comes from.
class Answer {
 public:
  Answer(const Console& console, const JsonPlaces& places, const std::string& source)
      : _console(console), _places(places), _source(source) {}

  std::string Take(const std::string& place, char kind) const { return TakePlace(_places, _source, place, kind); }

  // How many items a list has, which lie in memory: the count always fits.
  size_t Count(const std::string& place) const {
    return static_cast<size_t>(std::strtoull(Take(place, kJsonList).c_str(), nullptr, 10));
  }

  // Empty for 0, which stands for no time.
  std::string ShowTime(const std::string& place) const {
    constexpr unsigned long long kMax = 9214646399;  // the last second of 2261: the clock has few more
    const std::string text = Take(place, kJsonNumber);
    const unsigned long long seconds = std::strtoull(text.c_str(), nullptr, 10);
    if (seconds > kMax) FailAt(_source, place, ": expected seconds since 1970, found ", text);
    return seconds == 0 ? std::string()
                        : ShowLocalTime(std::chrono::system_clock::time_point(std::chrono::seconds(seconds)));
  }

  std::string ShowSetting(const std::string& group, const std::string& key) const {
    return _console.Paint(Console::kGroup, "[" + SpellName(TakeName(group)) + "]") +
           _console.Paint(Console::kKey, SpellKey(TakeName(key)));
  }

  // Neither an empty value nor none looks like a value.
  std::string ShowSide(const std::string& place, Console::Color color) const {
    constexpr char kMarks[][12] = {"(not set)", "(masked)", "''"};
    if (HasKind(place, kJsonNull)) return _console.Paint(Console::kDim, kMarks[0]);
    if (HasKind(place + ".masked", kJsonTrue)) return _console.Paint(Console::kDim, kMarks[1]);
    const bool isBase64 = HasKind(place, kJsonObject);
    const std::string text = Take(isBase64 ? place + ".base64" : place, kJsonText);
    std::string spelled = SpellValue(isBase64 ? Decode(place, DecodeBase64(text)) : text);
    if (spelled.empty()) return _console.Paint(color, kMarks[2]);
    for (const char* mark : kMarks) {
      if (spelled == mark) spelled.replace(0, 1, mark[0] == '(' ? "\\x28" : "\\x27");
    }
    return _console.Paint(color, spelled);
  }

  std::string ShowSides(const std::string& place) const {
    return ": here " + ShowSide(place + ".here", Console::kRemoved) + "  there " +
           ShowSide(place + ".there", Console::kAdded);
  }

 private:
  bool HasKind(const std::string& place, char kind) const {
    const auto found = _places.find(place);
    return found != _places.end() && found->second.front() == kind;
  }

  std::string TakeName(const std::string& place) const { return Decode(place, NameFromJson(Take(place, kJsonText))); }

  std::string Decode(const std::string& place, std::optional<std::string> bytes) const {
    if (!bytes) FailAt(_source, place, ": expected base64", "");
    return *std::move(bytes);
  }

  const Console& _console;
  const JsonPlaces& _places;
  const std::string& _source;
};

std::string ItemOf(const std::string& list, size_t number) {
  return list + "[" + std::to_string(number) + "]";
}

}  // namespace

std::string TakePlace(const JsonPlaces& places, const std::string& source, const std::string& place, char kind) {
  const auto found = places.find(place);
  if (found == places.end()) FailAt(source, place, " is missing", "");
  const char is = found->second.front();
  if (is != kind && !(kind == kJsonTrue && is == kJsonFalse))
    FailAt(source, place, ExpectedFor(kind), is == kJsonText ? "a string" : found->second.substr(1));
  return kind == kJsonTrue ? std::string(is == kJsonTrue ? "true" : "") : found->second.substr(1);
}

std::string ShowBridgeStatus(const Console& console, const JsonPlaces& places, const std::string& source, int& code) {
  constexpr size_t kWidth = 15;
  const Answer answer(console, places, source);
  std::string text;
  for (const Figure& figure : kFigures) {
    const bool isText = figure.kind == Kind::kText || figure.kind == Kind::kOptionalText;
    std::string value = figure.kind == Kind::kTime ? answer.ShowTime(figure.member)
                                                   : answer.Take(figure.member, isText ? kJsonText : kJsonNumber);
    if (value.empty() && figure.kind != Kind::kText) continue;
    text += figure.label;
    text.append(kWidth - std::char_traits<char>::length(figure.label), ' ');
    text += SpellValue(value) + (figure.kind == Kind::kSeconds ? " s\n" : "\n");
  }
  code = answer.Take("state", kJsonText) == "in sync" ? kExitDone : kExitNo;
  if (answer.Take("held", kJsonNumber) != "0")
    console.Say("'tavix-settings bridge sync --accept' accepts the losses that are held");
  if (answer.Take("undecided", kJsonNumber) != "0")
    console.Say("'tavix-settings bridge sync --from centre|device' decides who is right first");
  return text;
}

std::string ShowBridgeDifferences(const Console& console, const JsonPlaces& places, const std::string& source,
                                  int& code) {
  const Answer answer(console, places, source);
  const bool hasMore = !answer.Take("more", kJsonTrue).empty();
  const size_t groups = answer.Count("groups");
  std::string text;
  for (size_t i = 0; i < groups; ++i) {
    const std::string group = ItemOf("groups", i);
    const size_t keys = answer.Count(group + ".keys");
    for (size_t k = 0; k < keys; ++k) {
      const std::string key = ItemOf(group + ".keys", k);
      text += answer.ShowSetting(group + ".group", key + ".key") + answer.ShowSides(key) + "  agreed " +
              answer.ShowSide(key + ".agreed", Console::kPlain) + "\n";
    }
  }
  if (hasMore) console.Say("there are more groups that differ");
  code = groups == 0 && !hasMore ? kExitDone : kExitNo;
  return text;
}

std::string ShowBridgeConflicts(const Console& console, const JsonPlaces& places, const std::string& source, int&) {
  const Answer answer(console, places, source);
  const size_t conflicts = answer.Count("conflicts");
  std::string text;
  for (size_t i = 0; i < conflicts; ++i) {
    const std::string item = ItemOf("conflicts", i);
    const std::string time = answer.ShowTime(item + ".time");
    text += time + (time.empty() ? "" : "  ") + answer.ShowSetting(item + ".group", item + ".key") +
            answer.ShowSides(item) + "  kept " + SpellValue(answer.Take(item + ".winner", kJsonText)) + "\n";
  }
  return text;
}

}  // namespace tavix::programs::cli
