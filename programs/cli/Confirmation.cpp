#include "programs/cli/Confirmation.h"

#include <algorithm>
#include <cstdio>

#include "programs/cli/Console.h"
#include "programs/cli/Documents.h"
#include "programs/cli/Failure.h"
#include "programs/cli/Spelling.h"

namespace tavix::cli {

namespace {

constexpr size_t kMostShown = 20;

void ShowNames(const std::set<std::string>& groups) {
  size_t shown = 0;
  for (const std::string& group : groups) {
    if (++shown > kMostShown) break;
    std::fprintf(stderr, "  %s\n", SpellName(group).c_str());
  }
  if (groups.size() > kMostShown) std::fprintf(stderr, "  ... and %zu more\n", groups.size() - kMostShown);
}

}  // namespace

void Confirm(const std::string& verb, const std::set<std::string>& groups, bool isGiven) {
  if (isGiven) return;
  if (!Console::CanAsk())
    throw Failure(kExitUsage, "a pattern would " + verb + " " + Count(groups.size(), "group") + ": give --yes to do it",
                  "--dry-run shows them");
  ShowNames(groups);
  std::string question = verb + " " + Count(groups.size(), "group") + "?";
  question[0] = static_cast<char>(question[0] - 'a' + 'A');
  if (!Console::Ask(question)) throw Failure(kExitNo, "nothing was changed");
}

bool HasPattern(const std::set<std::string>& groups) {
  return std::any_of(groups.begin(), groups.end(),
                     [](const std::string& group) { return group.find('*') != std::string::npos; });
}

}  // namespace tavix::cli
