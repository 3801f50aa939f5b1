#include "programs/cli/terminal/Confirmation.h"

#include "programs/cli/terminal/Console.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

constexpr size_t kMaxShown = 20;

std::string ListNames(const std::set<std::string>& groups) {
  std::string lines;
  size_t shown = 0;
  for (const std::string& group : groups) {
    if (++shown > kMaxShown) break;
    lines += "  " + SpellName(group) + "\n";
  }
  if (groups.size() > kMaxShown) lines += "  ... and " + std::to_string(groups.size() - kMaxShown) + " more\n";
  return lines;
}

}  // namespace

void Confirm(const std::string& cause, const std::string& action, const std::set<std::string>& groups) {
  if (!Console::CanAsk())
    throw Failure(kExitUsage, cause + " would " + action + ": give --yes to do it", "--dry-run shows them");
  std::string question = action + "?";
  question[0] = static_cast<char>(question[0] - 'a' + 'A');
  if (!Console::Ask(ListNames(groups) + question)) throw Failure(kExitNo, "nothing was changed");
}

}  // namespace tavix::programs::cli
