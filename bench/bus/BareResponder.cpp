// Answers each request on the bus with a constant, and each "setV" with two constant notifications besides:
// what the daemon could be compared with if it had nothing to do.
//
//     bareresponder NAME library|ipc
//
// Serves "+/NAME" until SIGTERM, with libmosquitto on the thread that this library starts, or with the
// daemon's own bus client.

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <mosquitto.h>

#include "ipc/IPCFactory.h"

namespace {

const std::string kReplyToGet = "{\"param\":\"Account.0042.Setting3\",\"result\":\"5\",\"status\":\"Ok\"}\n";
const std::string kReplyToSet = "{\"param\":\"Account.0042.Setting3\",\"status\":\"Ok\"}\n";
const std::string kGroupNotification = "{\"param\":\"Account.0042.Setting3\",\"value\":\"5\"}\n";
const std::string kAllNotification = "{\"Account.0042.Setting3\":\"5\"}\n";

/// The part of a responder that does not depend on how it reaches the bus.
template <typename Publish>
void answer(const std::string& name, std::string_view topic, std::string_view request, Publish publish) {
  const std::string replyTopic = name + '/' + std::string(topic.substr(0, topic.find('/')));
  if (request.find("\"setV\"") == std::string_view::npos) {
    publish(replyTopic, kReplyToGet);
    return;
  }
  publish(replyTopic, kReplyToSet);
  publish(name + "-account/any", kGroupNotification);
  publish(name + "-groupnotify/any", kAllNotification);
}

void waitForTermination() {
  sigset_t termination;
  sigemptyset(&termination);
  sigaddset(&termination, SIGTERM);
  int signal = 0;
  sigwait(&termination, &signal);
}

void blockTermination() {
  sigset_t termination;
  sigemptyset(&termination);
  sigaddset(&termination, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &termination, nullptr);
}

void check(int result) {
  if (result != MOSQ_ERR_SUCCESS) {
    throw std::runtime_error(mosquitto_strerror(result));
  }
}

void serveWithLibrary(std::string name) {
  check(mosquitto_lib_init());
  mosquitto* const library = mosquitto_new(name.c_str(), false, &name);
  mosquitto_int_option(library, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_int_option(library, MOSQ_OPT_SEND_MAXIMUM, 65535);
  mosquitto_connect_callback_set(library, [](mosquitto* self, void* own, int) {
    mosquitto_subscribe(self, nullptr, ("+/" + *static_cast<std::string*>(own)).c_str(), 2);
  });
  mosquitto_message_callback_set(library, [](mosquitto* self, void* own, const mosquitto_message* message) {
    const std::string_view request(static_cast<const char*>(message->payload),
                                   static_cast<std::size_t>(message->payloadlen));
    answer(*static_cast<std::string*>(own), message->topic, request,
           [self](const std::string& topic, const std::string& payload) {
             mosquitto_publish(self, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                               1, false);
           });
  });
  check(mosquitto_connect(library, "127.0.0.1", 1883, 60));
  check(mosquitto_loop_start(library));
  waitForTermination();
  mosquitto_disconnect(library);
  mosquitto_loop_stop(library, false);
  mosquitto_destroy(library);
}

class Responder final : public ipc::IIPCCallback {
 public:
  Responder(std::string name, ipc::IIPCClient& client) : name_(std::move(name)), client_(client) {}

  void connectionLost(const std::string&) override {}
  void deliveryComplete(const std::string&) override {}
  void messageArrived(const std::string& topic, const std::string& payload) override {
    answer(name_, topic, payload,
           [this](const std::string& to, const std::string& text) { client_.publish(to, text, 1); });
  }

 private:
  const std::string name_;
  ipc::IIPCClient& client_;
};

void serveWithIpc(const std::string& name) {
  const auto client = ipc::IPCFactory::createInstanceShared(name, "localhost", false);
  Responder responder(name, *client);
  client->subscribe("+/" + name, &responder);
  client->connect(0, 2, "localhost");
  waitForTermination();
  client->disconnect();
}

}  // namespace

int main(int argc, char* argv[]) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() != 2 || (words[1] != "library" && words[1] != "ipc")) {
    std::cerr << "Usage: bareresponder NAME library|ipc\n";
    return EXIT_FAILURE;
  }
  blockTermination();
  try {
    words[1] == "ipc" ? serveWithIpc(words[0]) : serveWithLibrary(words[0]);
  } catch (const std::exception& error) {
    std::cerr << "bareresponder: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
