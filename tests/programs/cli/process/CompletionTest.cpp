#include <mutex>

#include "tests/programs/cli/process/CommandTest.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/RunLength.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::test {

namespace {

class Completion : public CommandTest {
 protected:
  static std::string Escaped(const std::string& word) {
    std::string text;
    for (const char c : word) text += (c == '\'' || c == '\\' ? "\\" : "") + std::string(1, c);
    return text;
  }

  // The replies that bash collects for a line of these words, with the cursor behind the last; again likewise.
  std::string InBash(const Words& words) const {
    return AskAgainWhile("\n", [&] { return InBashOnce(words); });
  }

  std::string InBashOnce(const Words& words) const {
    std::string line;
    for (const std::string& word : words) line += " $'" + Escaped(word) + "'";
    const std::string script = "source '" + std::string(TAVIX_SOURCE_DIR) +
                               "/programs/cli/completion/tavix-settings.bash'\n"
                               "COMP_WORDS=('" TAVIX_CLI_PROGRAM "'" +
                               line +
                               ")\n"
                               "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_tavix_settings\n"
                               "printf '%s\\n' \"${COMPREPLY[@]}\"\n";
    const Outcome outcome = RunToEnd(_directory.GetPath(), {"bash", "-c", script}, {}, Environment());
    EXPECT_EQ(outcome.errors, "");
    return outcome.output;
  }
};

}  // namespace

TEST_F(Completion, KnowsCommandsAndOptions) {
  EXPECT_EQ(CompleteOnce({"se"}),
            "search\tFind text in names, keys and values\nset\tSet one or many settings, in one step\n");
  EXPECT_EQ(CompleteOnce({"bridge", "di"}), "diff\tPrint what differs between here and there\n");
  EXPECT_EQ(CompleteOnce({"resource", "rel"}), "release\tGive back all that the consumer has\n");
  EXPECT_EQ(CompleteOnce({"get", "--def"}), "--default\tWhat to print for a setting that is not set\n");
  EXPECT_EQ(CompleteOnce({"get", "--jso"}), "--json\tThe same as --output json\n");
  EXPECT_EQ(Complete({"-o", "j"}), "json\n");
  EXPECT_EQ(Complete({"--output=s"}), "--output=shell\n");
  EXPECT_EQ(Complete({"--color", ""}), "auto\nalways\nnever\n");
  EXPECT_EQ(CompleteOnce({"help", "wat"}), "watch\tPrint changes as they come, until Ctrl-C\n");
  EXPECT_EQ(Complete({"completion", "z"}), "zsh\n");
  EXPECT_EQ(Complete({"log-level", "Network/Eth0", "wa"}), "warning\n");
}

TEST_F(Completion, TellsWhereAFileBelongs) {
  for (const Words& words : std::vector<Words>{{"import", ""}, {"diff", "x"}, {"--local", ""}, {"get", "--local=x"}}) {
    EXPECT_EQ(CompleteOnce(words), "\tfiles\n");
  }
  EXPECT_EQ(CompleteOnce({"set", "[A]b", "x"}), "");
  EXPECT_EQ(CompleteOnce({"search", "x"}), "");
}

TEST_F(Completion, KnowsGroupsAndKeysOfTheLiveStore) {
  EXPECT_EQ(Complete({"get", "Network/"}), "Network/Eth0\nNetwork/Wlan0\n");
  EXPECT_EQ(Complete({"get", "[Network/"}), "[Network/Eth0]\n[Network/Wlan0]\n");
  EXPECT_EQ(Complete({"get", "'[Network/E"}), "[Network/Eth0]\n");
  EXPECT_EQ(Complete({"get", "[Network/Eth0]"}), "[Network/Eth0]address\n[Network/Eth0]dhcp\n");
  EXPECT_EQ(Complete({"get", "Network/Eth0", "d"}), "dhcp\n");
  EXPECT_EQ(Complete({"set", "--if", "[Network/Eth0]a"}), "[Network/Eth0]address\n");
  EXPECT_EQ(Complete({"show", "Device/Identity", "Network/"}), "Network/Eth0\nNetwork/Wlan0\n");
  EXPECT_EQ(Complete({"diff", "x.ini", "Device/"}), "Device/Identity\n");
  Merge("[New]\nx=1\n");
  EXPECT_EQ(Complete({"list", "New"}), "New\n");
}

TEST_F(Completion, GoesPathByPath) {
  Merge("[Network]\nx=1\n[Net/a/b]\nx=1\n[Net/a/c]\nx=1\n");
  EXPECT_EQ(Complete({"get", "Ne"}), "Net/\nNetwork\nNetwork/\n");
  EXPECT_EQ(Complete({"get", "[Ne"}), "[Net/\n[Network]\n[Network/\n");
  EXPECT_EQ(Complete({"get", "Net/"}), "Net/a/\n");
  EXPECT_EQ(Complete({"get", "[Net/a/"}), "[Net/a/b]\n[Net/a/c]\n");
}

