"""./dev bench [--save]: the daemon against the least that its libraries allow and against responders
on other libraries, as ratios of one run. Prints a table, draws build/bench/results.svg, and fails
where a figure misses its limit. --save puts both into bench/, for README."""
import argparse
import math
import os
import re
import statistics
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "box"))

from box import Box, wait_until  # noqa: E402

BUILD = os.path.join(ROOT, "build", "bench")
GET = ["/bench", "com.kelvanto.bench", "Get"]
DATAMODEL = ["/com/kelvanto/nimbrel", "com.kelvanto.nimbrel.datamodel", "GetValue"]
RESPONDERS = {"nimbrelc": ("com.kelvanto.nimbrel", DATAMODEL), "floor": ("com.kelvanto.bench.floor", GET),
              "sd-bus": ("com.kelvanto.bench.peer_sd_bus", GET), "GDBus": ("com.kelvanto.bench.peer_gdbus", GET),
              "sdbus-c++": ("com.kelvanto.bench.peer_sdbus_cpp", GET)}
PATTERNS = {"closed loop": (1, 1, 3000), "32 in flight": (1, 32, 6000), "16 clients": (16, 1, 6000)}
POLICY = """<busconfig><policy user="root"><allow own_prefix="com.kelvanto.bench"/></policy>
<policy context="default"><allow send_destination_prefix="com.kelvanto.bench"/></policy></busconfig>"""
ROUNDS = 9

# The most that each figure may be, as a ratio to the floor.
LIMITS = {"GetValue, closed loop": 1.2, "GetValue, 32 in flight": 1.3, "GetValue, 16 clients": 1.4,
          "resident memory": 1.0, "private memory": 1.0, "start to the last bus name": 1.2,
          "list of 4 disks with 4 partitions": 1.3, "list of 32 disks with 32 partitions": 1.3,
          "log line, suppressed, against one to syslog": 0.05, "log line to syslog": 1.5, "log line to a file": 1.5,
          **{f"burst of {count} partitions": 1.3 for count in (500, 1000, 2500, 5000)},
          **{f"a setting in a document of {size}": 1.3 for size in ("8 KB", "100 KB", "1 MB", "10 MB")}}
MOST = {"exponent of a burst, 500 to 5000": 1.1, "wake-ups in ten idle seconds": 0}


def start(box, program):
    """A responder in the box; its process number on the host."""
    name = "com.kelvanto.bench." + program
    held = subprocess.Popen(box.command([os.path.join(BUILD, "bench", program), name]))
    (pid,) = wait_until(lambda: children(held.pid), program)
    wait_until(lambda: box.run(["dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus", "/",
                                "org.freedesktop.DBus.GetNameOwner", "string:" + name], check=False).returncode == 0, name)
    return pid


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as file:
        return list(map(int, file.read().split()))


def used_by(pid):
    """Processor nanoseconds of all its threads so far."""
    used = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/schedstat") as file:
            used += int(file.read().split()[0])
    return used


def wake_ups(pid):
    with open(f"/proc/{pid}/status") as file:
        return int(re.search(r"\nvoluntary_ctxt_switches:\s+(\d+)", file.read())[1])


def memory(pid):
    """KB that are resident, and those that it has written and shares with nobody."""
    with open(f"/proc/{pid}/smaps_rollup") as file:
        sizes = {name: int(size) for name, size in re.findall(r"^(\w+):\s+(\d+) kB", file.read(), re.M)}
    return sizes["Rss"], sizes["Anonymous"]


def spread(ratios):
    return statistics.median(ratios), *statistics.quantiles(ratios, n=4)[::2]


