#!/usr/bin/python3
"""Measures the daemon and writes what it found to a JSON file: in process, on the bus, at start-up, idle, and under
hostile requests.

    measure.py BUILD-DIRECTORY OUTPUT-DIRECTORY [--quick]

Must run inside `script/sandbox --private-network`: the daemon is started on its fixed paths, and the broker listens on
port 1883. What is compared is measured in turns. `report.py` makes a table of the result.
"""

import contextlib
import dataclasses
import json
import os
import pathlib
import platform
import shutil
import socket
import subprocess
import sys
import time

DATABASE = pathlib.Path("/usr/sbin/nvm")
DEVICE = pathlib.Path(__file__).resolve().parent.parent / "device"
ALL_CORES = os.sched_getaffinity(0)
ONE_CORE = {max(ALL_CORES)}

# The name of each responder on the bus is as long as that of the daemon.
DAEMON = "prop-service"
LIBRARY = "bare-service"
IPC = "bipc-service"

WORKLOADS = [
    (method, clients, outstanding) for method in ("getV", "setV") for clients, outstanding in ((1, 1), (1, 64), (8, 32))
]
SIZES = (200, 4096, 65536)


@dataclasses.dataclass
class Plan:
    rounds: int
    seconds: float  # of one load on the bus
    repetitions: int
    min_time: float  # of one benchmark in process
    idle_seconds: float


FULL = Plan(rounds=5, seconds=1.2, repetitions=5, min_time=0.2, idle_seconds=10)
QUICK = Plan(rounds=1, seconds=0.2, repetitions=1, min_time=0.01, idle_seconds=2)


@contextlib.contextmanager
def running(command, log):
    """A process for as long as the context lasts; it ends with this one however that ends."""
    with open(log, "a") as output:
        process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", *map(str, command)],
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=output,
        )
    try:
        yield process.pid
    finally:
        process.terminate()
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def run(command, cores=ALL_CORES, **options):
    """The output of a command that succeeds within two minutes, or ten for the benchmarks."""
    return subprocess.run(
        ["taskset", "-c", ",".join(map(str, cores)), *map(str, command)],
        check=True,
        text=True,
        stdout=subprocess.PIPE,
        **{"timeout": 120, **options},
    ).stdout


def tasks(pid):
    return list(pathlib.Path(f"/proc/{pid}/task").iterdir())


def cpu_us(pid):
    return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks(pid)) / 1000


def context_switches(pid):
    return sum(
        int(line.split()[1])
        for task in tasks(pid)
        for line in (task / "status").read_text().splitlines()
        if "ctxt_switches" in line
    )


def pin(pid, cores):
    for task in tasks(pid):
        os.sched_setaffinity(int(task.name), cores)


def wait_until_quiet(*pids):
    """Waits until work that a request left for later is done, so that it counts for the right request."""
    deadline = time.monotonic() + 10
    before = sum(map(cpu_us, pids))
    while time.monotonic() < deadline:
        time.sleep(0.02)
        now = sum(map(cpu_us, pids))
        if now - before < 500:
            return
        before = now


@contextlib.contextmanager
def broker(output):
    """The device's broker, but for everybody."""
    theirs = (DEVICE / "mosquitto" / "propsrv.conf").read_text().splitlines()
    replaced = ("allow_anonymous", "password_file", "acl_file", "log_dest")
    ours = [line for line in theirs if not line.startswith(replaced)]
    configuration = output / "mosquitto.conf"
    configuration.write_text("\n".join([*ours, "allow_anonymous true", "log_dest stderr", "user root", ""]))
    with running(["mosquitto", "-c", configuration], output / "broker.log") as pid:
        deadline = time.monotonic() + 10
        while True:
            with contextlib.suppress(ConnectionRefusedError), socket.create_connection(("127.0.0.1", 1883)):
                break
            if time.monotonic() > deadline:
                raise TimeoutError("the broker does not listen")
            time.sleep(0.01)
        yield pid


def make_device(build, count):
    shutil.copy(DEVICE / "etc" / "model", "/etc/model")
    shutil.copy(DEVICE / "etc" / "version", "/etc/version")
    DATABASE.unlink(missing_ok=True)
    run([build / "sampledatabase", DATABASE, count])


