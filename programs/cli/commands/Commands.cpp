#include "programs/cli/commands/Commands.h"

namespace tavix::programs::cli {

void AddAllCommands(CommandLine& line) {
  AddGet(line);
  AddList(line);
  AddShow(line);
  AddSearch(line);
  AddSet(line);
  AddUnset(line);
  AddDelete(line);
  AddReset(line);
  AddEdit(line);
  AddDiff(line);
  AddExport(line);
  AddImport(line);
  AddLog(line);
  AddBlame(line);
  AddRollback(line);
  AddCheckpoint(line);
  AddConfirm(line);
  AddRevert(line);
  AddTrials(line);
  AddWatch(line);
  AddWait(line);
  AddStatus(line);
  AddPing(line);
  AddSubscribers(line);
  AddWhoami(line);
  AddResource(line);
  AddLogLevel(line);
  AddBridge(line);
  AddCompletion(line);
  AddHelp(line);
  AddVersion(line);
}

}  // namespace tavix::programs::cli
