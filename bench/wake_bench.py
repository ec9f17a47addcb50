#!/usr/bin/env python3
"""How fast the helper answers, polling (started without -w) and woken by
events (-w), side by side: per command file from its signal file to its
finished file, 20 command files in a row, the front-end's death to the
helper's exit, and the CPU an idle helper uses beside 10,000 answered files.

Linux only (inotify through ctypes, pidfd, /proc/<pid>/schedstat); Python 3.9
or later, standard library only. Every helper is a real process driven as a
front-end drives it. See bench/README.md.

    python3 bench/wake_bench.py --helper build/ZQIMHelper
    python3 bench/wake_bench.py --helper build/ZQIMHelper --only sequence,death --runs 3
"""

import argparse
import ctypes
import ctypes.util
import json
import os
import random
import select
import shutil
import statistics
import struct
import subprocess
import sys
import tempfile
import time

IN_CLOSE_WRITE = 0x008
IN_NONBLOCK = os.O_NONBLOCK
IN_CLOEXEC = os.O_CLOEXEC

libc = ctypes.CDLL(ctypes.util.find_library("c"), use_errno=True)


class Failure(Exception):
    """The helper did not do the work: no figure counts."""


class Closed:
    """Files closed after writing in one directory, seen as they happen
    (inotify), so that the bench waits for an answer without polling."""

    def __init__(self, path):
        self.fd = libc.inotify_init1(IN_NONBLOCK | IN_CLOEXEC)
        if self.fd < 0 or libc.inotify_add_watch(self.fd, path.encode(), IN_CLOSE_WRITE) < 0:
            raise OSError(ctypes.get_errno(), "inotify")
        self.seen = set()
        self.poller = select.poll()
        self.poller.register(self.fd, select.POLLIN)

    def wait_for(self, name, timeout):
        """The monotonic time at which `name` was seen closed after writing."""
        deadline = time.monotonic() + timeout
        while name not in self.seen:
            left = deadline - time.monotonic()
            if left <= 0 or not self.poller.poll(left * 1000):
                raise Failure("%s not written within %.0f s" % (name, timeout))
            now = time.monotonic()
            data = os.read(self.fd, 1 << 16)
            at = 0
            while at < len(data):
                _, _, _, length = struct.unpack_from("iIII", data, at)
                seen = data[at + 16:at + 16 + length].rstrip(b"\0").decode()
                self.seen.add(seen)
                at += 16 + length
                if seen == name:
                    return now
        return time.monotonic()

    def wait_any(self, timeout):
        """The monotonic time of the next event (a watch on a single file)."""
        if not self.poller.poll(timeout * 1000):
            raise Failure("nothing written within %.0f s" % timeout)
        return time.monotonic()

    def close(self):
        os.close(self.fd)


def write(path, text):
    with open(path, "w") as f:
        f.write(text)


def cpu_ns(pid):
    """Time the process has run on a CPU, in ns (the scheduler's own count)."""
    with open("/proc/%d/schedstat" % pid) as f:
        return int(f.read().split()[0])