def measure_in_process(build, output, plan):
    """{benchmark: [nanoseconds of each repetition]}: elapsed for what waits for the disk, else of the CPU."""
    scratch = output / "tmp"
    scratch.mkdir(exist_ok=True)
    result = output / "benchmarks.json"
    with open(output / "benchmarks.log", "w") as log:
        run(
            [
                build / "benchmarks",
                f"--benchmark_out={result}",
                f"--benchmark_min_time={plan.min_time}",
                f"--benchmark_repetitions={plan.repetitions}",
                "--benchmark_enable_random_interleaving=true",
            ],
            stderr=log,
            timeout=600,
            env={**os.environ, "TMPDIR": str(scratch)},
        )
    times = {}
    nanoseconds = {"ns": 1, "us": 1e3, "ms": 1e6}
    for entry in json.loads(result.read_text())["benchmarks"]:
        if entry["run_type"] == "iteration":
            clock = "real_time" if "real_time" in entry["name"] else "cpu_time"
            name = "/".join(
                part
                for part in entry["name"].split("/")
                if part != "real_time" and not part.startswith(("iterations:", "repeats:", "min_time:"))
            )
            times.setdefault(name, []).append(entry[clock] * nanoseconds[entry["time_unit"]])
    return times


def measure_bus(build, output, plan, broker_pid):
    """A sample for each round, workload, placement and responder; and how often the idle daemon is woken up."""
    make_device(build, 4096)
    log = output / "daemon.log"
    samples = []
    with (
        running([build / "PropertyService"], log) as daemon,
        running([build / "bareresponder", LIBRARY, "library"], output / "library.log") as library,
        running([build / "bareresponder", IPC, "ipc"], output / "ipc.log") as ipc,
    ):
        responders = {DAEMON: daemon, LIBRARY: library, IPC: ipc}
        for service in responders:  # until each answers
            run([build / "busload", service, "getV", 1, 1, 0.1])
        for pinned, cores in ((True, ONE_CORE), (False, ALL_CORES)):
            for pid in (*responders.values(), broker_pid):
                pin(pid, cores)
            for workload in WORKLOADS:
                for number in range(plan.rounds):
                    for service, pid in responders.items():
                        os.truncate(log, 0)
                        before = cpu_us(pid), cpu_us(broker_pid)
                        sample = json.loads(run([build / "busload", service, *workload, plan.seconds], cores))
                        wait_until_quiet(pid, broker_pid)
                        after = cpu_us(pid), cpu_us(broker_pid)
                        requests = sample["requests"]
                        samples.append(
                            {
                                "responder": service,
                                "workload": "{} {}x{}".format(*workload),
                                "pinned": pinned,
                                "round": number,
                                "service_cpu_us": (after[0] - before[0]) / requests,
                                "broker_cpu_us": (after[1] - before[1]) / requests,
                                **sample,
                            }
                        )
        time.sleep(2)  # the writer has nothing left to do
        before = context_switches(daemon)
        time.sleep(plan.idle_seconds)
        idle = (context_switches(daemon) - before) / plan.idle_seconds
    return samples, idle


def measure_start(build, output, plan):
    """A sample for each size and round, and one for a responder that has nothing to load."""
    samples = []
    for count in SIZES:
        make_device(build, count)
        for number in range(-1, plan.rounds):
            with open(output / "start.log", "a") as log:
                sample = json.loads(run([build / "starttime", DAEMON, build / "PropertyService"], stderr=log))
                bare = json.loads(
                    run([build / "starttime", LIBRARY, build / "bareresponder", LIBRARY, "library"], stderr=log)
                )
            begin = time.perf_counter()
            subprocess.run(["sqlite3", DATABASE, "SELECT * FROM settings"], check=True, stdout=subprocess.DEVNULL)
            if number < 0:
                continue  # the first start of all writes down what the device is
            samples.append(
                {
                    "properties": count,
                    "round": number,
                    **sample,
                    "bare_first_reply_ms": bare["first_reply_ms"],
                    "select_ms": (time.perf_counter() - begin) * 1000,
                }
            )
    return samples


