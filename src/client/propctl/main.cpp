#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <string_view>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "client/propctl/Commands.h"
#include "client/propctl/Configuration.h"
#include "client/propctl/ConnectionOptions.h"
#include "client/propctl/Fleet.h"
#include "client/propctl/Text.h"
#include "dbg/Debug.h"

namespace propctl {

namespace {

constexpr std::chrono::milliseconds kTimeout{5000};
/// An export waits for the database file, and runs the sqlite3 shell.
constexpr std::chrono::milliseconds kMaintenanceTimeout{60000};
constexpr std::chrono::milliseconds kCompletionTimeout{1000};

Field toField(const std::string& name) {
  return name == "web" ? Field::web : name == "provisioning" ? Field::provisioning : Field::key;
}

/// The arguments in the order that the parser wants, from the last to the first. It would take one in
/// brackets, which may be a value, for a list, and forget a "--" that stands behind a value. So it sees
/// neither: a NUL, which no argument can hold, stands before each argument that is not an option until the
/// parser is done.
std::vector<std::string> toParse(int argc, char** argv) {
  std::vector<std::string> arguments;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    if (!optionsEnded && argument == "--") {
      optionsEnded = true;
      continue;
    }
    if ((optionsEnded && argument.starts_with('-')) ||
        (argument.starts_with('[') && argument.ends_with(']'))) {
      argument.insert(0, 1, '\0');
    }
    arguments.push_back(std::move(argument));
  }
  std::reverse(arguments.begin(), arguments.end());
  return arguments;
}

void takeAsGiven(std::string& argument) {
  if (argument.starts_with('\0')) {
    argument.erase(0, 1);
  }
}

std::string_view environment(const char* name) {
  const char* const text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): read only
  return text ? text : "";
}

/// no-color.org
bool wantsColours() {
  return environment("NO_COLOR").empty() && environment("TERM") != "dumb";
}