class Helper:
    def __init__(self, binary, comm, wake, pid=None):
        args = [binary, "-c", comm] + (["-w"] if wake else []) + \
               (["-p", str(pid)] if pid else [])
        self.proc = subprocess.Popen(args, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.pidfd = os.pidfd_open(self.proc.pid)

    def wait_exit(self, timeout):
        """The monotonic time at which the process ended."""
        poller = select.poll()
        poller.register(self.pidfd, select.POLLIN)
        if not poller.poll(timeout * 1000):
            raise Failure("the helper did not end within %.0f s" % timeout)
        now = time.monotonic()
        self.proc.wait()
        os.close(self.pidfd)
        if self.proc.returncode != 0:
            raise Failure("the helper ended with status %d" % self.proc.returncode)
        return now

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()


def send_in_a_row(comm, closed, first, count, timeout):
    """Sends `count` command files from number `first`, each once the one
    before it is answered; returns the latencies (signal file created to
    finished file written) and the time for all of them."""
    latencies = []
    start = time.monotonic()
    for n in range(first, first + count):
        write(os.path.join(comm, "ZQCmd%d.txt" % n), "progress %d\n" % (n % 100))
        sent = time.monotonic()
        write(os.path.join(comm, "ZQCmd%d.zqsig" % n), "")
        done = closed.wait_for("ZQCmd%d.zqfin" % n, timeout)
        latencies.append(done - sent)
    return latencies, time.monotonic() - start


def stop(helper, comm, closed, number):
    write(os.path.join(comm, "ZQCmd%d.txt" % number), "exit\n")
    write(os.path.join(comm, "ZQCmd%d.zqsig" % number), "")
    helper.wait_exit(10)


def run_sequence(cfg, wake, base):
    """20 command files in a row on an idle helper."""
    rows = []
    for run in range(cfg.runs):
        comm = tempfile.mkdtemp(prefix="seq-", dir=base)
        closed = Closed(comm)
        helper = Helper(cfg.helper, comm, wake)
        try:
            time.sleep(0.3 + random.random())  # idle, at any phase of a poll
            lat, total = send_in_a_row(comm, closed, 1, cfg.files, 5)
            stop(helper, comm, closed, cfg.files + 1)
        finally:
            helper.kill()
            closed.close()
            shutil.rmtree(comm)
        rows.append({"p50": statistics.median(lat), "max": max(lat), "total": total})
        print("   %s run %d: p50 %.2f ms, max %.2f ms, %d files %.3f s"
              % (mode(wake), run + 1, rows[-1]["p50"] * 1e3, rows[-1]["max"] * 1e3, cfg.files,
                 total), flush=True)
    return {k: statistics.median(r[k] for r in rows) for k in ("p50", "max", "total")}


def run_death(cfg, wake, base):
    """The front-end (a sleeping child, reaped at once) is killed while the
    helper is idle; the time until the helper has closed its log (its last
    act) and until its process has ended. The log file itself is watched,
    not the directory: a second watch on the directory would spare the
    helper's exit the kernel's removal of its own (see bench/README.md)."""
    logged, ended = [], []
    for run in range(cfg.runs):
        comm = tempfile.mkdtemp(prefix="death-", dir=base)
        front = subprocess.Popen(["sleep", "1000"])
        helper = Helper(cfg.helper, comm, wake, front.pid)
        log = os.path.join(comm, "ZQIMLog.txt")
        closed = None
        try:
            while not os.path.exists(log):
                time.sleep(0.01)
            closed = Closed(log)
            time.sleep(0.5 + random.random())
            killed = time.monotonic()
            front.kill()
            front.wait()
            logged.append(closed.wait_any(5) - killed)
            ended.append(helper.wait_exit(5) - killed)
        finally:
            front.kill()
            helper.kill()
            if closed:
                closed.close()
            shutil.rmtree(comm)
        print("   %s run %d: log closed %.2f ms, process ended %.2f ms"
              % (mode(wake), run + 1, logged[-1] * 1e3, ended[-1] * 1e3), flush=True)
    return {"logged": statistics.median(logged), "median": statistics.median(ended),
            "max": max(ended)}


def fill_stale(comm, count):
    """The entries of `count` answered command files (.txt, .zqsig, .zqfin,
    .progress), numbered so that no helper takes them (ZQCmd-N: no number
    above 0), yet each is looked at as an answered file is."""
    for n in range(1, count + 1):
        for ext, text in ((".txt", "progress 1\n"), (".zqsig", ""), (".zqfin", "Finished."),
                          (".progress", "1 %\n")):
            write(os.path.join(comm, "ZQCmd-%d%s" % (n, ext)), text)


def idle_cpu(helper, cfg):
    """CPU per second of an idle helper: medians of `runs` windows."""
    per_second = []
    for _ in range(cfg.runs):
        c0, t0 = cpu_ns(helper.proc.pid), time.monotonic()
        time.sleep(cfg.idle_seconds)
        c1, t1 = cpu_ns(helper.proc.pid), time.monotonic()
        per_second.append((c1 - c0) / 1e6 / (t1 - t0))
    return per_second


def run_idle(cfg, wake, base):
    """An idle helper beside 10,000 answered files: CPU per second. Both modes
    on the same directory of 40,000 entries that no helper takes; with -w also
    a helper that answered 10,000 files itself, and then 20 more in a row."""
    out = {}
    comm = tempfile.mkdtemp(prefix="idle-", dir=base)
    try:
        fill_stale(comm, cfg.stale)
        closed = Closed(comm)
        helper = Helper(cfg.helper, comm, wake)
        try:
            time.sleep(1.5)  # the first listing done
            cpu = idle_cpu(helper, cfg)
            out["stale_ms_per_s"] = statistics.median(cpu)
            print("   %s, %d stale files: %s ms CPU per second"
                  % (mode(wake), cfg.stale, " ".join("%.3f" % c for c in cpu)), flush=True)
            stop(helper, comm, closed, 1)
        finally:
            helper.kill()
            closed.close()
    finally:
        shutil.rmtree(comm)
    if not wake:
        return out

    comm = tempfile.mkdtemp(prefix="served-", dir=base)
    try:
        for n in range(1, cfg.stale + 1):
            write(os.path.join(comm, "ZQCmd%d.txt" % n), "progress 1\n")
            write(os.path.join(comm, "ZQCmd%d.zqsig" % n), "")
        closed = Closed(comm)
        helper = Helper(cfg.helper, comm, wake)
        try:
            t0 = time.monotonic()
            closed.wait_for("ZQCmd%d.zqfin" % cfg.stale, 600)
            served = time.monotonic() - t0
            time.sleep(1)
            cpu = idle_cpu(helper, cfg)
            out["served_ms_per_s"] = statistics.median(cpu)
            out["served_s"] = served
            print("   %s, after answering %d files (in %.1f s): %s ms CPU per second"
                  % (mode(wake), cfg.stale, served, " ".join("%.3f" % c for c in cpu)), flush=True)
            lat, total = send_in_a_row(comm, closed, cfg.stale + 1, cfg.files, 5)
            out["served_p50"], out["served_max"] = statistics.median(lat), max(lat)
            print("   %s, %d more in a row: p50 %.2f ms, max %.2f ms"
                  % (mode(wake), cfg.files, out["served_p50"] * 1e3, out["served_max"] * 1e3),
                  flush=True)
            stop(helper, comm, closed, cfg.stale + cfg.files + 1)
        finally:
            helper.kill()
            closed.close()
    finally:
        shutil.rmtree(comm)
    return out


def mode(wake):
    return "-w" if wake else "polling"


def ms(seconds):
    return "%.2f ms" % (seconds * 1e3) if seconds < 1 else "%.3f s" % seconds


ALL = ["sequence", "death", "idle"]


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--helper", required=True, help="the helper binary")
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--files", type=int, default=20, help="command files in a row")
    ap.add_argument("--stale", type=int, default=10000, help="answered files beside the idle helper")
    ap.add_argument("--idle-seconds", type=float, default=10)
    ap.add_argument("--modes", default="polling,wake", help="polling, wake or both")
    ap.add_argument("--only", default="", help="comma-separated: " + ",".join(ALL))
    ap.add_argument("--tmp", default="/dev/shm" if os.path.isdir("/dev/shm") else "/tmp",
                    help="where the communication directories go (tmpfs by default: deleting "
                         "tens of thousands of files slows ext4 down for minutes)")
    ap.add_argument("--json", default="")
    cfg = ap.parse_args()
    chosen = [w for w in ALL if not cfg.only or w in cfg.only.split(",")]
    modes = [m == "wake" for m in cfg.modes.split(",")]

    print("machine: %d cores, kernel %s, load average %.2f %.2f %.2f; %s"
          % (os.cpu_count(), os.uname().release, *os.getloadavg(), cfg.helper), flush=True)
    base = tempfile.mkdtemp(prefix="zqim-wake-bench-", dir=cfg.tmp)
    results = {}
    try:
        for name in chosen:
            for wake in modes:
                print("== %s, %s" % (name, mode(wake)), flush=True)
                fn = {"sequence": run_sequence, "death": run_death, "idle": run_idle}[name]
                results.setdefault(name, {})[mode(wake)] = fn(cfg, wake, base)
    finally:
        shutil.rmtree(base, ignore_errors=True)

    print()
    print("| measure (medians of %d) | %s |" % (cfg.runs, " | ".join(mode(w) for w in modes)))
    print("|---|%s" % ("---|" * len(modes)))
    rows = []
    if "sequence" in results:
        rows += [("signal -> finished, p50", "sequence", "p50"),
                 ("signal -> finished, max", "sequence", "max"),
                 ("%d command files in a row" % cfg.files, "sequence", "total")]
    if "death" in results:
        rows += [("front-end dies -> helper's log closed", "death", "logged"),
                 ("front-end dies -> helper's process ended", "death", "median")]
    if "idle" in results:
        rows += [("idle CPU per second, %d stale answered files" % cfg.stale, "idle",
                  "stale_ms_per_s"),
                 ("idle CPU per second, after answering %d files" % cfg.stale, "idle",
                  "served_ms_per_s"),
                 ("then signal -> finished, p50", "idle", "served_p50"),
                 ("then signal -> finished, max", "idle", "served_max")]
    for label, name, key in rows:
        cells = []
        for wake in modes:
            v = results[name][mode(wake)].get(key)
            cells.append("-" if v is None else
                         ("%.3f ms" % v if key.endswith("per_s") else ms(v)))
        print("| %s | %s |" % (label, " | ".join(cells)))
    print("load average at the end %.2f %.2f %.2f" % os.getloadavg())
    if cfg.json:
        with open(cfg.json, "w") as f:
            json.dump(results, f, indent=1)


if __name__ == "__main__":
    try:
        main()
    except Failure as e:
        sys.exit("FAILED: %s" % e)
