#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Reports.h"
#include "programs/cli/session/Bookings.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Resources.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Suggestion.h"

namespace tavix::programs::cli {

using nlohmann::json;
using settings::ResourceFigures;

namespace {

constexpr size_t kBarWidth = 20;

struct Options {
  std::string resource;
  std::string consumer;
  std::string amount;
};

// How much of the total is used, rounded up, so that little is not nothing.
std::string DrawBar(const Console& console, long long used, long long total) {
  size_t filled = 0;
  if (total > 0 && used > 0) {
    const auto width = static_cast<long long>(kBarWidth);
    filled = static_cast<size_t>(used >= total ? width : (used * width + total - 1) / total);
  }
  const bool isFull = filled == kBarWidth;
  return "[" + console.Paint(isFull ? Console::kRemoved : Console::kAdded, std::string(filled, '#')) +
         std::string(kBarWidth - filled, '.') + "]";
}

size_t WidestOf(const std::set<std::string>& names) {
  size_t width = 0;
  for (const std::string& name : names) width = std::max(width, SpellName(name).size());
  return width;
}

std::string Left(const std::string& text, size_t width) {
  return text + std::string(width - std::min(width, text.size()), ' ');
}

std::string Right(long long number) {
  const std::string text = std::to_string(number);
  return std::string(8 - std::min<size_t>(8, text.size()), ' ') + text;
}

void RequireResource(const ResourceFigures& figures, const std::string& resource) {
  const std::set<std::string> known = figures.GetResources();
  if (known.count(resource) == 0)
    throw Failure(kExitNo, "there is no resource '" + SpellName(resource) + "'" +
                               DidYouMean(resource, {known.begin(), known.end()}));
}

std::string ToLine(const Console& console, const ResourceFigures& figures, const std::string& resource, size_t width) {
  const long long used = figures.GetUsedByAll(resource);
  const long long total = figures.GetTotal(resource);
  return Left(SpellName(resource), width) + "  " + DrawBar(console, used, total) + Right(used) + " of " +
         std::to_string(total) + "\n";
}

int ListResources(Context& context) {
  context.RequireOutput({Output::kJson});
  const core::IniFile read = ReadResources(context.GetSession());
  const ResourceFigures figures(read);
  Console& console = context.GetConsole();
  const std::set<std::string> resources = figures.GetResources();
  if (context.PrintsJson()) {
    json list = json::array();
    for (const std::string& resource : resources) list.push_back(ReportResource(figures, resource));
    console.Print(Pretty(list));
    return kExitDone;
  }
  const size_t width = WidestOf(resources);
  for (const std::string& resource : resources) console.Print(ToLine(console, figures, resource, width));
  return kExitDone;
}

int ShowResource(Context& context, const Options& options) {
  context.RequireOutput({Output::kJson});
  const core::IniFile read = ReadResources(context.GetSession());
  const ResourceFigures figures(read);
  RequireResource(figures, options.resource);
  Console& console = context.GetConsole();
  if (context.PrintsJson()) {
    console.Print(Pretty(ReportResource(figures, options.resource)));
    return kExitDone;
  }
  const std::set<std::string> consumers = figures.GetConsumers(options.resource);
  const size_t width = std::max(WidestOf(consumers) + 2, SpellName(options.resource).size());
  console.Print(ToLine(console, figures, options.resource, width));
  for (const std::string& consumer : consumers) {
    const int used = figures.GetUsed(consumer, options.resource);
    const std::optional<int> max = figures.GetMaxAllowed(consumer, options.resource);
    console.Print(Left("  " + SpellName(consumer), width) + "  " +
                  DrawBar(console, used, figures.GetTotal(options.resource)) + Right(used) +
                  (max ? " of at most " + std::to_string(*max) : "") + "\n");
  }
  return kExitDone;
}

int Reserve(Context& context, const Options& options) {
  const Amount amount = ParseAmount(options.amount);
  RequireCounted(options.consumer, amount);
  Session& session = context.GetSession();
  session.RequireWritable();
  const core::IniFile read = ReadResources(session);
  RequireResource(ResourceFigures(read), options.resource);
  const std::optional<int> booked = Book(session, options.consumer, options.resource, amount);
  if (!booked)
    throw Failure(kExitNo,
                  "'" + SpellValue(options.amount) + "' of " + SpellName(options.resource) + " does not fit for " +
                      SpellName(options.consumer),
                  "'tavix-settings resource show " + SpellName(options.resource) + "' tells who has what");
  ReportDone(context, "booked",
             SpellName(options.consumer) + " has " + std::to_string(*booked) + " of " + SpellName(options.resource));
  return kExitDone;
}

void AddResource(const CommandOptions& command, Options& options) {
  command.AddText("RESOURCE", options.resource, "The resource's name").Require();
}

void AddConsumer(const CommandOptions& command, Options& options) {
  command.AddText("-c,--consumer", options.consumer, "Who books").Require();
}

}  // namespace

void AddResource(CommandLine& line) {
  const CommandOptions group = line.AddGroup("resource", "Show and book shares of resources");
  line.AddTo(group, "ls,list", "Print all resources and how much of each is booked", ListResources);

  const auto options = std::make_shared<Options>();
  const CommandOptions show = line.AddTo(group, "show", "Print who has booked how much of a resource",
                                         [options](Context& context) { return ShowResource(context, *options); });
  AddResource(show, *options);

  const CommandOptions reserve = line.AddTo(group, "reserve", "Book an amount, in place of what the consumer had",
                                            [options](Context& context) { return Reserve(context, *options); });
  AddResource(reserve, *options);
  reserve.AddText("AMOUNT", options->amount, "A whole number, or a share of the total such as 20%").Require();
  AddConsumer(reserve, *options);

  const CommandOptions release =
      line.AddTo(group, "release", "Give back all that the consumer has", [options](Context& context) {
        options->amount = "0";
        return Reserve(context, *options);
      });
  AddResource(release, *options);
  AddConsumer(release, *options);
}

}  // namespace tavix::programs::cli
