#include <gmock/gmock.h>

#include "client/propctl/Propctl.h"
#include "support/Device.h"

namespace propertyservice::test {
namespace {

constexpr char kCompletions[] = SOURCE_DIRECTORY "/src/client/propctl/completions";

class PropctlCompletion : public ::testing::Test {
 protected:
  /// Returns what bash offers for the last of the words, in which it parts a line.
  static std::string inBash(const std::string& words) {
    return shell("complete() { :; }; compopt() { :; }\nsource " + std::string(kCompletions) +
                 "/propctl.bash\nCOMP_WORDS=(" + words +
                 ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_propctl\nprintf '%s\\n' \"${COMPREPLY[@]}\" | "
                 "sort")
        .output;
  }

  /// Returns what fish offers for the end of the line, without the explanations. Fish 4 also prints what only
  /// has the letters of the last word somewhere.
  std::string inFish(const std::string& line) const {
    return shell("HOME=" + directory_.path() +
                 " fish --no-config -c 'function propctl; " PROPCTL " $argv; end; source " + kCompletions +
                 "/propctl.fish; complete -C \"" + line + "\"' | cut -f1 | grep '^" +
                 line.substr(line.rfind(' ') + 1) + "'")
        .output;
  }

  /// Returns what zsh makes of the line.
  std::string inZsh(const std::string& line) const {
    directory_.write(".zshrc", "fpath=(" + std::string(kCompletions) +
                                   " $fpath)\n"
                                   "autoload -Uz compinit\n"
                                   "compinit -u -D\n"
                                   "propctl() { " PROPCTL
                                   " \"$@\"; }\n"
                                   "zle-line-init() {\n"
                                   "  BUFFER=$LINE CURSOR=$#LINE\n"
                                   "  zle complete-word\n"
                                   "  print -r -- $BUFFER >&3\n"
                                   "  exit\n"
                                   "}\n"
                                   "zle -N zle-line-init\n");
    return shell("export LINE='" + line + "' ZDOTDIR=" + directory_.path() +
                 "\nscript --quiet --command 'zsh -i 3>" + directory_.path("line") +
                 "' /dev/null >/dev/null\ncat " + directory_.path("line"))
        .output;
  }

  const TemporaryDirectory directory_;
};

class PropctlCompletionOnADevice : public PropctlCompletion {
 protected:
  PropctlCompletionOnADevice() { device_.start(); }

  Device device_;
};

TEST_F(PropctlCompletion, offersCommands) {
  EXPECT_EQ(inBash("propctl re"), "reset\nrestore\n");
  EXPECT_EQ(inFish("propctl re"), "reset\nrestore\n");
  EXPECT_EQ(inZsh("propctl --json wat"), "propctl --json watch \n");
}

TEST_F(PropctlCompletion, offersOptionsOfTheCommand) {
  EXPECT_EQ(inBash("propctl load --d"), "--device\n--dry-run\n");
  EXPECT_EQ(inFish("propctl load --d"), "--device\n--dry-run\n");
  EXPECT_EQ(inZsh("propctl load --dr"), "propctl load --dry-run \n");
}

TEST_F(PropctlCompletion, offersCommonOptionsBehindTheCommand) {
  EXPECT_EQ(inBash("propctl get --js"), "--json\n");
  EXPECT_EQ(inFish("propctl get --js"), "--json\n");
  EXPECT_EQ(inZsh("propctl get --js"), "propctl get --json \n");
}

TEST_F(PropctlCompletion, offersTheNextColumn) {
  EXPECT_EQ(inBash("propctl list --columns key,range_"), "key,range_max\nkey,range_min\n");
  EXPECT_EQ(inZsh("propctl list --columns key,val"), "propctl list --columns key,value,\n");
}

TEST_F(PropctlCompletion, offersNamesForAnOptionWithAnEqualSign) {
  EXPECT_EQ(inBash("propctl get --by = w"), "web\n");
  EXPECT_EQ(inZsh("propctl get --by w"), "propctl get --by web \n");
}

TEST_F(PropctlCompletion, offersNoKeysAndSaysNothingWithoutADaemon) {
  EXPECT_EQ(inBash("propctl get Audio.R"), "\n");
  EXPECT_EQ(inFish("propctl get Audio.R"), "");
  EXPECT_EQ(inZsh("propctl get Audio.R"), "propctl get Audio.R\n");
}

TEST_F(PropctlCompletionOnADevice, offersKeys) {
  EXPECT_EQ(inBash("propctl get Audio.R"), "Audio.Ringtone\n");
  EXPECT_EQ(inFish("propctl get Audio.R"), "Audio.Ringtone\n");
  EXPECT_EQ(inZsh("propctl get Audio.R"), "propctl get Audio.Ringtone \n");
}

TEST_F(PropctlCompletionOnADevice, offersKeysToBeAssigned) {
  EXPECT_EQ(inBash("propctl --timeout 3 set Audio.R"), "Audio.Ringtone=\n");
  EXPECT_EQ(inFish("propctl --timeout 3 set Audio.R"), "Audio.Ringtone=\n");
  EXPECT_EQ(inZsh("propctl --timeout 3 set Audio.R"), "propctl --timeout 3 set Audio.Ringtone=\n");
}

TEST_F(PropctlCompletionOnADevice, offersGroupsAndTheirKeys) {
  EXPECT_EQ(inBash("propctl watch A"), "Audio\n");
  EXPECT_EQ(inFish("propctl watch A"), "Audio\n");
  EXPECT_EQ(inZsh("propctl watch A"), "propctl watch Audio \n");
  EXPECT_EQ(inBash("propctl watch Audio.R"), "Audio.Ringtone\n");
  EXPECT_EQ(inFish("propctl watch Audio.R"), "Audio.Ringtone\n");
  EXPECT_EQ(inZsh("propctl watch Audio.R"), "propctl watch Audio.Ringtone \n");
}

TEST_F(PropctlCompletionOnADevice, asksTheDeviceThatTheLineNames) {
  EXPECT_EQ(inBash("propctl --port 1 get Audio.R"), "\n");
  EXPECT_EQ(inBash("propctl --port = 1 get Audio.R"), "\n");
  EXPECT_EQ(inBash("propctl get --host = localhost --port = 1883 Audio.R"), "Audio.Ringtone\n");
  EXPECT_EQ(inFish("propctl get --port 1 Audio.R"), "");
  EXPECT_EQ(inFish("propctl get --port=1 Audio.R"), "");
  EXPECT_EQ(inFish("propctl --port 1883 get --host=localhost Audio.R"), "Audio.Ringtone\n");
  EXPECT_EQ(inZsh("propctl --port 1 get Audio.R"), "propctl --port 1 get Audio.R\n");
  EXPECT_EQ(inZsh("propctl get --port=1 Audio.R"), "propctl get --port=1 Audio.R\n");
  EXPECT_EQ(inZsh("propctl get --port 1883 Audio.R"), "propctl get --port 1883 Audio.Ringtone \n");
}

}  // namespace
}  // namespace propertyservice::test
