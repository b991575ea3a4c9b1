#!/usr/bin/env python3
"""Measures the roads of the library beside their limits and writes bench/results/*.json; bench/run calls it.

Candidates take turns within a round, forwards and backwards, and each round has every one of them once. Only ratios
within a round are worth anything: the machine's speed changes from minute to minute."""
import argparse
import collections
import json
import os
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

import report

HERE = os.path.dirname(os.path.abspath(__file__))
BUILD = os.path.join(os.path.dirname(HERE), "build", "release")
PRIVATE_DIRS = os.path.join(os.path.dirname(HERE), "tests", "support", "private_dirs")
ROADS = ["inbound", "latency", "growth", "publishing", "logging", "http", "crc", "start", "life", "memory"]


def program(name):
    return os.path.join(BUILD, "bench", name)


class Figures:
    """What was measured: for each (road, figure, where, candidate, unit, x) its value in each round."""

    def __init__(self):
        self.values = collections.defaultdict(dict)

    def add(self, line, turn):
        key = (line["road"], line["figure"], line["where"], line["candidate"], line["unit"], line.get("x"))
        self.values[key].setdefault(line.get("round", turn), []).append(line["value"])

    def run(self, turn, command, timeout=600):
        """Runs a program that tells its figures as lines of JSON."""
        done = subprocess.run([PRIVATE_DIRS] + [str(word) for word in command], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True, timeout=timeout, check=False)
        for line in done.stdout.splitlines():
            if line.startswith("{"):
                self.add(json.loads(line), turn)
        if done.returncode != 0:
            print(f"  {' '.join(map(str, command))} ended with {done.returncode}", file=sys.stderr)

    def write(self, directory, quick):
        """Of what stands there already it keeps the circumstances that were not measured anew."""
        os.makedirs(directory, exist_ok=True)
        roads = collections.defaultdict(list)
        for (road, figure, where, candidate, unit, x), rounds in self.values.items():
            entry = {"figure": figure, "where": where, "candidate": candidate, "unit": unit}
            if x is not None:
                entry["x"] = x
            entry["rounds"] = {str(turn): float(f"{statistics.median(values):.5g}") for turn, values in rounds.items()}
            roads[road].append(entry)
        for road, entries in roads.items():
            path = os.path.join(directory, road.replace(" ", "_") + ".json")
            if os.path.exists(path):
                fresh = {(entry["figure"], entry["where"]) for entry in entries}
                with open(path, encoding="utf-8") as file:
                    entries = [entry for entry in json.load(file)["figures"]
                               if (entry["figure"], entry["where"]) not in fresh] + entries
            with open(path, "w", encoding="utf-8") as file:
                file.write('{"road": %s, "quick": %s, "figures": [\n' % (json.dumps(road), json.dumps(quick)))
                file.write(",\n".join(json.dumps(entry) for entry in entries) + "\n]}\n")


def count(number, what):
    return f"{number} {what}" + ("" if int(number) == 1 else "s")


def in_turns(rounds, commands, act):
    """Calls act(turn, command) for all commands in each round, every other round backwards."""
    for turn in range(rounds):
        for command in commands if turn % 2 == 0 else reversed(commands):
            act(turn, command)


def inbound_candidates():
    found = {}
    for name in ("InboundBench", "InboundBenchPahoCpp"):
        if os.path.exists(program(name)):
            listing = subprocess.run([program(name), "--candidates"], capture_output=True, text=True, check=True)
            found.update((candidate, program(name)) for candidate in listing.stdout.splitlines())
    return found


def inbound(figures, quick, rounds):
    programs = inbound_candidates()
    commands = []
    for size in (64, 1024, 65536):
        for qos in (0, 1):
            if quick and size > 64 and qos > 0:
                continue
            messages = 2000 if size > 1024 else 8000 if quick else 20000
            # A full pool ends the settled process, so it gets a narrow window, and all others too; those that
            # can take more get a wide one as well.
            for window, left_out in ((16, ()), (1000, ("settled",))):
                if quick and size > 64 and window > 16:
                    continue
                commands += [[programs[name], name, "--qos", qos, "--bytes", size, "--messages", messages,
                              "--window", window] for name in programs if name not in left_out]
            if size == 64 and not quick:
                commands += [[programs[name], name, "--qos", qos, "--window", 16, "--bulk"] for name in programs]
    in_turns(rounds, commands, figures.run)
    curve = [[programs[name], name, "--messages", 60000 if quick else 200000, "--step", 20000,
              "--window", 8] for name in ("Paho", "settled", "guarded")]
    in_turns(1 if quick else rounds, curve, figures.run)


