#include "programs/cli/commands/Reports.h"

#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs::cli {

int ReportMissing(Context& context, const MissingGroups& missing) {
  for (const std::string& group : missing.Get()) Console::Warn(DescribeMissingGroup(context.GetSession(), group));
  return missing.Get().empty() ? kExitDone : kExitNo;
}

namespace {

// The change is made, whatever becomes of the connection behind it.
Keeping FindKeepingIfAnswered(Session& session) {
  try {
    return FindKeeping(session);
  } catch (const Failure& failure) {
    Console::Warn(std::string("it is unknown whether the change is kept: ") + failure.what());
    return Keeping();
  }
}

Keeping FindKeepingOrFail(Context& context, const std::string& verb) {
  Keeping keeping = FindKeepingIfAnswered(context.GetSession());
  if (!keeping.failure.empty()) throw Failure(kExitNotKept, verb + ", but not kept: " + SpellValue(keeping.failure));
  return keeping;
}

}  // namespace

void RequireKept(Context& context, const std::string& verb) {
  FindKeepingOrFail(context, verb);
}

void ReportDone(Context& context, const std::string& verb, const std::string& count) {
  const Keeping keeping = FindKeepingOrFail(context, verb);
  const std::string done = keeping.endsWithServer ? "done, until the server ends" : "done";
  context.GetConsole().Say(count.empty() ? done : done + ": " + count);
}

}  // namespace tavix::programs::cli