class Bench:
    def __init__(self):
        self.rows = []  # figure, of whom, value, unit, ratio, low, high
        self.missed = []

    def add(self, figure, who, value, unit, ratio=None, low=None, high=None):
        self.rows.append((figure, who, value, unit, ratio, low, high))
        if who == "nimbrelc":
            limit = LIMITS.get(figure) if ratio is not None else MOST.get(figure)
            if limit is not None and (ratio if ratio is not None else value) > limit:
                self.missed.append(f"{figure}: more than {limit}")

    def answers(self, box, pids):
        for pattern, (clients, in_flight, calls) in PATTERNS.items():
            times = {who: [] for who in pids}
            for _ in range(ROUNDS):
                for who, pid in pids.items():
                    name, (path, interface, member) = RESPONDERS[who]
                    before = used_by(pid)
                    box.run([os.path.join(BUILD, "bench", "load"), name, path, interface, member,
                             "Device.DeviceInfo.SoftwareVersion", str(clients), str(in_flight), str(calls)])
                    times[who].append((used_by(pid) - before) / calls / 1000)
            for who, taken in times.items():
                ratios = [ours / floor for ours, floor in zip(taken, times["floor"])]
                self.add("GetValue, " + pattern, who, statistics.median(taken), "us", *spread(ratios))

    def processes(self, box):
        box.write("/usr/share/dbus-1/system.d/box-bench.conf", POLICY, owner="root")
        box.call("/", "org.freedesktop.DBus", "ReloadConfig", name="org.freedesktop.DBus")
        box.start_daemon()
        pids = {"nimbrelc": box.daemon_pid()}
        pids |= {who: start(box, name.rsplit(".", 1)[1]) for who, (name, _) in list(RESPONDERS.items())[1:]}
        self.answers(box, pids)
        for figure, index in ("resident memory", 0), ("private memory", 1):
            sizes = {who: memory(pid)[index] for who, pid in pids.items()}
            for who, size in sizes.items():
                self.add(figure, who, size, "KB", *[size / sizes["floor"]] * 3)
        before = {who: wake_ups(pid) for who, pid in pids.items()}
        time.sleep(10)
        for who, pid in pids.items():
            self.add("wake-ups in ten idle seconds", who, wake_ups(pid) - before[who], "")
        stripped = os.path.join(BUILD, "stripped")
        subprocess.run(["strip", "-o", stripped, os.path.join(BUILD, "nimbrelc")], check=True)
        self.add("stripped size", "nimbrelc", os.path.getsize(stripped) / 1024, "KB")

    def parts(self, box):
        output = box.run([os.path.join(BUILD, "bench", "nimbrelc_bench")], timeout=900).stdout
        bursts = {}
        for line in output.splitlines():
            figure, *numbers = line.split("\t")
            if len(numbers) != 5:
                self.missed.append(line)
                continue
            ours, bare, ratio, low, high = map(float, numbers)
            self.add(figure, "nimbrelc", ours, "us", ratio, low, high)
            self.add(figure, "floor", bare, "us")
            if figure.startswith("burst"):
                bursts[int(figure.split()[2])] = ours
        self.add("exponent of a burst, 500 to 5000", "nimbrelc", math.log10(bursts[5000] / bursts[500]), "")

    def table(self):
        lines = ["| figure | | value | ratio to the floor | quartiles | limit |", "|---|---|---|---|---|---|"]
        for figure, who, value, unit, ratio, low, high in self.rows:
            limit = (LIMITS | MOST).get(figure, "") if who == "nimbrelc" else ""
            ratios = ["", ""] if ratio is None else [f"{ratio:.2f}", f"{low:.2f} to {high:.2f}"]
            number = f"{value:.2f}" if unit == "" and value != int(value) else f"{value:.1f}" if unit == "us" else f"{value:.0f}"
            lines.append(f"| {figure} | {who} | {number} {unit} | {ratios[0]} | {ratios[1]} | {limit} |")
        return "\n".join(lines) + "\n"

    def plot(self, path):
        import matplotlib
        matplotlib.use("svg")
        matplotlib.rcParams["svg.hashsalt"] = "bench"
        from matplotlib import pyplot
        figures = ["GetValue, " + pattern for pattern in PATTERNS] + ["resident memory", "private memory"]
        _, axes = pyplot.subplots(figsize=(9, 4))
        for place, who in enumerate(RESPONDERS):
            rows = [next(row for row in self.rows if row[:2] == (figure, who)) for figure in figures]
            axes.bar([index + 0.16 * (place - 2) for index in range(len(figures))], [row[4] for row in rows], 0.15,
                     yerr=[[row[4] - row[5] for row in rows], [row[6] - row[4] for row in rows]], label=who)
        axes.axhline(1, color="black", linewidth=0.8)
        axes.set_xticks(range(len(figures)), [figure.replace(", ", ",\n") for figure in figures])
        axes.set_ylabel("ratio to the floor (the bare libraries)")
        axes.legend()
        pyplot.tight_layout()
        pyplot.savefig(path, metadata={"Date": None})


def main():
    parser = argparse.ArgumentParser(prog="./dev bench")
    parser.add_argument("--save", action="store_true", help="keep the table and the plot in bench/")
    options = parser.parse_args()
    bench = Bench()
    with Box(BUILD) as box:
        bench.processes(box)
    with Box(BUILD) as box:
        bench.parts(box)
    directory = os.path.join(ROOT, "bench") if options.save else BUILD
    with open(os.path.join(directory, "results.md"), "w") as file:
        file.write(bench.table())
    bench.plot(os.path.join(directory, "results.svg"))
    print(bench.table())
    for text in bench.missed:
        print("MISSED", text)
    return 1 if bench.missed else 0


if __name__ == "__main__":
    sys.exit(main())
