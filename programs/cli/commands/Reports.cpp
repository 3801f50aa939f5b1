#include "programs/cli/commands/Reports.h"

#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

int ReportMissing(Context& context, const MissingGroups& missing) {
  for (const std::string& group : missing.Get()) Console::Warn(DescribeMissingGroup(context.GetSession(), group));
  return missing.Get().empty() ? kExitDone : kExitNo;
}

}  // namespace tavix::programs::cli