def measure_maintenance(build, output, plan):
    """A sample for each round: what a restore of 4096 changed values takes, and the backup of all settings after it."""
    make_device(build, 4096)
    backup = pathlib.Path("/config/user_backup.csv")
    propctl = build / "propctl"
    samples = []
    with running([build / "PropertyService"], output / "maintenance.log"):
        run([build / "busload", DAEMON, "getV", 1, 1, 0.1])  # until it answers
        run([propctl, "backup", "--all"])
        lines = backup.read_text().splitlines()
        for number in range(plan.rounds):
            value = f";{number % 10}"
            backup.write_text(
                "".join(
                    (line.rpartition(";")[0] + value if line.startswith("Account.") else line) + "\n" for line in lines
                )
            )
            sample = {"round": number, "changed": sum(line.startswith("Account.") for line in lines)}
            for operation in (["restore"], ["backup", "--all"]):
                begin = time.perf_counter()
                run([propctl, *operation])
                sample[operation[0] + "_ms"] = (time.perf_counter() - begin) * 1000
            samples.append(sample)
    return samples


def measure_slow_disk(build, output, plan):
    """A sample for each round: the round trip of a setV on a disk that takes 30 ms for each synchronisation."""
    make_device(build, 4096)
    slow = [
        "env",
        f"LD_PRELOAD={build / 'tests/support/libslow_sync.so'}",
        "SLOW_SYNC_PROGRAM=PropertyService",
        "SLOW_SYNC_MS=30",
        "SLOW_SYNC_LOG=/dev/null",
    ]
    with running([*slow, build / "PropertyService"], output / "slow.log"):
        run([build / "busload", DAEMON, "getV", 1, 1, 0.1])  # until it answers
        return [
            {"round": number, **json.loads(run([build / "busload", DAEMON, "setV", 1, 1, plan.seconds]))}
            for number in range(plan.rounds)
        ]


def measure_hostile(build, output):
    """{request: {"ms", "kib"}}: processor time of the busiest thread of the daemon, and what it takes of memory."""
    result = output / "hostile.json"
    run([build / "hostile_test", f"--gtest_output=json:{result}"], timeout=600, stderr=subprocess.DEVNULL)
    costs = {}
    for name, cost in json.loads(result.read_text())["testsuites"][0]["testsuite"][0].items():
        request, separator, unit = name.rpartition("_")
        if separator and unit in ("ms", "kib"):
            costs.setdefault(request, {})[unit] = float(cost)
    return costs


def machine():
    models = [
        line.split(":")[1].strip()
        for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
        if line.startswith("model name")
    ]
    return {
        "cpu": models[0] if models else platform.machine(),
        "cores": len(ALL_CORES),
        "kernel": platform.release(),
        "load_before": os.getloadavg()[0],
    }


def main():
    build, output = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
    quick = "--quick" in sys.argv[3:]
    plan = QUICK if quick else FULL
    if "PROPERTYSERVICE_SANDBOX" not in os.environ:
        sys.exit("measure.py needs a device of its own: run script/bench")

    run(["mount", "-t", "tmpfs", "tmpfs", "/var/volatile"])  # a RAM disk, as on a device

    results = {"quick": quick, "machine": machine()}
    print("in process", file=sys.stderr)
    results["in_process"] = measure_in_process(build, output, plan)
    with broker(output) as broker_pid:
        print("on the bus", file=sys.stderr)
        results["bus"], results["idle_switches_per_second"] = measure_bus(build, output, plan, broker_pid)
        print("start", file=sys.stderr)
        pin(broker_pid, ALL_CORES)
        results["start"] = measure_start(build, output, plan)
        print("backup and restore", file=sys.stderr)
        results["maintenance"] = measure_maintenance(build, output, plan)
        results["slow_disk"] = measure_slow_disk(build, output, plan)
    print("hostile requests", file=sys.stderr)
    results["hostile"] = measure_hostile(build, output)
    (output / "results.json").write_text(json.dumps(results, indent=1) + "\n")


if __name__ == "__main__":
    main()
