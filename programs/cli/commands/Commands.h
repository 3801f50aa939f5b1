#pragma once

// One function for each command, in a source of its own: it declares the command, its options and what it does.
namespace tavix::programs::cli {

class CommandLine;

void AddGet(CommandLine& line);
void AddList(CommandLine& line);
void AddShow(CommandLine& line);
void AddSearch(CommandLine& line);
void AddSet(CommandLine& line);
void AddUnset(CommandLine& line);
void AddDelete(CommandLine& line);
void AddReset(CommandLine& line);
void AddEdit(CommandLine& line);
void AddDiff(CommandLine& line);
void AddExport(CommandLine& line);
void AddImport(CommandLine& line);
void AddLog(CommandLine& line);
void AddBlame(CommandLine& line);
void AddRollback(CommandLine& line);
void AddCheckpoint(CommandLine& line);
void AddConfirm(CommandLine& line);
void AddRevert(CommandLine& line);
void AddTrials(CommandLine& line);
void AddWatch(CommandLine& line);
void AddWait(CommandLine& line);
void AddStatus(CommandLine& line);
void AddPing(CommandLine& line);
void AddSubscribers(CommandLine& line);
void AddWhoami(CommandLine& line);
void AddResource(CommandLine& line);
void AddLogLevel(CommandLine& line);
void AddBridge(CommandLine& line);
void AddCompletion(CommandLine& line);
void AddHelp(CommandLine& line);
void AddVersion(CommandLine& line);

// All of them, in the order in which help shows them.
void AddAllCommands(CommandLine& line);

}  // namespace tavix::programs::cli
