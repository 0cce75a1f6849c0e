#!/usr/bin/python3
"""Makes tables and a picture of what measure.py found: report.py OUTPUT-DIRECTORY [DOCUMENT]

Prints the tables, and writes them as report.md, the judged figures as report.json and the picture as requests.svg
beside results.json. In DOCUMENT the tables replace what stands between its two marks, and the picture goes beside it.
"""

import json
import pathlib
import statistics
import sys

DAEMON = "prop-service"
LIBRARY = "bare-service"
IPC = "bipc-service"


class Figure:
    """The median of some values and how far they lie apart."""

    def __init__(self, values):
        self.values = list(values)
        self.median = statistics.median(self.values)
        self.spread = (max(self.values) - min(self.values)) / self.median if self.median else 0

    def __truediv__(self, other):
        """Compares turn by turn, as the figures were measured."""
        return Figure(mine / its for mine, its in zip(self.values, other.values))

    def __str__(self):
        decimals = 0 if self.median >= 1000 else 1 if self.median >= 100 else 2
        return f"{self.median:,.{decimals}f}"


class Results:
    def __init__(self, results):
        self.quick = results["quick"]
        self.machine = results["machine"]
        self.idle = results["idle_switches_per_second"]
        self._times = results["in_process"]
        self._bus = results["bus"]
        self._start = results["start"]
        self._maintenance = results["maintenance"]
        self._slow_disk = results["slow_disk"]
        self.hostile = results["hostile"]

    def benchmarks(self):
        return sorted(self._times)

    def time(self, benchmark, unit=1):
        return Figure(nanoseconds / unit for nanoseconds in self._times[benchmark])

    def bus(self, responder, workload, member, pinned=True):
        return Figure(
            sample[member]
            for sample in self._bus
            if (sample["responder"], sample["workload"], sample["pinned"]) == (responder, workload, pinned)
        )

    def workloads(self):
        return list(dict.fromkeys(sample["workload"] for sample in self._bus))

    def start(self, properties, member):
        return Figure(sample[member] for sample in self._start if sample["properties"] == properties)

    def sizes(self):
        return sorted({sample["properties"] for sample in self._start})

    def maintenance(self, member):
        return Figure(sample[member] for sample in self._maintenance)

    def slow_disk(self, member):
        return Figure(sample[member] for sample in self._slow_disk)

    def start_beyond_connecting(self, properties):
        return Figure(
            sample["first_reply_ms"] - sample["connect_ms"]
            for sample in self._start
            if sample["properties"] == properties
        )


def resident_mib(results, properties):
    return Figure(kib / 1024 for kib in results.start(properties, "resident_kib").values)


def targets(results):
    """(what, measured, "at most" or "at least", limit) of each target."""

    def over_library(workload, member):
        return results.bus(DAEMON, workload, member) / results.bus(LIBRARY, workload, member)

    def over(benchmark, yardstick):
        return results.time(benchmark) / results.time(yardstick)

    return [
        ("getV, round trip, 1 client: over the bare responder", over_library("getV 1x1", "p50_us"), "at most", 1.05),
        (
            "getV, throughput, 8 x 32: over the bare responder",
            over_library("getV 8x32", "per_second"),
            "at least",
            0.95,
        ),
        ("setV, round trip, 1 client: over the bare responder", over_library("setV 1x1", "p50_us"), "at most", 1.10),
        (
            "setV, throughput, 8 x 32: over the bare responder",
            over_library("setV 8x32", "per_second"),
            "at least",
            0.90,
        ),
        (
            "CPU of a getV, 8 x 32: daemon over the bare responder",
            over_library("getV 8x32", "service_cpu_us"),
            "at most",
            1.3,
        ),
        ("setV in process: over its JSON with JsonCpp alone", over("setV/4096", "jsonOfSetV"), "at most", 3),
        ("getV in process: over its JSON with JsonCpp alone", over("getV/4096", "jsonOfGetV"), "at most", 1.6),
        (
            "write-behind, properties per second: over SQLite's C interface",
            over("writeBatchInC", "writeBatch"),
            "at least",
            0.95,
        ),
        ("getColsL of 10 among 4096 in process: over one getV", over("getColsLTen/4096", "getV/4096"), "at most", 15),
        (
            "start to first reply at 4096 properties, without connecting, ms",
            results.start_beyond_connecting(4096),
            "at most",
            30,
        ),
        ("resident memory at 4096 properties, MiB", resident_mib(results, 4096), "at most", 20),
        (
            "worst of the hostile requests, processor time, ms",
            Figure([max(cost["ms"] for cost in results.hostile.values())]),
            "at most",
            1000,
        ),
        (
            "worst of the hostile requests, memory, MiB",
            Figure([max(cost["kib"] for cost in results.hostile.values()) / 1024]),
            "at most",
            64,
        ),
        ("context switches per second, idle", Figure([results.idle]), "at most", 4),
    ]


