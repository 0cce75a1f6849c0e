#include "fleet/Host.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace propertyservice::test {

Host::Host(std::string name)
    : name_(std::move(name)),
      holder_(std::make_unique<Process>(
          std::vector<std::string>{
              SOURCE_DIRECTORY "/script/sandbox", "--private-network", "--", "sh", "-c",
              "mount -t tmpfs broker /etc/mosquitto && echo ready && exec sleep infinity"},
          directory_.path("holder"))) {
  const bool ready = eventually([&] { return !holder_->running() || holder_->output() == "ready\n"; });
  if (!ready || !holder_->running()) {
    throw std::runtime_error("no host: " + holder_->output());
  }
}

std::unique_ptr<Process> Host::start(const std::vector<std::string>& command, const std::string& log) const {
  return std::make_unique<Process>(inside(command), directory_.path(log));
}

std::string Host::run(const std::vector<std::string>& command) const {
  return test::run(inside(command));
}

void Host::write(const std::string& path, const std::string& content, unsigned mode) const {
  const std::filesystem::path target(outside(path));
  std::filesystem::create_directories(target.parent_path());
  std::filesystem::remove(target);
  std::ofstream(target, std::ios::binary | std::ios::trunc) << content;
  std::filesystem::permissions(target, std::filesystem::perms{mode});
}

void Host::install(const std::string& source, const std::string& path) const {
  const std::filesystem::path target(outside(path));
  std::filesystem::create_directories(target.parent_path());
  std::filesystem::copy(
      source, target,
      std::filesystem::copy_options::recursive | std::filesystem::copy_options::overwrite_existing);
}

std::vector<std::string> Host::inside(const std::vector<std::string>& command) const {
  std::vector<std::string> words = {"nsenter", "--target", pid(),    "--mount",
                                    "--net",   "--root",   "--wd=/", "--"};
  words.insert(words.end(), command.begin(), command.end());
  return words;
}

std::string Host::outside(const std::string& path) const {
  return "/proc/" + pid() + "/root" + path;
}

Link::Link(const Host& first, const Host& second, const std::string& network)
    : first_(first), name_("to-" + second.name()) {
  const std::string back = "to-" + first.name();
  run({"ip", "link", "add", name_, "netns", first.pid(), "type", "veth", "peer", "name", back, "netns",
       second.pid()});
  first.run({"ip", "address", "add", network + ".1/24", "dev", name_});
  second.run({"ip", "address", "add", network + ".2/24", "dev", back});
  second.run({"ip", "link", "set", back, "up"});
  up();
}

void Link::up() const {
  set("up");
}

void Link::down() const {
  set("down");
}

void Link::set(const char* state) const {
  first_.run({"ip", "link", "set", name_, state});
}

std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace propertyservice::test
