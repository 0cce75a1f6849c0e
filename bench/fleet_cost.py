#!/usr/bin/env python3
"""Measures the cost of a device at its central broker, for the account in docs/fleet.md.

    tests/fleet/private-network bench/fleet_cost.py [DEVICES]

A real Mosquitto with the sample configuration of the centre serves DEVICES (2000) connections over TLS that say and
hear what a device's bridge does. Prints memory, processor time and bytes for each of them. Bytes are those of whole IP
packets of at most 1500 bytes, both directions; processor time is the broker's, kernel included.

One certificate serves all devices, so that thousands start in short time; the client identifier then stands for the
proved serial number.
"""

import json
import os
import re
import resource
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
KEEP_ALIVE = 60


def run(*command, **options):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)


def text(string):
    data = string.encode()
    return struct.pack("!H", len(data)) + data


def packet(kind, body=b""):
    length, size = b"", len(body)
    while True:
        size, digit = divmod(size, 128)
        length += bytes([digit | (0x80 if size else 0)])
        if not size:
            return bytes([kind]) + length + body


class Client:
    """One MQTT 3.1.1 connection over TLS, with as much of the protocol as this needs."""

    def __init__(self, port, context, identity, will=None):
        tcp = socket.create_connection(("127.0.0.1", port))
        tcp.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.tls = context.wrap_socket(tcp, server_hostname="localhost")
        self.input = b""
        self.packet_id = 0
        flags = 0x02 | (0x2C if will else 0)  # clean session; a retained will of QoS 1
        body = text("MQTT") + bytes([4, flags]) + struct.pack("!H", KEEP_ALIVE) + text(identity)
        if will:
            body += text(will) + text("0")
        self.send(packet(0x10, body))
        self.expect(0x20)

    def send(self, data):
        self.tls.sendall(data)

    def next_id(self):
        self.packet_id = self.packet_id % 65535 + 1
        return struct.pack("!H", self.packet_id)

    def receive(self):
        """The next packet: its first byte and its body."""
        while True:
            shift, size, at = 0, 0, 1
            while at < len(self.input):
                digit = self.input[at]
                size |= (digit & 0x7F) << shift
                shift, at = shift + 7, at + 1
                if not digit & 0x80:
                    if len(self.input) < at + size:
                        break
                    kind, body = self.input[0], self.input[at : at + size]
                    self.input = self.input[at + size :]
                    return kind, body
            data = self.tls.recv(65536)
            if not data:
                raise ConnectionError("the broker has closed the connection")
            self.input += data

    def expect(self, kind):
        got, body = self.receive()
        if got & 0xF0 != kind:
            raise ConnectionError(f"packet {got:#x} instead of {kind:#x}")
        return body

    def subscribe(self, topic):
        self.send(packet(0x82, self.next_id() + text(topic) + b"\1"))
        self.expect(0x90)

    def publish(self, topic, payload, retained=False):
        self.send(packet(0x32 | retained, text(topic) + self.next_id() + payload.encode()))

    def take(self):
        """Receives a published message and acknowledges it; its topic."""
        body = self.expect(0x30)
        length = struct.unpack("!H", body[:2])[0]
        self.send(packet(0x40, body[2 + length : 4 + length]))
        return body[2 : 2 + length].decode()


class Centre:
    def __init__(self, directory):
        self.directory = directory
        fleet = f"{directory}/fleet"
        os.mkdir(fleet)
        for line in open(f"{ROOT}/docs/fleet.md"):
            if line.startswith("openssl req -x509"):
                run("sh", "-c", "centre=localhost; " + line, cwd=fleet)
        with open(f"{ROOT}/device/mosquitto/central.conf") as sample:
            configuration = sample.read()
        for name in ("devices", "controllers"):
            run("cp", f"{ROOT}/device/mosquitto/central-{name}.acl", directory)
        run("sed", "-i", "s/%u/%c/", f"{directory}/central-devices.acl")
        configuration = configuration.replace("use_username_as_clientid true\n", "")
        configuration = configuration.replace("/etc/mosquitto/", directory + "/")
        configuration = configuration.replace("/var/lib/mosquitto/", directory + "/").replace("syslog", "stderr")
        with open(f"{directory}/mosquitto.conf", "w") as file:
            file.write(f"user root\n{configuration}")
        self.broker = subprocess.Popen(
            ["/usr/sbin/mosquitto", "-c", f"{directory}/mosquitto.conf"], stderr=open(f"{directory}/log", "w")
        )
        deadline = time.monotonic() + 10
        while subprocess.run(["bash", "-c", ": </dev/tcp/127.0.0.1/8884"], stderr=subprocess.DEVNULL).returncode:
            if time.monotonic() > deadline:
                raise RuntimeError(open(f"{directory}/log").read())
            time.sleep(0.05)

    def certificate(self, kind, name):
        """A TLS context that proves to be `name`."""
        fleet = f"{self.directory}/fleet"
        variable = {"device": "serial", "controller": "controller"}[kind]
        for line in open(f"{ROOT}/docs/fleet.md"):
            if line.startswith("openssl") and f"{kind}.csr" in line:
                run("sh", "-c", f"{variable}={name}; " + line, cwd=fleet)
        context = ssl.create_default_context(cafile=f"{fleet}/centre-ca.crt")
        context.minimum_version = ssl.TLSVersion.TLSv1_3
        context.load_cert_chain(f"{fleet}/{kind}.crt", f"{fleet}/{kind}.key")
        return context

    def processor_seconds(self):
        with open(f"/proc/{self.broker.pid}/schedstat") as file:
            return int(file.read().split()[0]) / 1e9

    def resident_bytes(self):
        with open(f"/proc/{self.broker.pid}/status") as file:
            return int(re.search(r"VmRSS:\s+(\d+)", file.read())[1]) * 1024


