#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Backup.h"
#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

namespace {

struct Options {
  std::vector<std::string> words;
  bool isUserLayer = false;
};

int Export(Context& context, const Options& options) {
  context.RequireOutput({Output::kIni, Output::kJson});
  const std::set<std::string> groups = ParseSelection(options.words);
  const std::string coverage = context.PrintsJson() ? std::string() : DescribeCoverage(groups);
  DocumentPrinter printer(context.GetConsole(), context.GetOptions().output);
  const size_t leftOut =
      ReadStoreEach(context.GetSession(), groups, options.isUserLayer, [&](const core::IniFile& part) {
        if (printer.IsEmpty()) context.GetConsole().Print(coverage);
        printer.Add(part);
      });
  if (printer.IsEmpty() && !options.words.empty())
    return ReportMissing(context, MissingGroups(ParseGroups(options.words)));
  if (printer.IsEmpty()) context.GetConsole().Print(coverage);
  printer.Finish();
  if (!coverage.empty()) context.GetConsole().Print(MarkEnd());
  if (leftOut > 0)
    context.GetConsole().Say("left out: " + Count(leftOut, "restricted group") + ", which no import could set");
  return kExitDone;
}

}  // namespace

void AddExport(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("export", "Print a backup, as ini or with --json",
                                          [options](Context& context) { return Export(context, *options); });
  command.AddTexts("GROUP", options->words, "Groups or '*' patterns; without any, all that are not restricted");
  command.AddFlag("--user", options->isUserLayer, "Only what users changed, and what they deleted");
}

}  // namespace tavix::programs::cli
