// Completions in the shells themselves, as somebody at a terminal has them.

#include <filesystem>
#include <fstream>
#include <memory>

#include "tests/programs/cli/process/CommandTest.h"

namespace tavix::test {

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// A shell on a terminal, in a directory with a file, with the completion of its kind.
//
// What is typed is taken back by Ctrl-U; the line that is typed behind it tells when the shell is through with it.
class ShellCompletion : public CommandTest {
 protected:
  ShellCompletion() {
    std::filesystem::create_directories(_directory.Path("bin"));
    std::filesystem::create_symlink(TAVIX_CLI_PROGRAM, _directory.Path("bin/tavix-settings"));
    _directory.Write("backup.ini", "[Local/Group]\nx=1\n");
  }

  void Start(const Words& words, const Words& lines) {
    _shell = std::make_unique<CommandProcess>(_directory.GetPath(), words,
                                              Environment({{"PATH", _directory.Path("bin") + ":/usr/bin:/bin"},
                                                           {"HOME", _directory.GetPath()},
                                                           {"XDG_CONFIG_HOME", std::nullopt},
                                                           {"XDG_DATA_HOME", std::nullopt},
                                                           {"fish_greeting", ""}}),
                                              CommandProcess::Streams::kTerminal);
    for (const std::string& line : lines) _shell->Write(line + "\n");
    AwaitShell();
  }

  static std::string Script(const std::string& name) {
    return "source '" TAVIX_SOURCE_DIR "/programs/cli/completion/" + name + "'";
  }

  void StartBash() {
    Start({"bash", "--norc", "--noprofile", "-i"},
          {"stty echo; bind 'set page-completions off'; bind 'set completion-query-items 0'",
           Script("tavix-settings.bash")});
  }

  void StartZsh() {
    Start({TAVIX_ZSH_PROGRAM, "-f", "-i"},
          {"autoload -Uz compinit; compinit -u -D; LISTMAX=1000; unsetopt beep", Script("_tavix-settings")});
  }

  void StartFish() { Start({TAVIX_FISH_PROGRAM, "--no-config", "-i"}, {Script("tavix-settings.fish")}); }

  // What the terminal shows when somebody types that, and then takes it back.
  std::string Type(const std::string& text) {
    const size_t begin = _shell->GetOutput().size();
    _shell->Write(text + "\x15");
    AwaitShell();
    return _shell->GetOutput().substr(begin);
  }

  // The same until "shown" is in it: a store that is too slow for a shell is shown as nothing.
  std::string TypeUntil(const std::string& text, const std::string& shown) {
    std::string all;
    Eventually([&] { return (all = Type(text)).find(shown) != std::string::npos; });
    return all;
  }

  std::unique_ptr<CommandProcess> _shell;

 private:
  // The shell shows what it is told to echo, too: there it has quotes in it.
  void AwaitShell() {
    const std::string number = std::to_string(++_marks);
    _shell->Write("echo 'ma''rk'" + number + "'.'\n");
    _shell->AwaitOutput("mark" + number + ".");
  }

  int _marks = 0;
};

}  // namespace

TEST_F(ShellCompletion, BashDescribesCommandsAndOptions) {
  StartBash();
  EXPECT_THAT(Type("tavix-settings se\t\t"),
              AllOf(HasSubstr("search  (Find text in names, keys and values)"), HasSubstr("set     (Set one or many")));
  EXPECT_THAT(Type("tavix-settings watch --co\t\t"),
              AllOf(HasSubstr("--count  (End after so many changes)"), HasSubstr("--color  (auto, always or never)")));
}

TEST_F(ShellCompletion, BashOffersFilesWhereTheyBelongAlone) {
  StartBash();
  EXPECT_THAT(Type("tavix-settings import back\t"), HasSubstr("import backup.ini"));
  EXPECT_THAT(Type("tavix-settings --local back\t"), HasSubstr("--local backup.ini"));
  EXPECT_THAT(Type("tavix-settings get back\t\t"), Not(HasSubstr("backup.ini")));
}

TEST_F(ShellCompletion, BashGoesPathByPath) {
  StartBash();
  EXPECT_THAT(TypeUntil("tavix-settings list Netw\tE\t", "list Network/Eth0 "), Not(HasSubstr("Wlan0")));
}

TEST_F(ShellCompletion, ZshDescribesCommandsAndOptions) {
  StartZsh();
  EXPECT_THAT(Type("tavix-settings se\t\t"), AllOf(HasSubstr("search  -- Find text in names, keys and values"),
                                                   HasSubstr("set     -- Set one or many")));
  EXPECT_THAT(Type("tavix-settings watch --co\t\t"), AllOf(HasSubstr("--count  -- End after so many changes"),
                                                           HasSubstr("--color  -- auto, always or never")));
}

TEST_F(ShellCompletion, ZshOffersFilesWhereTheyBelongAlone) {
  StartZsh();
  EXPECT_THAT(Type("tavix-settings import back\t"), HasSubstr("up.ini"));
  EXPECT_THAT(Type("tavix-settings --local=back\t"), HasSubstr("up.ini"));
  EXPECT_THAT(Type("tavix-settings get back\t\t"), Not(HasSubstr("up.ini")));
}

TEST_F(ShellCompletion, ZshGoesPathByPath) {
  StartZsh();
  EXPECT_THAT(TypeUntil("tavix-settings list Netw\tE\t", "th0"), Not(HasSubstr("Wlan0")));
}

TEST_F(ShellCompletion, FishDescribesCommandsAndOptions) {
  StartFish();
  EXPECT_THAT(Type("tavix-settings se\t"), AllOf(HasSubstr("(Find text in names, keys and values)"),
                                                 HasSubstr("(Set one or many settings, in one step)")));
  EXPECT_THAT(Type("tavix-settings watch --co\t"),
              AllOf(HasSubstr("(End after so many changes)"), HasSubstr("(auto, always or never)")));
}

TEST_F(ShellCompletion, FishOffersFilesWhereTheyBelongAlone) {
  StartFish();
  EXPECT_THAT(Type("tavix-settings import back\t"), HasSubstr("backup.ini"));
  EXPECT_THAT(Type("tavix-settings --local=back\t"), HasSubstr("--local=backup.ini"));
  EXPECT_THAT(Type("tavix-settings get back\t"), Not(HasSubstr("backup.ini")));
}

TEST_F(ShellCompletion, FishGoesPathByPath) {
  StartFish();
  EXPECT_THAT(TypeUntil("tavix-settings list Netw\tE\t", "Eth0"), Not(HasSubstr("Wlan0")));
}

}  // namespace tavix::test
