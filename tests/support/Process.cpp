#include "support/Process.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TemporaryDirectory.h"

namespace propertyservice::test {

Process::Process(const std::vector<std::string>& command, std::string outputPath)
    : outputPath_(std::move(outputPath)) {
  std::vector<char*> arguments;
  for (const std::string& word : command) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);

  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == -1) {
    throw std::runtime_error("cannot fork");
  }
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int output = open(outputPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
    const int input = open("/dev/null", O_RDONLY);
    if (getppid() != parent || output == -1 || input == -1) {
      _exit(127);
    }
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    // The connections of the test's own clients are none of its business.
    close_range(STDERR_FILENO + 1, ~0U, 0);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
}

Process::~Process() {
  kill();
}

bool Process::running() {
  return !reap(WNOHANG);
}

void Process::signal(int number) {
  if (running()) {
    ::kill(pid_, number);
  }
}

std::optional<int> Process::wait(std::chrono::milliseconds patience) {
  eventually([this] { return reap(WNOHANG); }, patience);
  return status_;
}

void Process::kill() {
  signal(SIGKILL);
  reap(0);
}

std::size_t Process::residentKiB() const {
  return status("VmRSS:");
}

std::size_t Process::peakKiB() const {
  return status("VmHWM:");
}

void Process::resetPeak() {
  constexpr char kPeakOfResidentMemory = '5';
  std::ofstream(procFile("clear_refs")) << kPeakOfResidentMemory;
}

std::map<std::string, double> Process::processorMs() const {
  std::map<std::string, double> times;
  for (const auto& thread : std::filesystem::directory_iterator(procFile("task"))) {
    double nanoseconds = 0;
    std::ifstream(thread.path() / "schedstat") >> nanoseconds;
    times[thread.path().filename()] = nanoseconds / 1e6;
  }
  return times;
}

bool Process::waitUntilIdle() const {
  static constexpr auto kForThisLong = std::chrono::milliseconds(200);
  return eventually([this] {
    const std::map<std::string, double> before = processorMs();
    std::this_thread::sleep_for(kForThisLong);
    return processorMs() == before;
  });
}

std::size_t Process::descriptors() const {
  const std::filesystem::directory_iterator descriptors(procFile("fd"));
  return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

std::string Process::output() const {
  std::ostringstream text;
  text << std::ifstream(outputPath_, std::ios::binary).rdbuf();
  return text.str();
}

std::string Process::procFile(const std::string& name) const {
  return "/proc/" + std::to_string(pid_) + '/' + name;
}

std::size_t Process::status(const std::string& field) const {
  std::ifstream status(procFile("status"));
  std::size_t value = 0;
  for (std::string word; status >> word;) {
    if (word == field) {
      status >> value;
    }
  }
  return value;
}

bool Process::reap(int options) {
  int status = 0;
  if (!status_ && waitpid(pid_, &status, options) == pid_) {
    status_ = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }
  return status_.has_value();
}

std::string run(const std::vector<std::string>& command) {
  const TemporaryDirectory directory;
  Process process(command, directory.path("output"));
  if (process.wait() != 0) {
    throw std::runtime_error(command.front() + " failed: " + process.output());
  }
  return process.output();
}

}  // namespace propertyservice::test