/// A descriptor that the caller has closed must not become the connection to the broker: what is written to
/// standard output would go there. To read from it, or to write to it, still fails.
void occupyStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) < 0) {
      open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

/// The needs of a command besides a session.
struct Needs {
  std::chrono::milliseconds timeout = kTimeout;
  std::function<void()> arguments = [] {};  ///< Throws `Failure` before anybody is asked.
  bool oneDevice = false;
};

/// The verbs and options. What was found on the command line is in `run_` and the options.
class CommandLine {
 public:
  CommandLine() {
    app_.require_subcommand(0, 1);
    app_.set_version_flag("--version", "propctl " PROPERTYSERVICE_VERSION);
    app_.failure_message([](const CLI::App*, const CLI::Error& error) { return std::string(error.what()); });
    app_.footer("Exit status: 0 done, 1 refused or not found, 2 wrong usage, 3 no answer. More: man propctl");
    addConnectionOptions();
    app_.add_flag("--json", json_, "Print JSON");
    app_.add_flag("--quiet,-q", quiet_, "No remarks");
    app_.add_flag("--show-secrets", showSecrets_, "Passwords and PINs on a terminal, too");
    addReads();
    addWrites();
    addWatch();
    addMaintenance();
    addCheck();
    addDevices();
  }

  ExitStatus run(int argc, char** argv) {
    try {
      app_.parse(toParse(argc, argv));
      refuseNonsensicalEnvironment();
      if (!run_) {
        throw CLI::RequiredError("A command");
      }
    } catch (const CLI::Success& request) {
      app_.exit(request);
      return ExitStatus::done;
    } catch (const CLI::ParseError& error) {
      throw Failure(ExitStatus::usage, complaintOf(error));
    }
    for (std::string* text : {&name_, &pattern_, &columns_, &device_, &connection_.host, &connection_.user,
                              &connection_.passwordFile, &connection_.name, &connection_.caFile,
                              &connection_.certificateFile, &connection_.keyFile}) {
      takeAsGiven(*text);
    }
    std::for_each(names_.begin(), names_.end(), takeAsGiven);
    Output output(std::cout, std::cerr,
                  {.json = json_,
                   .quiet = quiet_,
                   .table = isatty(STDOUT_FILENO) != 0 && !json_,
                   .colour = isatty(STDOUT_FILENO) != 0 && !json_ && wantsColours(),
                   .progress = isatty(STDERR_FILENO) != 0,
                   .hideSecrets = isatty(STDOUT_FILENO) != 0 && !json_ && !showSecrets_});
    const ExitStatus status = run_(output);
    output.flush();
    return status;
  }

 private:
  using OnSession = std::function<ExitStatus(Session&)>;

  /// Returns what is wrong, and what to do about it.
  std::string complaintOf(const CLI::ParseError& error) const {
    std::string text = error.what();
    text.erase(text.find_last_not_of('\n') + 1);
    std::erase(text, '\0');
    const std::vector<std::string> unexpected = app_.remaining();
    if (app_.get_subcommands().empty() && !unexpected.empty() && !unexpected.front().starts_with('-')) {
      text = "no such command: " + unexpected.front();
    } else if (app_.got_subcommand("set") &&
               error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError)) {
      return escaped(text) + "; in front of a value that begins with - put --";
    }
    return escaped(text) + "; see propctl --help";
  }

  void addConnectionOptions() {
    const std::string group = "Connection";
    const auto add = [&](const char* names, auto& target, const char* text, const char* variable) {
      return app_.add_option(names, target, text)->envname(variable)->group(group);
    };
    add("--host", connection_.host, "Broker [localhost]", "PROPCTL_HOST")->type_name("HOST");
    add("--port", connection_.port, "Its port [1883, with --cafile 8883]", "PROPCTL_PORT")
        ->check(CLI::Range(1, 65535).description(""))
        ->type_name("PORT");
    add("--user", connection_.user, "User name", "PROPCTL_USER")->type_name("NAME");
    add("--password-file", connection_.passwordFile,
        "File with user and password, a line each, or a password", "PROPCTL_PASSWORD_FILE")
        ->type_name("FILE");
    add("--name", connection_.name, "Sender of the requests [the user, or a name of its own]", "PROPCTL_NAME")
        ->type_name("NAME");
    add("--cafile", connection_.caFile, "Use TLS and trust these authorities", "PROPCTL_CAFILE")
        ->type_name("FILE");
    add("--cert", connection_.certificateFile, "Certificate of the client", "PROPCTL_CERT")
        ->type_name("FILE");
    add("--key", connection_.keyFile, "Its key", "PROPCTL_KEY")->type_name("FILE");
    add("--device", device_,
        "Serial number of a device behind a central broker; also several, patterns and @FILE",
        "PROPCTL_DEVICE")
        ->type_name("SERIAL,...");
    app_.add_option("--jobs", jobs_, "So many devices at once [16]")
        ->check(CLI::Range(1, 1024).description(""))
        ->group(group)
        ->type_name("N");
    add("--timeout", connection_.timeout, "For each answer [5; maintenance 60]", "PROPCTL_TIMEOUT")
        ->check(CLI::Range(0.001, 86400.0).description(""))
        ->type_name("SECONDS");
  }

  /// Refuses a variable whose value its option does not allow; CLI11 ignores it from 2.4 on.
  void refuseNonsensicalEnvironment() {
    for (CLI::Option* const option : app_.get_options()) {
      const std::string value(environment(option->get_envname().c_str()));
      if (option->count() == 0 && !value.empty()) {
        option->add_result(value);
        option->run_callback();
      }
    }
  }

  void readConfigurationFiles() {
    std::vector<Setting> given;
    for (const CLI::Option* option : app_.get_options()) {
      if (option->count() > 0 && !option->get_lnames().empty()) {
        given.push_back({option->get_lnames().front(), option->results().back(), ""});
      }
    }
    std::vector<std::vector<Setting>> files;
    for (const std::string& path : configurationPaths()) {
      files.push_back(readConfiguration(path));
    }
    for (const Setting& setting : addConfiguration(given, files)) {
      CLI::Option* const option = app_.get_option("--" + setting.name);
      try {
        option->add_result(setting.value);
        option->run_callback();
      } catch (const CLI::ParseError& error) {
        throw Failure(ExitStatus::usage, setting.source + ": " + escaped(error.what()));
      }
    }
  }

  CLI::App* addVerb(const std::string& name, const std::string& text) {
    CLI::App* verb = app_.add_subcommand(name, text);
    verb->fallthrough();
    return verb;
  }

  void onSession(CLI::App* verb, const OnSession& command, const Needs& needs = {}) {
    verb->callback([=, this] {
      run_ = [=, this](Output& output) {
        needs.arguments();
        readConfigurationFiles();
        propclient::Options options = toOptions(connection_, needs.timeout);
        if (areSerials(device_)) {
          if (needs.oneDevice) {
            throw Failure(ExitStatus::usage, "this command takes one device at a time");
          }
          return runOnDevices(readSerials(device_), options, jobs_, output, command);
        }
        options.device = device_.empty() ? "" : readSerials(device_).front();
        Session session(options, output);
        return command(session);
      };
    });
  }

  CLI::Option* addNames(CLI::App* verb, const std::string& name, Names& target, const std::string& text) {
    return verb->add_option(name, target, text)->type_name("");
  }

  void addField(CLI::App* verb, const std::string& text) {
    verb->add_option_function<std::string>(
            "--by", [this](const std::string& name) { field_ = toField(name); }, text)
        ->check(CLI::IsMember({"key", "web", "provisioning"}).description(""))
        ->type_name("key|web|provisioning");
  }

  void addDevices() {
    addVerb("devices", "List the devices of a central broker, or those of --device, and who is there")
        ->callback([this] {
          run_ = [this](Output& output) {
            readConfigurationFiles();
            return listDevices(device_, toOptions(connection_, kTimeout), output);
          };
        });
  }

  void addReads() {
    CLI::App* verb = addVerb("get", "Read values; a name with % is a pattern");
    addNames(verb, "NAME", names_, "Key, alias or pattern")->required();
    addField(verb, "What names are [key]");
    onSession(verb, [this](Session& session) { return get(session, names_, field_); });

    verb = addVerb("list", "A table of properties");
    verb->add_option("PATTERN", pattern_, "Key or pattern [%]")->type_name("");
    verb->add_option("--columns", columns_, "Columns, separated by commas")->type_name("COLUMN,...");
    verb->add_flag("--changed", onlyChanged_, "Only what differs from its default");
    onSession(verb,
              [this](Session& session) {
                return list(session, pattern_, toColumns(splitList(columns_)), onlyChanged_);
              },
              {.arguments = [this] { requireColumns(toColumns(splitList(columns_))); }});

    verb = addVerb("describe", "Everything about one property");
    verb->add_option("NAME", name_, "Key or alias")->required()->type_name("");
    addField(verb, "What the name is [key]");
    onSession(verb, [this](Session& session) { return describe(session, name_, field_); },
              {.arguments = [this] { requireOneName(name_); }});

    verb = addVerb("dump", "All values by provisioning name, as load takes them");
    onSession(verb, dump);

    verb = addVerb("complete-keys", "Keys that begin so");
    verb->group("");
    verb->add_option("PREFIX", name_, "");
    onSession(verb, [this](Session& session) { return completeKeys(session, name_); },
              {.timeout = kCompletionTimeout, .oneDevice = true});
  }

  void addWrites() {
    CLI::App* verb = addVerb("set", "Write values");
    addNames(verb, "ASSIGNMENT", names_, "KEY=VALUE, or KEY VALUE; KEY=- asks for the value")->required();
    addField(verb, "What names are [key]");
    onSession(verb, [this](Session& session) { return set(session, assignments_, field_); },
              {.arguments = [this] {
                assignments_ = toAssignments(names_);
                readAskedValues(assignments_);
              }});

    verb = addVerb("reset", "Take properties to their defaults");
    addNames(verb, "KEY", names_, "Key or pattern")->required();
    onSession(verb, [this](Session& session) { return reset(session, names_); });

    verb = addVerb("load", "Write what dump has printed");
    verb->add_option("FILE", name_, "- for standard input")->required()->type_name("");
    verb->add_flag("--dry-run", dryRun_, "Write nothing; tell what would become of each line");
    addField(verb, "What names are [provisioning]");
    onSession(verb,
              [this, verb](Session& session) {
                return load(session, assignments_, verb->count("--by") != 0 ? field_ : Field::provisioning,
                            dryRun_);
              },
              {.arguments = [this] { assignments_ = readDumpFile(name_); }});
  }

  void addWatch() {
    CLI::App* verb = addVerb("watch", "Print changes as they come");
    addNames(verb, "NAME", names_, "Key, pattern, or group: the keys before the first point [%]");
    verb->add_flag("--allow-unknown", allowUnknown_, "Also names that stand for nothing yet");
    verb->add_flag("--no-old", withoutOld_, "Leave out the value before");
    verb->add_option("--count", count_, "End after so many")
        ->check(CLI::Range(1U, 1000000000U).description(""))
        ->type_name("N");
    onSession(
        verb,
        [this](Session& session) { return watch(session, names_, allowUnknown_, !withoutOld_, count_); },
        {.oneDevice = true});
  }

  void addMaintenance() {
    CLI::App* verb = addVerb("backup", "Save the user's settings on the device");
    verb->add_flag("--all", allSettings_, "All settings, passwords included");
    onSession(verb, [this](Session& session) { return backup(session, allSettings_); },
              {.timeout = kMaintenanceTimeout});
    onSession(addVerb("restore", "Read the saved settings back"), restore, {.timeout = kMaintenanceTimeout});
    onSession(addVerb("sysdump", "Write what support wants to see"), sysdump,
              {.timeout = kMaintenanceTimeout});

    CLI::App* prepare = addVerb("prepare", "Save what is to survive");
    prepare->require_subcommand(1);
    onSession(prepare->add_subcommand("version-change", "a new firmware")->fallthrough(),
              prepareVersionChange, {.timeout = kMaintenanceTimeout});
    onSession(prepare->add_subcommand("factory-reset", "a factory reset")->fallthrough(), prepareFactoryReset,
              {.timeout = kMaintenanceTimeout});

    verb = addVerb("ping", "Is it alive, and how far away?");
    verb->add_option("--count", count_, "So many times [1]")
        ->check(CLI::Range(1U, 1000000000U).description(""))
        ->type_name("N");
    onSession(verb, [this](Session& session) { return ping(session, count_.value_or(1)); });
  }

  void addCheck() {
    CLI::App* verb = addVerb("check", "Look for mistakes in a device's files; needs no daemon");
    addNames(verb, "FILE", names_,
             "Database scripts, customisation and migration files, or their directories")
        ->required();
    verb->callback([this] { run_ = [this](Output& output) { return check(output, names_); }; });
  }

  CLI::App app_{"Reads, writes and watches the configuration that PropertyService owns", "propctl"};
  ConnectionOptions connection_;
  std::string device_;
  unsigned jobs_ = 16;
  bool json_ = false;
  bool quiet_ = false;
  bool showSecrets_ = false;
  Names names_;
  std::vector<Assignment> assignments_;
  std::string name_;
  std::string pattern_ = "%";
  std::string columns_;
  Field field_ = Field::key;
  bool onlyChanged_ = false;
  bool dryRun_ = false;
  bool allowUnknown_ = false;
  bool withoutOld_ = false;
  bool allSettings_ = false;
  std::optional<unsigned> count_;
  std::function<ExitStatus(Output&)> run_;
};

}  // namespace

}  // namespace propctl

int main(int argc, char** argv) {
  using propctl::ExitStatus;
  // A broker or a reader that has gone is an error like any other.
  std::signal(SIGPIPE, SIG_IGN);
  propctl::occupyStandardDescriptors();
  dbg::DebugStreamBuf::setMask(0);
  try {
    return static_cast<int>(propctl::CommandLine().run(argc, argv));
  } catch (const propctl::Failure& failure) {
    std::cerr << "propctl: " << failure.what() << std::endl;
    return static_cast<int>(failure.status());
  } catch (const std::exception& error) {
    std::cerr << "propctl: " << propctl::escaped(error.what()) << std::endl;
    return static_cast<int>(ExitStatus::usage);
  }
}