def latency(figures, quick, rounds):
    programs = inbound_candidates()
    in_turns(rounds, [[programs[name], name, "--latency", "--qos", qos, "--messages", 700 if quick else 4000]
                      for qos in ((0,) if quick else (0, 1)) for name in programs], figures.run)


def growth(figures, quick, rounds):
    options = ["--budget", "0.02" if quick else "0.3"]
    in_turns(1 if quick else rounds,
             [[program("GrowthBench")] + options, [program("GrowthBench"), "--guarded"] + options], figures.run)


def publishing(figures, quick, rounds):
    in_turns(rounds, [[program("PublishBench")] + more + (["6", "300"] if quick else ["30", "500"])
                      for more in ([], ["--guarded"])], figures.run)


def google(figures, turn, road, command, translate, environment=None):
    """Runs a program of Google Benchmark; translate(benchmark) yields (figure, where, candidate, value, unit, x)."""
    done = subprocess.run([PRIVATE_DIRS] + command + ["--benchmark_format=json"], capture_output=True, text=True,
                          check=True, env={**os.environ, **(environment or {})})
    for benchmark in json.loads(done.stdout)["benchmarks"]:
        for figure, where, candidate, value, unit, x in translate(benchmark):
            line = {"road": road, "figure": figure, "where": where, "candidate": candidate, "value": value,
                    "unit": unit}
            figures.add(line if x is None else {**line, "x": x}, turn)


def logging(figures, quick, rounds):
    names = {"library": "library", "plainPoco": "plain POCO", "spdlog": "spdlog", "floor": "floor"}

    def translate(benchmark):
        what, candidate = benchmark["name"].split("/")[:2]
        threads = benchmark["threads"]
        callers = re.search(r"callers:(\d+)", benchmark["name"])
        if callers:
            yield ("lines into the file", count(callers[1], "caller"), names[candidate], benchmark["items_per_second"],
                   "lines/s", None)
            return
        where = {"CallWorkerAwake": "worker awake", "CallWorkerAsleep": "worker asleep",
                 "CallConsoleStalled": "console stalled"}[what]
        for share in ("p50", "p99"):
            value = benchmark[share + "_ns"]
            yield (f"call, {share}", f"{where}, {count(threads, 'thread')}", names[candidate], value, "ns", None)
            if what == "CallWorkerAwake":
                yield (f"call, {share}, with threads", where, names[candidate], value, "ns", threads)

    in_turns(rounds, [[program("LoggerBench")]],
             lambda turn, command: google(figures, turn, "logging", command, translate,
                                          {"KRO_BENCH_INSTANT": "1"} if quick else None))


def crc(figures, quick, rounds):
    names = {"BM_GetCRC32": "library", "BM_ZlibCrc32": "zlib", "BM_SlicingBy8": "slicing by 8",
             "BM_Bytewise": "bytewise"}

    def translate(benchmark):
        name, size = benchmark["name"].split("/")[:2]
        size = int(size.split(":")[1])
        yield "rate", "by length", names[name], benchmark["bytes_per_second"] / 1e9, "GB/s", size
        if size in (64, 1024 * 64, 1 << 20):
            yield ("rate", "64 B" if size == 64 else f"{size >> 10} KiB", names[name],
                   benchmark["bytes_per_second"] / 1e9, "GB/s", None)

    in_turns(rounds, [[program("Crc32Bench"), f"--benchmark_min_time={0.005 if quick else 0.05}"]],
             lambda turn, command: google(figures, turn, "crc", command, translate))