def wire_bytes():
    with open("/proc/net/dev") as file:
        return int(re.search(r"lo:\s*(\d+)", file.read())[1])


def socket_pages():
    with open("/proc/net/sockstat") as file:
        return int(re.search(r"TCP:.* mem (\d+)", file.read())[1])


class Account:
    """Prints what happens within it, for each of `count`."""

    def __init__(self, centre, what, count):
        self.centre, self.what, self.count = centre, what, count

    def __enter__(self):
        self.start = (wire_bytes(), self.centre.processor_seconds())

    def __exit__(self, *error):
        time.sleep(0.3)  # the last acknowledgements
        size = (wire_bytes() - self.start[0]) / self.count
        busy = (self.centre.processor_seconds() - self.start[1]) / self.count * 1e6
        print(f"{self.what:44} {size:8.0f} bytes {busy:8.0f} us")


def connect(context, serial):
    """As the bridge does, with two controllers."""
    client = Client(8883, context, serial, f"devices/{serial}/online")
    client.publish(f"devices/{serial}/online", "1", retained=True)
    client.publish(f"devices/{serial}/services/prop-service/online", "1", retained=True)
    for controller in ("fleet", "support"):
        client.send(packet(0x82, client.next_id() + text(f"devices/{serial}/{controller}/prop-service") + b"\1"))
    for kind in (0x40, 0x40, 0x90, 0x90):
        client.expect(kind)
    return client


def measure(centre, count):
    serials = [f"HX-{number:08}" for number in range(count)]
    context = centre.certificate("device", "HX")
    before, pages = centre.resident_bytes(), socket_pages()
    with Account(centre, "connect: TLS, CONNECT, presence, SUBSCRIBE", count):
        devices = {serial: connect(context, serial) for serial in serials}
    memory = (centre.resident_bytes() - before) / count
    kernel = (socket_pages() - pages) * 4096 / count
    print(f"{'memory of a connection':44} {memory:8.0f} bytes, and {kernel:.0f} bytes of socket buffers")

    with Account(centre, "keep-alive: PINGREQ, PINGRESP", count):
        for device in devices.values():
            device.send(packet(0xC0))
            device.expect(0xD0)

    fleet = Client(8884, centre.certificate("controller", "fleet"), "")
    with Account(centre, "presence of one device in the list", count):
        fleet.send(packet(0x82, fleet.next_id() + text("devices/+/online") + b"\1"))
        listed = 0
        while listed < count:
            kind, body = fleet.receive()
            if kind & 0xF0 == 0x30:
                length = struct.unpack("!H", body[:2])[0]
                fleet.send(packet(0x40, body[2 + length : 4 + length]))
                listed += 1

    fleet.subscribe("devices/+/prop-service/fleet")
    request = json.dumps({"method": "setV", "param": "Audio.Volume", "value": "7"}, separators=(",", ":"))
    with Account(centre, "request and reply", count):
        for serial, device in devices.items():
            fleet.publish(f"devices/{serial}/fleet/prop-service", request)
            device.take()
            fleet.expect(0x40)
            device.publish(f"devices/{serial}/prop-service/fleet", '{"param":"Audio.Volume","status":"Ok"}\n')
            device.expect(0x40)
            fleet.take()

    with Account(centre, "change: two notifications, nobody listens", count):
        for serial, device in devices.items():
            announce(device, serial)

    fleet.subscribe("devices/+/prop-service-groupnotify/any")
    with Account(centre, "change: two notifications, one listener", count):
        for serial, device in devices.items():
            announce(device, serial)
            fleet.take()


def announce(device, serial):
    device.publish(f"devices/{serial}/prop-service-audio/any", '{"param":"Audio.Volume","value":"7"}\n')
    device.publish(f"devices/{serial}/prop-service-groupnotify/any", '{"Audio.Volume":"7"}\n')
    device.expect(0x40)
    device.expect(0x40)


def main():
    if "FLEET_PRIVATE_NETWORK" not in os.environ:
        sys.exit(__doc__)
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 2000
    run("ip", "link", "set", "lo", "up", "mtu", "1500")
    resource.setrlimit(resource.RLIMIT_NOFILE, (count + 100, count + 100))
    with tempfile.TemporaryDirectory() as directory:
        centre = Centre(directory)
        try:
            measure(centre, count)
        finally:
            centre.broker.kill()
            centre.broker.wait()


main()