def holds(figure, relation, limit):
    return figure.median <= limit if relation == "at most" else figure.median >= limit


def percent(figure):
    return f"{100 * figure.spread:.0f} %"


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "".join("| " + " | ".join(map(str, line)) + " |\n" for line in lines)


def target_table(results):
    rows = []
    for what, figure, relation, limit in targets(results):
        verdict = "not judged" if results.quick else "met" if holds(figure, relation, limit) else "missed"
        rows.append((what, figure, percent(figure), f"{relation} {limit}", verdict))
    return table(("what", "median", "spread", "target", ""), rows)


def bus_table(results, pinned):
    rows = []
    for workload in results.workloads():
        for responder, name in (
            (DAEMON, "daemon"),
            (LIBRARY, "bare, libmosquitto's thread"),
            (IPC, "bare, the daemon's bus client"),
        ):
            figures = [
                results.bus(responder, workload, member, pinned)
                for member in ("p50_us", "p99_us", "per_second", "service_cpu_us", "broker_cpu_us")
            ]
            rows.append((workload, name, *figures, percent(figures[2])))
    return table(
        ("requests", "responder", "p50 µs", "p99 µs", "per second", "its CPU µs", "broker's CPU µs", "spread"), rows
    )


def start_table(results):
    rows = [
        (
            properties,
            results.start_beyond_connecting(properties),
            *(results.start(properties, member) for member in ("cpu_ms", "bare_first_reply_ms", "select_ms")),
            resident_mib(results, properties),
        )
        for properties in results.sizes()
    ]
    return table(
        ("properties", "first reply ms", "its CPU ms", "bare responder ms", "sqlite3, SELECT * ms", "resident MiB"),
        rows,
    )


def maintenance_table(results):
    changed = results.maintenance("changed")
    figures = (
        (f"restore of {changed.median} changed values among 4096, by propctl, ms", results.maintenance("restore_ms")),
        ("backup of all settings after it, by propctl, ms", results.maintenance("backup_ms")),
        ("setV, round trip, 1 client, 30 ms a synchronisation, µs", results.slow_disk("p50_us")),
        ("the same on the disk of the table above, µs", results.bus(DAEMON, "setV 1x1", "p50_us", False)),
    )
    return table(("what", "median", "spread"), [(what, figure, percent(figure)) for what, figure in figures])


def growth_table(results):
    sizes = results.sizes()
    rows = [
        (request, *(results.time(f"{request}/{size}", 1000) for size in sizes))
        for request in ("getV", "setV", "getColsLTen", "getColsLAll")
    ]
    return table(("in process, µs", *(f"{size:,} properties" for size in sizes)), rows)


def hostile_table(results):
    """The dozen that take the most time."""
    worst = sorted(results.hostile.items(), key=lambda item: -item[1]["ms"])[:12]
    return table(
        ("request of up to 1 MiB", "processor ms", "MiB"),
        [(name, Figure([cost["ms"]]), Figure([cost["kib"] / 1024])) for name, cost in worst],
    )


def process_table(results):
    return table(
        ("in process", "µs", "spread"),
        [(name, results.time(name, 1000), percent(results.time(name))) for name in results.benchmarks()],
    )


