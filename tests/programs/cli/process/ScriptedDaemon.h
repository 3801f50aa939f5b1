#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/CommandProcess.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// Requests, and what a server answers to each. Behind a request of one line the features are asked for, too. A trial's
// name is the command's choice: both have NAME in its place.
using Exchange = std::vector<std::pair<std::string, std::string>>;

// The server hangs up in place of an answer.
constexpr char kHangUp[] = "(hangs up)";

// The command beside a server that has these requests to answer, connection by connection, and no others.
class ScriptedDaemon {
 public:
  explicit ScriptedDaemon(std::vector<Exchange> connections)
      : _connections(std::move(connections)), _threads(_server, [this](ServerEnd& peer, size_t number) {
          if (number < _connections.size()) Answer(_connections[number], peer);
        }) {}

  std::string GetAddress() const { return "127.0.0.1:" + std::to_string(_server.GetPort()); }

  // The name of the last trial.
  std::string GetName() const {
    const std::lock_guard<std::mutex> guard(_mutex);
    return _name;
  }

  // A text with NAME in place of the name of the last trial.
  std::string WithoutName(const std::string& text) const { return Replace(text, GetName(), "NAME"); }

  std::vector<std::string> WordsFor(std::vector<std::string> words) const {
    words.insert(words.begin(), {TAVIX_CLI_PROGRAM, "-t", "80"});
    return words;
  }

  // In UTC.
  Variables Environment() const {
    return {{"TAVIX_SETTINGS_SERVER", GetAddress()}, {"LC_ALL", "C"}, {"TZ", "UTC0"}, {"TERM", "xterm"}};
  }

  Outcome Run(const std::vector<std::string>& words, const std::string& input = {}) const {
    return RunToEnd(_directory.GetPath(), WordsFor(words), input, Environment());
  }

  // A line of the shell with the command and its words as "$@".
  Outcome RunInShell(const std::string& line, const std::vector<std::string>& words) const {
    std::vector<std::string> all = WordsFor(words);
    all.insert(all.begin(), {"sh", "-c", line, "sh"});
    return RunToEnd(_directory.GetPath(), all, {}, Environment());
  }

  std::unique_ptr<CommandProcess> Start(const std::vector<std::string>& words,
                                        CommandProcess::Streams streams = CommandProcess::Streams::kPipes) const {
    return std::make_unique<CommandProcess>(_directory.GetPath(), WordsFor(words), Environment(), streams);
  }

 private:
  static std::string Replace(std::string text, const std::string& what, const std::string& by) {
    for (size_t at = 0; !what.empty() && !by.empty() && (at = text.find(what, at)) != std::string::npos;
         at += by.size())
      text.replace(at, what.size(), by);
    return text;
  }

  // What comes, up to the last line of the request. A line with a name that is not known yet is read with the next.
  std::string ReadAs(const std::string& request, ServerEnd& peer) {
    std::istringstream lines(Replace(request, "NAME", GetName()));
    std::string received;
    for (std::string line; std::getline(lines, line);) {
      if (line.find("NAME") == std::string::npos) received += peer.ReadThrough(line);
    }
    std::smatch name;
    if (std::regex_search(received, name, std::regex("try [0-9]+ (t-[0-9a-f]{4})\n"))) SetName(name[1]);
    return WithoutName(received);
  }

  void SetName(const std::string& name) {
    const std::lock_guard<std::mutex> guard(_mutex);
    _name = name;
  }

  // Whether the last line of a request may be unknown to a server: what asks for that stands behind it.
  static bool IsLater(const std::string& request) {
    return std::regex_search(
        request, std::regex("(^|\n)(history|(test-)?rollback|checkpoint|forget|trial|confirm|revert)( [^\n]*)?\n$"));
  }

  void Answer(const Exchange& exchange, ServerEnd& peer) {
    for (const auto& [request, answer] : exchange) {
      const bool isLater = IsLater(request);
      const std::string whole = request + (isLater ? "info features\n" : "");
      EXPECT_EQ(ReadAs(whole, peer), whole);
      if (answer == kHangUp) return;
      peer.Send(Replace(answer, "NAME", GetName()) + (isLater ? "Features\n--------\n\n" : ""));
    }
    EXPECT_EQ(peer.ReadToEnd(), "");
  }

  const std::vector<Exchange> _connections;
  mutable std::mutex _mutex;
  std::string _name;
  const TemporaryDirectory _directory;
  const ScriptedServer _server;
  const ServerThreads _threads;
};

inline Outcome RunBeside(const Exchange& exchange, const std::vector<std::string>& words) {
  return ScriptedDaemon({exchange}).Run(words);
}

}  // namespace tavix::test
