#!/usr/bin/env python3
"""Loads a registered web API and its limits with wrk, one after the other in every round, and prints the ratios.

Servers: our registered API, settled and with all safeguards ("guarded"); POCO's bare server that sends the same bytes
in the same way; cpp-httplib; nginx with a static file of the same bytes. What is not installed
is left out with a word. Needs wrk."""
import argparse
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
    before = cpu_seconds(process)
    out = subprocess.run(["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--latency",
                          f"http://127.0.0.1:{port}{path}"], capture_output=True, text=True, check=True).stdout
    if "Non-2xx" in out or "Socket errors" in out:  # figures of requests that failed say nothing
        sys.exit(out)
    latencies = {share: float(value) * UNITS[unit] for share, value, unit in
                 re.findall(r"^\s+(50|99)%\s+([\d.]+)(us|ms|s)\s*$", out, re.M)}
    requests = int(re.search(r"(\d+) requests in", out).group(1))
    return (float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1)), latencies["50"], latencies["99"],
            (cpu_seconds(process) - before) / requests * 1e6)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("server", help="the program HttpBenchServer")
    parser.add_argument("--seconds", type=int, default=2, help="of load for each figure of each round")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--connections", type=int, nargs="+", default=[1, 8, 32])
    options = parser.parse_args()
    if not shutil.which("wrk"):
        print("skipped: wrk is not installed")
        return
    listing = subprocess.run([options.server, "--kinds"], capture_output=True, text=True, check=True).stdout
    kinds = {line.split(" ", 2)[0]: line.split(" ", 2)[1:] for line in listing.splitlines()}
    path, answer = kinds["bare"]
    if "cpp-httplib" not in kinds:
        print("cpp-httplib is left out: HttpBenchServer was built without it")
    ports, processes = {}, {}
    with tempfile.TemporaryDirectory() as directory:
        try:
            for kind in kinds:
                processes[kind] = subprocess.Popen([options.server, kind], stdin=subprocess.PIPE,
                                                   stdout=subprocess.PIPE, text=True)
                ports[kind] = int(processes[kind].stdout.readline())
            if shutil.which("nginx"):
                ports["nginx"] = free_port()
                processes["nginx"] = start_nginx(directory, ports["nginx"], path, answer)
                wait_for(ports["nginx"])
            else:
                print("nginx is left out: it is not installed")
            for connections in options.connections:
                figures = {kind: [] for kind in ports}
                for turn in range(options.rounds):
                    order = list(ports)
                    for kind in order if turn % 2 == 0 else reversed(order):
                        figures[kind].append(load(processes[kind], ports[kind], path, connections,
                                                  options.seconds))
                print(f"{connections} connections")
                for kind, rows in figures.items():
                    rate, median, slow, cpu = (statistics.median(column) for column in zip(*rows))
                    ratio, cost = (statistics.median(row[i] / bare[i] for row, bare in
                                                     zip(rows, figures["bare"])) for i in (0, 3))
                    print(f"  {kind:12} {rate:9.0f} requests/s  median {median:7.0f} us  99 % {slow:8.0f} us"
                          f"  processor {cpu:5.1f} us"
                          f"  of bare: rate {ratio:.2f}, processor {cost:.2f}")
                for kind in ("registered", "guarded") if "nginx" in figures else ():
                    ratio = statistics.median(row[0] / limit[0] for row, limit in
                                              zip(figures[kind], figures["nginx"]))
                    print(f"  {kind} of nginx: rate {ratio:.2f}")
        finally:
            for process in processes.values():
                process.send_signal(signal.SIGTERM)
            for process in processes.values():
                process.wait()


main()