def report(results):
    machine = results.machine
    return "\n".join(
        [
            f"{machine['cpu']}, {machine['cores']} cores, Linux {machine['kernel']}; load average before the run "
            f"{machine['load_before']:.1f}. Medians; the spread of all rounds is (largest - smallest) / median.\n",
            "### Targets\n",
            target_table(results),
            "### On the bus, everything on one core\n",
            bus_table(results, True),
            "### On the bus, on all cores\n",
            bus_table(results, False),
            "### Start\n",
            start_table(results),
            "### Backup, restore and a slow disk\n",
            maintenance_table(results),
            "### Growth\n",
            growth_table(results),
            "### Hostile requests\n",
            hostile_table(results),
            "### In process\n",
            process_table(results),
        ]
    )


def parts_of(results, method):
    """Returns the parts of a request's round trip, in µs, everything on one core."""
    json_us = results.time("jsonOf" + method[0].upper() + method[1:], 1000).median
    in_process = results.time(method + "/4096", 1000).median
    service = results.bus(DAEMON, method + " 1x1", "service_cpu_us").median
    broker = results.bus(DAEMON, method + " 1x1", "broker_cpu_us").median
    bus_client = results.bus(IPC, method + " 1x1", "service_cpu_us").median
    # Not what the client waits for: with notifications and the disk the core is busy beyond the reply.
    period = 1e6 / results.bus(DAEMON, method + " 1x1", "per_second").median
    return [
        ("broker", broker, "#8da0cb"),
        ("daemon: JSON", json_us, "#fc8d62"),
        ("daemon: the request", max(in_process - json_us, 0), "#e5533c"),
        ("daemon: bus client", bus_client, "#ffd92f"),
        ("daemon: log, workers, disk", max(service - in_process - bus_client, 0), "#a6d854"),
        ("client, waiting", max(period - broker - service, 0), "#cccccc"),
    ]


def picture(results):
    """Bars of equal width for one getV and one setV."""
    width, height, left = 700, 28, 60
    lines = []
    y = 10
    for method in ("getV", "setV"):
        parts = parts_of(results, method)
        total = sum(duration for _, duration, _ in parts)
        lines.append(f'<text x="0" y="{y + 19}">{method}</text>')
        x = left
        for name, duration, colour in parts:
            share = width * duration / total
            lines.append(
                f'<rect x="{x:.1f}" y="{y}" width="{share:.1f}" height="{height}" fill="{colour}">'
                f"<title>{name}: {duration:.1f} µs</title></rect>"
            )
            x += share
        lines.append(f'<text x="{left + width + 8}" y="{y + 19}">{total:.0f} µs</text>')
        y += height + 6
        for name, duration, colour in parts:
            lines.append(
                f'<rect x="{left}" y="{y}" width="12" height="12" fill="{colour}"/>'
                f'<text x="{left + 20}" y="{y + 11}">{name}: {duration:.1f} µs</text>'
            )
            y += 18
        y += 14
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 80}" height="{y}" '
        f'font-family="sans-serif" font-size="13">\n' + "\n".join(lines) + "\n</svg>\n"
    )


def record(text, image, document):
    begin, end = "<!-- measured -->\n", "<!-- end of measured -->"
    before, _, rest = document.read_text().partition(begin)
    _, _, after = rest.partition(end)
    document.write_text(f"{before}{begin}\n{text}\n{end}{after}")
    document.with_suffix(".svg").write_text(image.read_text())


def main():
    output = pathlib.Path(sys.argv[1])
    results = Results(json.loads((output / "results.json").read_text()))
    text = report(results)
    (output / "report.md").write_text(text)
    (output / "report.json").write_text(
        json.dumps(
            [
                {
                    "what": what,
                    "median": figure.median,
                    "spread": figure.spread,
                    "relation": relation,
                    "limit": limit,
                    "met": None if results.quick else holds(figure, relation, limit),
                }
                for what, figure, relation, limit in targets(results)
            ],
            indent=1,
        )
        + "\n"
    )
    (output / "requests.svg").write_text(picture(results))
    if len(sys.argv) > 2:
        record(text, output / "requests.svg", pathlib.Path(sys.argv[2]))
    print(text)


if __name__ == "__main__":
    main()
