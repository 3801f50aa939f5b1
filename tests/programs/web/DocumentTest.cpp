// What documents show of the HTTP interface is what happens.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

#include "tests/programs/server/FencedBlocks.h"
#include "tests/programs/web/Web.h"
#include "tests/support/CommandProcess.h"
#include "tests/support/Environment.h"

namespace tavix::test {

namespace {

constexpr char kPrompt[] = "$ ";

// A program of that name in the directory, which runs these words of a shell.
void WriteProgram(const TemporaryDirectory& directory, const std::string& name, const std::string& words) {
  const std::string path = directory.Path(name);
  std::ofstream(path) << "#!/bin/bash\nexec " << words << "\n";
  std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

// Each command of the document's sessions, and what it shows below it.
std::vector<std::pair<std::string, std::string>> ReadCommands(const std::string& document) {
  std::vector<std::pair<std::string, std::string>> commands;
  for (const FencedBlock& block : ReadFencedBlocks(document)) {
    if (block.kind != "console") continue;
    for (const std::string& line : block.lines) {
      if (line.rfind(kPrompt, 0) == 0) {
        commands.emplace_back(line.substr(sizeof kPrompt - 1), "");
      } else {
        commands.back().second += line + "\n";
      }
    }
  }
  return commands;
}

}  // namespace

TEST(WebDocument, ShowsWhatCurlShows) {
  const TemporaryDirectory directory;
  const TemporaryDirectory tools;
  const std::string device = TAVIX_SOURCE_DIR "/examples/device/";
  const Daemon daemon(directory, {"--defaults", device + "defaults.d", "--restricted", device + "restricted.d",
                                  "--user-settings", "user.ini", "--history", "1048576"});
  const WebProcess process(directory, daemon.AwaitAddresses()[0]);
  WriteProgram(tools, "curl",
               TAVIX_CURL_PROGRAM " \"${@//127.0.0.1:7280/127.0.0.1:" + std::to_string(process.GetPort()) + "}\"");
  CommandProcess shell(directory.GetPath(), {"bash"}, {{"PATH", tools.GetPath() + ":/usr/bin:/bin"}, {"LC_ALL", "C"}});
  const auto commands = ReadCommands("docs/web.md");
  EXPECT_GT(commands.size(), 9U);
  std::string shown;
  for (const auto& [command, output] : commands) {
    shell.Write("{ " + command + "\n} </dev/null 2>&1\necho '<end>'\n");
    shown += output + "<end>\n";
    shell.AwaitOutput(shown);
  }
}

// The three commands: the rights of new files, the password's text, the program that asks for the password.
TEST(WebManPage, MakesAPasswordAndAsksForIt) {
  const TemporaryDirectory directory;
  const TemporaryDirectory tools;
  const Daemon daemon(directory);
  const std::string program = "'" TAVIX_WEB_PROGRAM "' --listen 127.0.0.1:0 --server " + daemon.AwaitAddresses()[0];
  WriteProgram(tools, "tavix-settings-web", program + " \"$@\"");
  const std::string path = tools.GetPath() + ":/usr/bin:/bin";
  const ScopedEnvironment environment("PATH", path.c_str());
  const std::vector<std::string> lines = ReadFencedBlocks("docs/man/tavix-settings-web.8.scd").at(0).lines;
  ASSERT_EQ(lines.size(), 3U);
  const Outcome made = RunToEnd(directory.GetPath(), {"bash", "-ec", lines[0] + "\n" + lines[1]}, "open sesame\n");
  ASSERT_EQ(made.status, 0) << made.errors;
  const DaemonProcess process("/bin/bash", directory.GetPath(), {"-c", "exec " + lines[2]});
  const auto logIn = [&](const std::string& password) {
    HttpConnection connection(process.GetPort());
    return connection.Ask("POST", "/api/v1/login", "{\"password\": \"" + password + "\"}").status;
  };
  EXPECT_EQ(logIn("open sesam"), 401);
  EXPECT_EQ(logIn("open sesame"), 204);
  EXPECT_EQ(HttpConnection(process.GetPort()).Ask("GET", "/api/v1/groups").status, 401);
}

}  // namespace tavix::test
