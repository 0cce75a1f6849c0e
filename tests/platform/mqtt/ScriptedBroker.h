#pragma once

#include <arpa/inet.h>
#include <chrono>
#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace mqtt::test {

/// One MQTT 3.1.1 control packet.
struct Packet {
  enum Type {
    connect = 1,
    connack,
    publish,
    puback,
    pubrec,
    pubrel,
    pubcomp,
    subscribe,
    suback,
    unsubscribe
  };
  static constexpr int kPing = 12;
  static constexpr int kDisconnect = 14;

  std::uint8_t first = 0;
  std::string body;

  int type() const { return first >> 4; }
  int qos() const { return (first >> 1) & 3; }
  bool retained() const { return (first & 1) != 0; }
  bool duplicate() const { return (first & 8) != 0; }

  static std::string number(int value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value & 0xFF)};
  }
  static std::string text(const std::string& value) { return number(static_cast<int>(value.size())) + value; }
  int numberAt(std::size_t at) const {
    return static_cast<std::uint8_t>(body.at(at)) << 8 | static_cast<std::uint8_t>(body.at(at + 1));
  }
  std::string textAt(std::size_t at) const {
    return body.substr(at + 2, static_cast<std::size_t>(numberAt(at)));
  }

  /// Of a publish.
  std::string topic() const { return textAt(0); }
  int publishId() const { return numberAt(2 + topic().size()); }
  std::string payload() const { return body.substr(2 + topic().size() + (qos() == 0 ? 0 : 2)); }

  /// Of all other packets that have one.
  int id() const { return type() == publish ? publishId() : numberAt(0); }

  /// Of a subscribe or unsubscribe.
  std::string topicFilter() const { return textAt(2); }
};

/// A broker that does what the test tells it to, packet by packet, and nothing else.
class ScriptedBroker {
 public:
  static constexpr std::chrono::milliseconds kPatience{20'000};

  explicit ScriptedBroker(const char* address = "127.0.0.1", std::uint16_t port = 0)
      : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    inet_pton(AF_INET, address, &name.sin_addr);
    socklen_t size = sizeof name;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&name), size) != 0 || listen(listener_, 8) != 0) {
      throw std::runtime_error("cannot listen");
    }
    getsockname(listener_, reinterpret_cast<sockaddr*>(&name), &size);
    port_ = ntohs(name.sin_port);
  }
  ScriptedBroker(const ScriptedBroker&) = delete;
  ScriptedBroker& operator=(const ScriptedBroker&) = delete;
  ~ScriptedBroker() {
    for (const int connection : connections_) {
      ::close(connection);
    }
    ::close(listener_);
  }

  std::uint16_t port() const { return port_; }

  /// Whether a client connects in time. From now on the broker speaks with that one.
  bool accept(std::chrono::milliseconds patience = kPatience) {
    if (!readable(listener_, patience)) {
      return false;
    }
    connections_.push_back(::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
    return true;
  }

  /// The next packet of the client. Nothing when none comes in time, or the client has closed the connection.
  std::optional<Packet> receive(std::chrono::milliseconds patience = kPatience) {
    Packet packet;
    std::uint8_t byte = 0;
    if (!readable(current(), patience) || read(current(), &packet.first, 1) != 1) {
      return std::nullopt;
    }
    std::size_t size = 0;
    int shift = 0;
    do {
      if (read(current(), &byte, 1) != 1) {
        return std::nullopt;
      }
      size |= static_cast<std::size_t>(byte & 0x7F) << shift;
      shift += 7;
    } while ((byte & 0x80) != 0);
    packet.body.resize(size);
    if (size != 0 && recv(current(), packet.body.data(), size, MSG_WAITALL) != static_cast<ssize_t>(size)) {
      return std::nullopt;
    }
    return packet;
  }

  /// The next packet, which must be of this type.
  Packet expect(int type) {
    const auto packet = receive();
    if (!packet || packet->type() != type) {
      throw std::runtime_error("expected a packet of type " + std::to_string(type) + ", got " +
                               (packet ? std::to_string(packet->type()) : "none"));
    }
    return *packet;
  }

  /// Whether the client closes the connection without another packet.
  bool isLeft() {
    char byte = 0;
    return readable(current(), kPatience) && read(current(), &byte, 1) <= 0;
  }

  void send(const std::string& bytes) {
    if (::send(current(), bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
      throw std::runtime_error("the client has gone");
    }
  }

  void closeConnection() {
    ::shutdown(current(), SHUT_RDWR);
    ::close(current());
    connections_.pop_back();
  }

  /// Accepts a client and its connection, and grants its subscriptions; the connection is open then.
  void open(int subscriptions = 0, bool presence = false) {
    if (!accept()) {
      throw std::runtime_error("no client connects");
    }
    expect(Packet::connect);
    send(accepted());
    for (int i = 0; i < subscriptions; ++i) {
      send(granted(expect(Packet::subscribe).id()));
    }
    if (presence) {
      send(acknowledged(expect(Packet::publish).id()));
    }
  }

  // Packets of a broker.
  static std::string packet(int first, const std::string& body) {
    std::string bytes(1, static_cast<char>(first));
    for (std::size_t size = body.size();;) {
      const bool more = size >= 0x80;
      bytes += static_cast<char>((size & 0x7F) | (more ? 0x80 : 0));
      size >>= 7;
      if (!more) {
        return bytes + body;
      }
    }
  }
  static std::string accepted(bool sessionPresent = false) {
    return packet(0x20, {static_cast<char>(sessionPresent), 0});
  }
  static std::string refused(int code) { return packet(0x20, {0, static_cast<char>(code)}); }
  static std::string granted(int id, int qos = 1) {
    return packet(0x90, Packet::number(id) + static_cast<char>(qos));
  }
  static std::string denied(int id) { return granted(id, 0x80); }
  static std::string acknowledged(int id) { return packet(0x40, Packet::number(id)); }
  static std::string received(int id) { return packet(0x50, Packet::number(id)); }
  static std::string completed(int id) { return packet(0x70, Packet::number(id)); }
  static std::string message(const std::string& topic, const std::string& payload, int qos = 0, int id = 0,
                             bool retained = false) {
    return packet(0x30 | qos << 1 | (retained ? 1 : 0),
                  Packet::text(topic) + (qos == 0 ? "" : Packet::number(id)) + payload);
  }

 private:
  int current() const { return connections_.back(); }

  static bool readable(int descriptor, std::chrono::milliseconds patience) {
    pollfd awaited{descriptor, POLLIN, 0};
    return poll(&awaited, 1, static_cast<int>(patience.count())) == 1;
  }

  const int listener_;
  std::uint16_t port_ = 0;
  std::vector<int> connections_;
};

}  // namespace mqtt::test
