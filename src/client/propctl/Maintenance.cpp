#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <iomanip>
#include <sstream>

#include "client/propctl/Commands.h"
#include "client/propctl/Rules.h"

namespace propctl {

namespace {

using Clock = std::chrono::steady_clock;
using propclient::Client;
using Answer = propclient::Answer<Client::Nothing>;

/// Shows that something goes on while the daemon is at it.
Answer withProgress(Output& output, const std::string& what, std::future<Answer> answer) {
  static constexpr char kSpinner[] = {'|', '/', '-', '\\'};
  for (std::size_t turn = 0; answer.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready;
       ++turn) {
    output.progress(what + "… " + kSpinner[turn % sizeof kSpinner]);
  }
  output.progress("");
  return answer.get();
}

ExitStatus maintain(Session& session, const std::string& what, const std::function<Answer(Client&)>& request,
                    const std::string& done,
                    const std::string& whyFailed = reasonFor(Status::dbError, "", {})) {
  Output& output = session.output();
  const auto answer = session.answered(
      withProgress(output, what, std::async(std::launch::async, [&] { return request(session.client()); })),
      Session::Effect::write);
  const std::string reason = answer.status == Status::dbError ? whyFailed : reasonFor(answer.status, "", {});
  if (output.style().json) {
    Json::Value outcome;
    outcome["status"] = propclient::toText(answer.status);
    if (!answer.ok()) {
      outcome["reason"] = reason;
    }
    output.json(outcome);
  }
  if (!answer.ok()) {
    output.complain(what + ": " + propclient::toText(answer.status) + ": " + reason);
    return ExitStatus::refused;
  }
  output.remark(done);
  return ExitStatus::done;
}

std::string inMilliseconds(Clock::duration time) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(3) << std::chrono::duration<double, std::milli>(time).count();
  return text.str();
}

}  // namespace

ExitStatus backup(Session& session, bool allSettings) {
  return maintain(
      session, "backup", [allSettings](Client& client) { return client.makeBackup(allSettings); },
      "saved to /config/user_backup.csv on the device");
}

ExitStatus restore(Session& session) {
  return maintain(
      session, "restore", [](Client& client) { return client.restore(); },
      "restored from /config/user_backup.csv on the device",
      "there is no /config/user_backup.csv on the device, it cannot be read, or the database cannot be "
      "written: "
      "the daemon's log says which");
}

ExitStatus sysdump(Session& session) {
  return maintain(
      session, "sysdump", [](Client& client) { return client.makeSysdump(); },
      "written to /config/sysdump.csv on the device");
}

ExitStatus prepareVersionChange(Session& session) {
  return maintain(
      session, "prepare version-change", [](Client& client) { return client.prepareVersionChange(); },
      "prepared: /config/sys_backup.csv is carried over at the first start of the new firmware");
}

ExitStatus prepareFactoryReset(Session& session) {
  return maintain(
      session, "prepare factory-reset", [](Client& client) { return client.prepareFactoryReset(); },
      "prepared: stop PropertyService, remove /usr/sbin/nvm and start it again");
}

ExitStatus ping(Session& session, unsigned count) {
  Output& output = session.output();
  std::vector<Clock::duration> times;
  Json::Value inJson(Json::arrayValue);
  for (unsigned i = 0; i < count; ++i) {
    const auto start = Clock::now();
    session.answered(session.client().ping());
    times.push_back(Clock::now() - start);
    const std::string time = inMilliseconds(times.back());
    if (output.style().json) {
      inJson.append(Json::Int64{std::chrono::round<std::chrono::microseconds>(times.back()).count()});
    } else {
      output.line("answer from " + session.where() + " in " + time + " ms");
      output.flush();
    }
  }
  if (output.style().json) {
    Json::Value object;
    object["microseconds"] = inJson;
    output.json(object);
  } else if (count > 1) {
    std::sort(times.begin(), times.end());
    output.remark("least " + inMilliseconds(times.front()) + ", median " +
                  inMilliseconds(times[times.size() / 2]) + ", most " + inMilliseconds(times.back()) + " ms");
  }
  return ExitStatus::done;
}

}  // namespace propctl