def http(figures, quick, rounds):
    names = {"Raw": "raw socket", "RawWithTimeouts": "raw socket, time-outs set", "Client": "library",
             "ClientOnThePool": "library, on the pool"}

    def translate(benchmark):
        kind, method, variant = re.match(r"BM_(RawSocket|HttpClient)(Get|Post)(\w*)",
                                         benchmark["name"].split("/")[0]).groups()
        candidate = names[("Raw" if kind == "RawSocket" else "Client") + variant]
        yield "client, a request", method.upper(), candidate, benchmark["real_time"] / 1e3, "us", None

    in_turns(rounds, [[program("HttpClientBench"), f"--benchmark_min_time={0.05 if quick else 0.3}"]],
             lambda turn, command: google(figures, turn, "http", command, translate))
    with tempfile.NamedTemporaryFile("r", suffix=".json") as lines:
        options = (["--connections", "8", "--apis", "10", "10000"] if quick else
                   ["--connections", "1", "2", "4", "8", "16", "--apis", "10", "100", "1000", "10000"])
        subprocess.run([sys.executable, os.path.join(HERE, "http.py"), program("HttpBenchServer"), "--rounds",
                        str(rounds), "--seconds", "1", "--figures", lines.name] + options, check=True, stdout=subprocess.DEVNULL)
        for line in lines:
            figures.add(json.loads(line), 0)


def start(figures, _quick, rounds):
    """The inbound programs tell how long they took to subscribe."""
    programs = inbound_candidates()
    in_turns(2 * rounds, [[programs[name], name, "--messages", 10] for name in programs], figures.run)


def life(figures, quick, rounds):
    in_turns(1 if quick else rounds, [[program("LifeBench")], [program("LifeBench"), "--guarded"]], figures.run)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def memory(figures, _quick, rounds):
    library = os.path.realpath(os.path.join(BUILD, "src", "common", "libKroCommon.so"))
    with tempfile.TemporaryDirectory() as directory:
        stripped = os.path.join(directory, "stripped.so")
        subprocess.run(["strip", "-o", stripped, library], check=True)
        figures.add({"road": "memory", "figure": "size of the library", "where": "stripped", "candidate": "library",
                     "unit": "bytes", "value": os.path.getsize(stripped)}, 0)
        port = free_port()
        config = os.path.join(directory, "conf")
        with open(config, "w", encoding="utf-8") as file:
            file.write(f"listener {port} 127.0.0.1\nallow_anonymous true\nlog_type none\n")
        broker = subprocess.Popen(["mosquitto", "-c", config], stderr=subprocess.DEVNULL)
        try:
            time.sleep(0.5)
            for turn in range(rounds):
                figures.add(idle_host(port), turn)
        finally:
            broker.kill()
            broker.wait()


def idle_host(port):
    """Resident memory of the example host, some seconds after it has connected."""
    host = subprocess.Popen([PRIVATE_DIRS, os.path.join(BUILD, "examples", "edge_service"), "--broker",
                             f"tcp://127.0.0.1:{port}", "--user", "user", "--password", "secret"],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        for line in host.stdout:
            if line.startswith("connected"):
                break
        time.sleep(1)
        with open(f"/proc/{host.pid}/status", encoding="ascii") as file:
            resident = int(re.search(r"VmRSS:\s+(\d+) kB", file.read()).group(1)) * 1024
    finally:
        host.send_signal(signal.SIGTERM)
        try:
            host.wait(20)
        except subprocess.TimeoutExpired:
            host.kill()
            host.wait()
    return {"road": "memory", "figure": "idle example host, resident", "where": "connected", "candidate": "library",
            "unit": "bytes", "value": resident}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="three rounds and small numbers: about two minutes")
    parser.add_argument("roads", nargs="*", metavar="ROAD", help=f"only these: {' '.join(ROADS)}")
    options = parser.parse_args()
    unknown = set(options.roads) - set(ROADS)
    if unknown:
        parser.error(f"no such road: {' '.join(unknown)}")
    results = os.path.join(HERE, "results")
    if not options.roads:
        shutil.rmtree(results, ignore_errors=True)
    figures = Figures()
    for road in options.roads or ROADS:
        begin = time.monotonic()
        print(f"{road} ...", end=" ", flush=True)
        globals()[road](figures, options.quick, 3 if options.quick else 5)
        print(f"{time.monotonic() - begin:.0f} s", flush=True)
        figures.write(results, options.quick)
    report.main()


if __name__ == "__main__":
    if not shutil.which("wrk"):
        print("wrk is missing: no figures of the HTTP server", file=sys.stderr)
    main()
