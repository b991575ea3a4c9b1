#!/usr/bin/env python3
"""Loads a registered web API and its limits with wrk, one after the other in every round, and prints the ratios.

Servers: our registered API, settled and with all safeguards ("guarded"); POCO's bare server that sends the same bytes
in the same way; cpp-httplib; nginx with a static file of the same bytes. What is not installed is left out with a
word. Needs wrk."""
import argparse
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

OURS = ("registered", "guarded")
UNITS = {"us": 1.0, "ms": 1e3, "s": 1e6}


def free_port():
    """For nginx, which can't be asked to choose one."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(port):
    end = time.monotonic() + 10
    while time.monotonic() < end:
        try:
            socket.create_connection(("127.0.0.1", port), 1).close()
            return
        except OSError:
            time.sleep(0.02)
    sys.exit(f"no server on port {port}")


def start_nginx(directory, port, path, answer):
    root = os.path.join(directory, "root")
    os.makedirs(root + os.path.dirname(path))
    with open(root + path, "w", encoding="utf-8") as file:
        file.write(answer)
    config = os.path.join(directory, "nginx.conf")
    with open(config, "w", encoding="utf-8") as file:
        file.write(
            ("user root;\n" if os.geteuid() == 0 else "")
            + f"daemon off;\nworker_processes auto;\npid {directory}/pid;\nerror_log {directory}/error.log;\n"
            "events { worker_connections 256; }\n"
            "http { access_log off; keepalive_requests 1000000000; default_type application/json;\n"
            + "".join(f"{kind}_temp_path {directory}/{kind};\n"
                      for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
            + f"server {{ listen 127.0.0.1:{port}; root {root}; open_file_cache max=16; }} }}\n")
    return subprocess.Popen(["nginx", "-e", f"{directory}/error.log", "-c", config],
                            stdin=subprocess.DEVNULL)


def cpu_seconds(process):
    """User and system time of the process and its children (nginx serves in children)."""
    total = 0
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{entry}/stat", encoding="ascii", errors="replace") as file:
                fields = file.read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        if process.pid in (int(entry), int(fields[1])):
            total += int(fields[11]) + int(fields[12])
    return total / os.sysconf("SC_CLK_TCK")


def load(process, port, path, connections, seconds):
    """Requests a second, latencies of the median and of the slowest hundredth, and the server's processor time for
    a request, these in microseconds."""
    for _ in range(3):  # a busy machine lets a connection time out now and then
        before = cpu_seconds(process)
        out = subprocess.run(["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--latency",
                              f"http://127.0.0.1:{port}{path}"], capture_output=True, text=True, check=True).stdout
        if "Socket errors" not in out:
            break
    if "Non-2xx" in out or "Socket errors" in out:  # figures of requests that failed say nothing
        sys.exit(out)
    latencies = {share: float(value) * UNITS[unit] for share, value, unit in
                 re.findall(r"^\s+(50|99)%\s+([\d.]+)(us|ms|s)\s*$", out, re.M)}
    requests = int(re.search(r"(\d+) requests in", out).group(1))
    return (float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1)), latencies["50"], latencies["99"],
            (cpu_seconds(process) - before) / requests * 1e6)


class Servers:
    """The programs that serve, ended with the block."""

    def __init__(self, program):
        self.program, self.ports, self.processes = program, {}, {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in self.processes.values():
            process.send_signal(signal.SIGTERM)
        for process in self.processes.values():
            process.wait()

    def add(self, key, process, port):
        self.processes[key], self.ports[key] = process, port

    def start(self, kind, apis=None):
        process = subprocess.Popen([self.program, kind] + ([] if apis is None else [str(apis)]),
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.add(kind if apis is None else (kind, apis), process, int(process.stdout.readline()))

    def load(self, key, path, connections, seconds):
        return load(self.processes[key], self.ports[key], path, connections, seconds)


def show(connections, figures):
    print(f"{connections} connections")
    for kind, rows in figures.items():
        rate, median, slow, cpu = (statistics.median(column) for column in zip(*rows))
        ratio, cost = (statistics.median(row[i] / bare[i] for row, bare in zip(rows, figures["bare"]))
                       for i in (0, 3))
        print(f"  {kind:12} {rate:9.0f} requests/s  median {median:7.0f} us  99 % {slow:8.0f} us"
              f"  processor {cpu:5.1f} us  of bare: rate {ratio:.2f}, processor {cost:.2f}")
    for kind in OURS if "nginx" in figures else ():
        ratio = statistics.median(row[0] / limit[0] for row, limit in zip(figures[kind], figures["nginx"]))
        print(f"  {kind} of nginx: rate {ratio:.2f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("server", help="the program HttpBenchServer")
    parser.add_argument("--seconds", type=int, default=2, help="of load for each figure of each round")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--connections", type=int, nargs="+", default=[1, 8, 32])
    parser.add_argument("--apis", type=int, nargs="*", default=[], help="also with so many registered, each")
    parser.add_argument("--figures", help="a file for every figure, a line of JSON each")
    options = parser.parse_args()
    if not shutil.which("wrk"):
        print("skipped: wrk is not installed")
        return
    listing = subprocess.run([options.server, "--kinds"], capture_output=True, text=True, check=True).stdout
    kinds = {line.split(" ", 2)[0]: line.split(" ", 2)[1:] for line in listing.splitlines()}
    path, answer = kinds["bare"]
    if "cpp-httplib" not in kinds:
        print("cpp-httplib is left out: HttpBenchServer was built without it")
    lines = open(options.figures, "w", encoding="utf-8") if options.figures else None

    def tell(turn, figure, where, kind, value, unit, x=None):
        if not lines:
            return
        candidate = {"registered": "settled", "bare": "bare POCO"}.get(kind, kind)
        line = {"road": "http", "figure": figure, "where": where, "candidate": candidate, "unit": unit,
                "value": value, "round": turn}
        lines.write(json.dumps(line if x is None else {**line, "x": x}) + "\n")

    with Servers(options.server) as servers, tempfile.TemporaryDirectory() as directory:
        for kind in kinds:
            servers.start(kind)
        if shutil.which("nginx"):
            port = free_port()
            servers.add("nginx", start_nginx(directory, port, path, answer), port)
            wait_for(port)
        else:
            print("nginx is left out: it is not installed")
        for connections in options.connections:
            figures = {kind: [] for kind in servers.ports}
            for turn in range(options.rounds):
                order = list(figures)
                for kind in order if turn % 2 == 0 else reversed(order):
                    row = servers.load(kind, path, connections, options.seconds)
                    figures[kind].append(row)
                    where = f"{connections} connection" + ("" if connections == 1 else "s")
                    tell(turn, "rate", where, kind, row[0], "requests/s")
                    tell(turn, "processor", where, kind, row[3], "us")
                    tell(turn, "p99", where, kind, row[2], "us")
                    tell(turn, "rate with connections", "kept connections", kind, row[0], "requests/s", connections)
            show(connections, figures)
    with Servers(options.server) as servers:
        for apis in options.apis:
            for kind in OURS:
                servers.start(kind, apis)
            for turn in range(options.rounds):
                for kind in OURS if turn % 2 == 0 else reversed(OURS):
                    row = servers.load((kind, apis), path, 8, options.seconds)
                    tell(turn, "processor with registered APIs", "8 connections", kind, row[3], "us", apis)
    if lines:
        lines.close()

main()