TEST_F(Completion, AsksForGroupsThatBeginWithTheWordAlone) {
  const ScriptedServer server;
  std::mutex mutex;  // what comes too late is asked for again: then two connections write the request
  std::string request;
  {
    const ServerThreads threads(server, [&](ServerEnd& peer, size_t) {
      const std::string received = peer.ReadThrough();
      {
        const std::lock_guard<std::mutex> lock(mutex);
        request = received;
      }
      peer.Send("data\n[Net/a]\n[Net/b]\nx=[Net/c]\n.\n");
      peer.ReadToEnd();
    });
    EXPECT_EQ(Complete({"-s", "127.0.0.1:" + std::to_string(server.GetPort()), "get", "Ne"}), "Net/\n");
  }
  EXPECT_EQ(request, "get delimited\nNe*\n.\n");
}

TEST_F(Completion, KnowsResourcesAndConsumers) {
  Merge("[Resources/Bandwidth/Consumers/Live]\nCurrentlyUsed=0\n");
  EXPECT_EQ(Complete({"resource", "show", "B"}), "Bandwidth\n");
  EXPECT_EQ(Complete({"resource", "reserve", "Bandwidth", "5", "-c", "L"}), "Live\n");
}

TEST_F(Completion, LooksWhereTheOtherWordsSay) {
  _directory.Write("x.ini", "[Local/Group]\nx=1\n");
  EXPECT_EQ(Complete({"--local", "x.ini", "get", "Local/"}), "Local/Group\n");
  EXPECT_EQ(CompleteOnce({"--server=127.0.0.1:1", "get", "N"}), "");
}

TEST_F(Completion, IsDoneInTimeWhateverTheServerDoes) {
  const ListeningSocket silent;
  const long took = MillisecondsOf([&] {
    EXPECT_EQ(CompleteOnce({"-s", "127.0.0.1:" + std::to_string(silent.GetPort()), "get", "N"}), "");
  });
  EXPECT_GE(took, 200);
  if (IsLongRun()) {
    EXPECT_LT(took, 1000);  // a busy machine may start programs late
  }
}

TEST_F(Completion, IsPrintedForEachShellAsItIsInstalled) {
  const std::string folder = std::string(TAVIX_SOURCE_DIR) + "/programs/cli/completion/";
  for (const auto& [shell, file] : std::vector<std::pair<std::string, std::string>>{
           {"bash", "tavix-settings.bash"}, {"zsh", "_tavix-settings"}, {"fish", "tavix-settings.fish"}}) {
    const Outcome text = RunToEnd(_directory.GetPath(), {"cat", folder + file});
    ExpectRun({"completion", shell}, 0, text.output, "");
  }
  ExpectRun({"completion", "csh"}, 2, "",
            "tavix-settings: there is no completion for 'csh', only for bash, zsh and fish\n");
}

TEST_F(Completion, WorksInBash) {
  EXPECT_EQ(InBash({"se"}), "search\nset\n");
  EXPECT_EQ(InBash({"get", "Network/E"}), "Network/Eth0\n");
  EXPECT_EQ(InBash({"get", "[Network/E"}), "\\[Network/Eth0\\]\n");
  EXPECT_EQ(InBash({"--output", "=", "js"}), "json\n");
  EXPECT_EQ(InBashOnce({"-s", "127.0.0.1", ":", "1", "get", "N"}), "\n");
}

TEST_F(Completion, InBashLeavesWhatStandsBehindAQuoteWhole) {
  Merge("[fe80::1/if]\nwe:ird=1\n[My Group]\nkey=1\n");
  EXPECT_EQ(InBash({"get", "'[fe80::"}), "[fe80::1/\n");
  EXPECT_EQ(InBash({"get", "'[fe80::1/"}), "[fe80::1/if]\n");
  EXPECT_EQ(InBash({"get", "'[fe80::1/if]we:"}), "[fe80::1/if]we:ird\n");
  EXPECT_EQ(InBash({"get", "\"[My"}), "[My Group]\n");
  EXPECT_EQ(InBash({"get", "fe80", "::", "1"}), "1/\n");
}

TEST_F(Completion, InBashTakesWordsAsTheShellDoes) {
  Merge("[My Group]\nkey=1\n");
  EXPECT_EQ(InBash({"get", "'My Group'", ""}), "key\n");
  EXPECT_EQ(InBash({"get", "\"My Group\"", ""}), "key\n");
  EXPECT_EQ(InBash({"get", "My\\ Group", ""}), "key\n");
  EXPECT_EQ(InBash({"get", "\\[My\\ Group\\]"}), "\\[My\\ Group\\]key\n");
}

}  // namespace tavix::test
