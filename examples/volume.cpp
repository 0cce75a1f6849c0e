#include <iostream>
#include <propclient/Client.h>

int main() try {
  propclient::Client client({.name = "volume"});
  client.connect();
  const auto before = client.get("Audio.Volume");
  const auto status = client.set("Audio.Volume", "7").status;
  std::cout << "was " << before.value << ", set to 7: " << toText(status) << '\n';
  return status == propclient::Status::ok ? 0 : 1;
} catch (const propclient::ConnectionError& error) {
  std::cerr << error.what() << '\n';
  return 1;
}
