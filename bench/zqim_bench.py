#!/usr/bin/env python3
"""Benchmarks ZQIMHelper against the standard tools that do the same work.

Run it through bench/run.sh, which builds the programs this script needs and
passes their paths. Every helper run is a real helper process driven as a
front-end drives it: the command file (ending in `exit`) and its signal file
are written before the helper starts, so its first poll finds them and no
polling delay is measured; the time is that of the whole process, from start
to exit. Every run works on data generated for it alone, and every run is
checked: a run whose work is not found done is a failure, never a time.
"""

import argparse
import json
import os
import platform
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

MiB = 1024 * 1024
# ext4 without a journal does not reuse an inode freed less than 60 s ago, or
# less than 360 s ago while its inode-table block is dirty (see Bench.cool_down).
RECENTLY_FREED_CLEAN_S = 62
RECENTLY_FREED_DIRTY_S = 362
OWNER = 1234  # uid and gid given by fixPermsR and chown -hR


class Failure(Exception):
    """The measured program did not do the work (or failed): no time counts."""


# --------------------------------------------------------------- measuring


class Runner:
    def __init__(self, args):
        self.helper = args.helper
        self.measure_tool = args.measure
        self.poll_bench = args.poll_bench

    def measure(self, argv, out):
        """Runs argv under the measuring wrapper; returns its figures."""
        res = subprocess.run([self.measure_tool, "-o", out, "--"] + argv,
                             capture_output=True, text=True, check=False)
        if res.returncode != 0:
            raise Failure("measuring wrapper failed: " + res.stderr.strip())
        fields = dict(kv.split("=", 1) for kv in res.stdout.split())
        return {
            "wall": int(fields["wall_ns"]) / 1e9,
            "cpu": (int(fields["user_us"]) + int(fields["sys_us"])) / 1e6,
            "rss_kb": int(fields["maxrss_kb"]),
            "status": int(fields["status"]),
        }

    def run_helper(self, workdir, lines):
        """Writes ZQCmd1 (lines, then exit) and its signal file, then runs the
        helper on that communication directory until it exits."""
        comm = os.path.join(workdir, "comm")
        os.makedirs(comm, exist_ok=True)
        with open(os.path.join(comm, "ZQCmd1.txt"), "w") as f:
            for line in list(lines) + ["exit"]:
                f.write(line + "\n")
        open(os.path.join(comm, "ZQCmd1.zqsig"), "w").close()
        fig = self.measure([self.helper, "-c", comm], os.path.join(workdir, "helper.out"))
        log = read_text(os.path.join(comm, "ZQIMLog.txt"))
        if fig["status"] != 0:
            raise Failure("helper exit status %d; log ends:\n%s" % (fig["status"], tail(log)))
        if read_text(os.path.join(comm, "ZQCmd1.zqfin")) != "Finished.":
            raise Failure("no finished file; log ends:\n" + tail(log))
        err = os.path.join(comm, "ZQCmd1.err")
        if os.path.exists(err):
            raise Failure("error file: %r; log ends:\n%s" % (read_text(err), tail(log)))
        fig["log"] = log
        return fig

    def run_peer(self, workdir, argv):
        fig = self.measure(argv, os.path.join(workdir, "peer.out"))
        if fig["status"] != 0:
            raise Failure("%s exit status %d: %s" % (argv[0], fig["status"],
                                                    read_text(os.path.join(workdir, "peer.out"))))
        return fig


def read_text(path):
    try:
        with open(path, errors="replace") as f:
            return f.read()
    except OSError:
        return None


def tail(text, n=8):
    return "\n".join((text or "").splitlines()[-n:])


def settle():
    """Writes dirty pages back, so that one run does not pay for the writes of
    the data generation or of the run before it."""
    os.sync()


def remove_tree(path):
    if os.path.lexists(path):
        subprocess.run(["rm", "-rf", "--", path], check=True)


# ------------------------------------------------------------ generating data


class Pool:
    """Random bytes to cut file contents from; cheap, and no file is all zeros."""

    def __init__(self, rng):
        self.rng = rng
        self.data = rng.randbytes(4 * MiB)

    def take(self, size):
        start = self.rng.randrange(0, len(self.data) - size) if size < len(self.data) else 0
        return self.data[start:start + size]


def tree_shape(n_files, per_dir=100, fanout=10):
    leaves = -(-n_files // per_dir)
    tops = -(-leaves // fanout)
    return leaves, tops


def tree_entries(n_files, links=True):
    """Entries below the top of a generated tree: files, directories, links."""
    leaves, tops = tree_shape(n_files)
    link_count = (leaves + tops + 2) if links else 0
    return n_files + leaves + tops + link_count


def files_for_entries(entries):
    n = entries
    while tree_entries(n) > entries:
        n -= 1
    return n


# --xattrs: every file of the generated trees has an extended attribute,
# which both the helper and cp -a copy.
XATTRS = False


def make_tree(top, n_files, rng, sizes=(0, 0), outside=None, links=True):
    """A tree of n_files regular files, 100 to a directory, in directories
    top/dNN/sNN, with symbolic links: one to a file in every leaf directory,
    one to a sibling directory in every top directory, one dangling, and one
    (when `outside` is given) to a directory outside the tree. Returns the
    manifest of what lies below top: relative path -> description."""
    pool = Pool(rng) if sizes[1] > 0 else None
    manifest = {}
    os.makedirs(top)
    leaves, tops = tree_shape(n_files)
    made = 0
    for t in range(tops):
        dname = "d%02d" % t
        os.mkdir(os.path.join(top, dname))
        manifest[dname] = ("d",)
        for s in range(min(10, leaves - t * 10)):
            rel_dir = os.path.join(dname, "s%02d" % s)
            os.mkdir(os.path.join(top, rel_dir))
            manifest[rel_dir] = ("d",)
            count = min(100, n_files - made)
            for k in range(count):
                rel = os.path.join(rel_dir, "component_%05d.dat" % (made + k))
                size = rng.randint(*sizes) if pool else 0
                with open(os.path.join(top, rel), "wb") as f:
                    if size:
                        f.write(pool.take(size))
                if XATTRS:
                    os.setxattr(os.path.join(top, rel), "user.zqim.bench", b"x" * 32)
                manifest[rel] = ("f", size)
            if links and count:
                target = "component_%05d.dat" % made
                rel = os.path.join(rel_dir, "current.dat")
                os.symlink(target, os.path.join(top, rel))
                manifest[rel] = ("l", target)
            made += count
        if links:
            target = "../d%02d" % ((t + 1) % tops)
            rel = os.path.join(dname, "sibling")
            os.symlink(target, os.path.join(top, rel))
            manifest[rel] = ("l", target)
    if links:
        os.symlink("no/such/file", os.path.join(top, "dangling"))
        manifest["dangling"] = ("l", "no/such/file")
        target = outside if outside else "/nonexistent-zqim-bench"
        os.symlink(target, os.path.join(top, "outside"))
        manifest["outside"] = ("l", target)
    return manifest


def make_big_files(top, count, size, rng):
    os.makedirs(top)
    manifest = {}
    chunk = bytearray(rng.randbytes(8 * MiB))
    for i in range(count):
        rel = "payload_%d.bin" % i
        with open(os.path.join(top, rel), "wb") as f:
            left = size
            n = 0
            while left > 0:
                # A different chunk each time: no two files or blocks alike.
                chunk[0:16] = ("%08d%08d" % (i, n)).encode()
                part = min(left, len(chunk))
                f.write(chunk[:part])
                left -= part
                n += 1
        manifest[rel] = ("f", size)
    return manifest


def scan(top):
    """What lies below top, in the same form as the generators' manifests."""
    found = {}
    for dirpath, dirnames, filenames in os.walk(top):
        for name in dirnames + filenames:
            path = os.path.join(dirpath, name)
            rel = os.path.relpath(path, top)
            st = os.lstat(path)
            if os.path.islink(path):
                found[rel] = ("l", os.readlink(path))
            elif os.path.isdir(path):
                found[rel] = ("d",)
            else:
                found[rel] = ("f", st.st_size)
    return found


def same_tree(expected, top, what):
    if not os.path.isdir(top):
        raise Failure("%s: %s is missing" % (what, top))
    found = scan(top)
    if found != expected:
        missing = sorted(set(expected) - set(found))[:3]
        extra = sorted(set(found) - set(expected))[:3]
        wrong = sorted(k for k in set(expected) & set(found) if expected[k] != found[k])[:3]
        raise Failure("%s: %d entries expected, %d found; missing %s, extra %s, differing %s"
                      % (what, len(expected), len(found), missing, extra, wrong))


def describe(manifest):
    files = sum(1 for v in manifest.values() if v[0] == "f")
    size = sum(v[1] for v in manifest.values() if v[0] == "f")
    return files, size


def same_contents(src, dst, manifest, rng, sample=50):
    """Compares the bytes of a sample of files (and of every big file, in
    three 1 MiB windows)."""
    files = sorted(k for k, v in manifest.items() if v[0] == "f")
    for rel in rng.sample(files, min(sample, len(files))):
        size = manifest[rel][1]
        windows = [(0, size)] if size <= 3 * MiB else \
            [(0, MiB), (size // 2, MiB), (size - MiB, MiB)]
        with open(os.path.join(src, rel), "rb") as a, open(os.path.join(dst, rel), "rb") as b:
            for off, length in windows:
                a.seek(off)
                b.seek(off)
                if a.read(length) != b.read(length):
                    raise Failure("content differs: " + rel)


# ----------------------------------------------------------------- workloads


class Workload:
    """One row of the table. Subclasses generate the data of one run, give the
    helper's command lines and the peer's command, and check the result."""

    name = ""
    label = ""
    peer_label = ""
    target = None  # ("ratio", limit) or ("bytes_per_entry", limit)
    kind = "time"
    many_files = True  # generate all runs' data first, remove it at the end
    creates_files = False  # the timed work creates many files
    deletes = False  # the measured work deletes many files

    def __init__(self, cfg):
        self.cfg = cfg

    def runs(self):
        return self.cfg.runs

    def prepare(self, work, side, rng):
        raise NotImplementedError

    def helper_lines(self, ctx):
        raise NotImplementedError

    def peer_argv(self, ctx):
        raise NotImplementedError

    def verify(self, ctx, side, fig):
        raise NotImplementedError


class Startup(Workload):
    name = "startup"
    label = "start-up and exit (exit only)"
    peer_label = "true"
    many_files = False

    def prepare(self, work, side, rng):
        return {}

    def helper_lines(self, ctx):
        return []

    def peer_argv(self, ctx):
        return ["true"]

    def verify(self, ctx, side, fig):
        pass


class CopySmall(Workload):
    name = "copy-small"
    creates_files = True
    peer_label = "cp -a"
    target = ("ratio", 1.3)

    @property
    def label(self):
        return "copyDest %s small files + links" % thousands(self.cfg.small_files)

    def prepare(self, work, side, rng):
        src = os.path.join(work, "src")
        manifest = make_tree(src, self.cfg.small_files, rng, sizes=(64, 4096))
        root = os.path.join(work, "dst")
        os.makedirs(root)
        return {"src": src, "root": root, "dst": os.path.join(root, "tree"), "manifest": manifest}

    def helper_lines(self, ctx):
        return ["setRoot " + ctx["root"], "copySrc " + ctx["src"], "copyDest tree"]

    def peer_argv(self, ctx):
        return ["cp", "-a", ctx["src"], ctx["dst"]]

    def verify(self, ctx, side, fig):
        same_tree(ctx["manifest"], ctx["dst"], "copy")
        same_contents(ctx["src"], ctx["dst"], ctx["manifest"], random.Random(1))


class CopyBig(CopySmall):
    name = "copy-big"
    many_files = False  # few files, but a GiB per run: made and removed run by run

    @property
    def label(self):
        return "copyDest %d x %d MiB files" % (self.cfg.big_count, self.cfg.big_mib)

    def prepare(self, work, side, rng):
        src = os.path.join(work, "src")
        manifest = make_big_files(src, self.cfg.big_count, self.cfg.big_mib * MiB, rng)
        root = os.path.join(work, "dst")
        os.makedirs(root)
        return {"src": src, "root": root, "dst": os.path.join(root, "tree"), "manifest": manifest}


class MoveTree(Workload):
    name = "move-tree"
    peer_label = "mv"

    @property
    def label(self):
        return "moveOrCopyDest %s-file tree, rename" % thousands(self.cfg.small_files)

    def prepare(self, work, side, rng):
        src = os.path.join(work, "src")
        manifest = make_tree(src, self.cfg.small_files, rng, sizes=(64, 4096))
        root = os.path.join(work, "dst")
        os.makedirs(root)
        return {"src": src, "root": root, "dst": os.path.join(root, "tree"),
                "manifest": manifest, "inode": os.lstat(src).st_ino}

    def helper_lines(self, ctx):
        return ["setRoot " + ctx["root"], "copySrc " + ctx["src"], "moveOrCopyDest tree"]

    def peer_argv(self, ctx):
        return ["mv", ctx["src"], ctx["dst"]]

    def verify(self, ctx, side, fig):
        if os.path.lexists(ctx["src"]):
            raise Failure("move: the source is still there")
        same_tree(ctx["manifest"], ctx["dst"], "move")
        if os.lstat(ctx["dst"]).st_ino != ctx["inode"]:
            raise Failure("move: the tree was copied, not renamed")


class MoveFiles(Workload):
    name = "move-files"
    peer_label = "mv -t"

    @property
    def label(self):
        return "moveOrCopyDest x %s files, rename" % thousands(self.cfg.move_files)

    def prepare(self, work, side, rng):
        src = os.path.join(work, "src")
        os.makedirs(src)
        pool = Pool(rng)
        names = ["module_%05d.dylib" % i for i in range(self.cfg.move_files)]
        inodes = {}
        for n in names:
            with open(os.path.join(src, n), "wb") as f:
                f.write(pool.take(rng.randint(64, 4096)))
            inodes[n] = os.lstat(os.path.join(src, n)).st_ino
        root = os.path.join(work, "dst")
        os.makedirs(os.path.join(root, "lib"))
        return {"src": src, "root": root, "names": names, "inodes": inodes}

    def helper_lines(self, ctx):
        lines = ["setRoot " + ctx["root"]]
        for n in ctx["names"]:
            lines += ["copySrc " + os.path.join(ctx["src"], n), "moveOrCopyDest lib/" + n]
        return lines

    def peer_argv(self, ctx):
        return ["mv", "-t", os.path.join(ctx["root"], "lib")] + \
            [os.path.join(ctx["src"], n) for n in ctx["names"]]

    def verify(self, ctx, side, fig):
        if os.listdir(ctx["src"]):
            raise Failure("move: files left in the source")
        lib = os.path.join(ctx["root"], "lib")
        found = {n: os.lstat(os.path.join(lib, n)).st_ino for n in os.listdir(lib)}
        if found != ctx["inodes"]:
            raise Failure("move: the destination does not hold the same files")


class CrossDeviceMove(CopySmall):
    name = "xdev-move"
    peer_label = "cp -a"
    target = ("ratio", 1.3)

    @property
    def label(self):
        return "moveOrCopyDest %s files shm->tmp" % thousands(self.cfg.small_files)

    def prepare(self, work, side, rng):
        shm = tempfile.mkdtemp(prefix="zqim-bench-", dir=self.cfg.shm)
        src = os.path.join(shm, "src")
        manifest = make_tree(src, self.cfg.small_files, rng, sizes=(64, 4096))
        root = os.path.join(work, "dst")
        os.makedirs(root)
        if os.stat(shm).st_dev == os.stat(root).st_dev:
            raise Failure("%s and %s are on the same device" % (self.cfg.shm, self.cfg.tmp))
        return {"src": src, "root": root, "dst": os.path.join(root, "tree"),
                "manifest": manifest, "cleanup": [shm]}

    def helper_lines(self, ctx):
        return ["setRoot " + ctx["root"], "copySrc " + ctx["src"], "moveOrCopyDest tree"]

    def verify(self, ctx, side, fig):
        if side == "helper" and "Cannot move cross-device" not in fig["log"]:
            raise Failure("cross-device move: the rename was not refused as cross-device")
        same_tree(ctx["manifest"], ctx["dst"], "cross-device move")
        same_contents(ctx["src"], ctx["dst"], ctx["manifest"], random.Random(2))


class TreeWork(Workload):
    """delFolder and fixPermsR on a generated tree of about `entries` entries,
    with a directory outside the tree that a link inside points to."""

    entries = None

    def with_data(self):
        return not self.entries

    def n_files(self):
        if self.entries:
            return files_for_entries(self.entries)
        return self.cfg.small_files

    def prepare(self, work, side, rng):
        outside = os.path.join(work, "outside")
        os.makedirs(outside)
        with open(os.path.join(outside, "keep.txt"), "w") as f:
            f.write("not part of the tree\n")
        top = os.path.join(work, "tree")
        sizes = (64, 4096) if self.with_data() else (0, 0)
        manifest = make_tree(top, self.n_files(), rng, sizes=sizes, outside=outside)
        return {"top": top, "outside": outside, "manifest": manifest,
                "entries": len(manifest)}

    def check_outside(self, ctx):
        keep = os.path.join(ctx["outside"], "keep.txt")
        if not os.path.exists(keep):
            raise Failure("a link was followed: the directory outside the tree was touched")
        st = os.lstat(keep)
        if (st.st_uid, st.st_gid) != (0, 0) or os.lstat(ctx["outside"]).st_uid != 0:
            raise Failure("a link was followed: the owner outside the tree changed")


class DelFolder(TreeWork):
    name = "delfolder"
    peer_label = "rm -rf"
    target = ("ratio", 1.5)
    deletes = True

    def with_data(self):
        # /tmp here discards the blocks of every deleted file synchronously
        # (mount option discard, no journal): a few ms per file of disk
        # latency, the same for both sides, that would hide the helper's own
        # cost. Empty files measure that cost; --delete-with-data measures
        # the disk too.
        return not self.entries and self.cfg.delete_with_data

    @property
    def label(self):
        return "delFolder %s-file tree%s" % (thousands(self.cfg.small_files),
                                             "" if self.with_data() else " (empty files)")

    def helper_lines(self, ctx):
        return ["delFolder " + ctx["top"]]

    def peer_argv(self, ctx):
        return ["rm", "-rf", ctx["top"]]

    def verify(self, ctx, side, fig):
        if os.path.lexists(ctx["top"]):
            left = sum(len(d) + len(f) for _, d, f in os.walk(ctx["top"]))
            raise Failure("delete: the tree is still there (%d entries left)" % left)
        self.check_outside(ctx)


class FixPerms(TreeWork):
    name = "fixperms"
    peer_label = "chown -hR"
    target = ("ratio", 1.5)

    @property
    def label(self):
        return "fixPermsR %s-file tree" % thousands(self.cfg.small_files)

    def helper_lines(self, ctx):
        return ["setUserID %d" % OWNER, "setGroupID %d" % OWNER, "fixPermsR " + ctx["top"]]

    def peer_argv(self, ctx):
        return ["chown", "-hR", "%d:%d" % (OWNER, OWNER), ctx["top"]]

    def verify(self, ctx, side, fig):
        wrong = 0
        seen = 0
        for dirpath, dirnames, filenames in os.walk(ctx["top"]):
            for name in dirnames + filenames:
                st = os.lstat(os.path.join(dirpath, name))
                seen += 1
                if (st.st_uid, st.st_gid) != (OWNER, OWNER):
                    wrong += 1
        if seen != ctx["entries"] or wrong:
            raise Failure("ownership: %d of %d entries below the top not changed (expected %d)"
                          % (wrong, seen, ctx["entries"]))
        if side == "helper":
            # Only what lies below the start is changed; the start keeps its owner.
            if os.lstat(ctx["top"]).st_uid != 0:
                raise Failure("ownership: the start directory itself was changed")
            if " with 0 errors." not in fig["log"]:
                raise Failure("ownership: the helper reported errors:\n" + tail(fig["log"], 3))
        self.check_outside(ctx)


class MemDelFolder(DelFolder):
    kind = "memory"
    target = ("bytes_per_entry", 640)

    def __init__(self, cfg, entries):
        super().__init__(cfg)
        self.entries = entries
        self.name = "mem-delfolder-%dk" % (entries // 1000)

    @property
    def label(self):
        return "delFolder %s entries (memory)" % thousands(self.entries)

    def runs(self):
        return self.cfg.mem_runs


class MemFixPerms(FixPerms):
    kind = "memory"
    target = ("bytes_per_entry", 640)

    def __init__(self, cfg, entries):
        super().__init__(cfg)
        self.entries = entries
        self.name = "mem-fixperms-%dk" % (entries // 1000)

    @property
    def label(self):
        return "fixPermsR %s entries (memory)" % thousands(self.entries)

    def runs(self):
        return self.cfg.mem_runs


def thousands(n):
    return "{:,}".format(n)


# --------------------------------------------------------------- the driver


def median(values):
    return statistics.median(values) if values else None


class Bench:
    def __init__(self, cfg):
        self.cfg = cfg
        self.runner = Runner(cfg)
        self.rows = []
        self.failed = False
        self.base = tempfile.mkdtemp(prefix="zqim-bench-", dir=cfg.tmp)
        self.baseline_rss_kb = None
        self.last_delete = 0.0
        self.probes = 0
        self.marker = os.path.join(cfg.tmp, ".zqim-bench-last-delete")

    def log(self, text):
        print(text, flush=True)

    # ---- the file system of the data
    #
    # Without a journal, ext4 will not hand out an inode freed less than a
    # minute ago, or less than six minutes ago while the block of the inode
    # table holding it is dirty, which creating files next to it makes it:
    # every new file is allocated only after scanning past all the recently
    # freed ones of its group. Deleting a tree of 20,000 files thus makes file
    # creation on that file system many times slower for minutes. So data with
    # many files is generated for all runs of a workload before the first
    # timed run and only removed at the very end; the workloads whose timed
    # part creates files run first, and not within six minutes of a mass
    # deletion of an earlier bench run (noted in a marker file); later data
    # is generated no sooner than a minute after the last mass deletion, so
    # that generating it does not take ages. Deletions by other users of the
    # same file system cannot be helped: the file creation probe printed for
    # the workloads that create files shows when they interfered.

    def note_mass_delete(self):
        self.last_delete = time.time()
        try:
            with open(self.marker, "w") as f:
                f.write("%f\n" % self.last_delete)
        except OSError:
            pass

    def cool_down(self, seconds):
        last = self.last_delete
        try:
            with open(self.marker) as f:
                last = max(last, float(f.read().strip() or 0))
        except (OSError, ValueError):
            pass
        settle()
        wait = last + seconds - time.time()
        if wait > 0:
            self.log("   waiting %.0f s: files deleted under %s %.0f s ago would slow down "
                     "file creation there" % (wait, self.cfg.tmp, time.time() - last))
            time.sleep(wait)

    def creation_probe(self):
        """Microseconds to create one empty file under the data directory now;
        a few tens normally, far more while recently freed inodes are skipped."""
        probe = os.path.join(self.base, "probe-%d" % self.probes)
        self.probes += 1
        os.makedirs(probe)
        t0 = time.perf_counter()
        for i in range(500):
            os.close(os.open(os.path.join(probe, "p%03d" % i), os.O_CREAT | os.O_WRONLY, 0o644))
        return (time.perf_counter() - t0) / 500 * 1e6

    def prepare_run(self, wl, side, rep, rng):
        work = os.path.join(self.base, "%s-%d-%s" % (wl.name, rep, side))
        os.makedirs(work)
        return work, wl.prepare(work, side, rng)

    def drop_caches(self):
        """A cold page cache: what a tree walk costs right after boot, or
        when the tree has not been touched for long."""
        settle()
        with open("/proc/sys/vm/drop_caches", "w") as f:
            f.write("3\n")

    def used_bytes(self):
        st = os.statvfs(self.cfg.tmp)
        return (st.f_blocks - st.f_bfree) * st.f_frsize

    def one_run(self, wl, side, work, ctx):
        if self.cfg.cold:
            self.drop_caches()
        used = self.used_bytes() if self.cfg.space else 0
        if side == "helper":
            fig = self.runner.run_helper(work, wl.helper_lines(ctx))
            fig["retries"] = fig["log"].count("Retrying deleting")
        else:
            fig = self.runner.run_peer(work, wl.peer_argv(ctx))
        if self.cfg.space:
            settle()
            fig["space"] = self.used_bytes() - used
        wl.verify(ctx, side, fig)
        fig.pop("log", None)
        fig["entries"] = ctx.get("entries")
        return fig

    def run_workload(self, wl):
        runs = wl.runs()
        # Helper first in even rounds, peer first in odd ones: a run that
        # pays for what the one before it left (freed memory, dirty pages)
        # is then as often the peer as the helper.
        order = [(rep, side) for rep in range(runs)
                 for side in (("helper", "peer") if rep % 2 == 0 else ("peer", "helper"))]
        self.log("== %s (%s): %d runs each, interleaved" % (wl.label, wl.name, runs))
        figs = {"helper": [], "peer": []}
        error = None
        rng = random.Random(self.cfg.seed)
        prepared = {}
        if wl.creates_files:
            self.cool_down(RECENTLY_FREED_DIRTY_S)
        if wl.many_files:
            self.cool_down(RECENTLY_FREED_CLEAN_S)
            t0 = time.time()
            for rep, side in order:
                prepared[(rep, side)] = self.prepare_run(wl, side, rep, rng)
            settle()
            self.log("   data for all runs generated in %.1f s" % (time.time() - t0))
        if wl.creates_files:
            self.log("   file creation probe: %.0f us per empty file" % self.creation_probe())
        for rep, side in order:
            if wl.many_files:
                work, ctx = prepared[(rep, side)]
            else:
                work, ctx = self.prepare_run(wl, side, rep, rng)
                settle()
            try:
                fig = self.one_run(wl, side, work, ctx)
            except Failure as e:
                error = "%s run %d: %s" % (side, rep + 1, e)
                self.log("   FAILED " + error)
                if self.cfg.keep:
                    self.log("   its data is kept in " + work)
                break
            finally:
                if wl.deletes:
                    self.note_mass_delete()
                for extra in ctx.get("cleanup", []):
                    remove_tree(extra)  # not on the measured file system
                if not wl.many_files and not (self.cfg.keep and error):
                    remove_tree(work)
                    settle()
            figs[side].append(fig)
            self.log("   %-6s run %d: %8.4f s  cpu %7.4f s  peak RSS %7.1f MiB%s"
                     % (side, rep + 1, fig["wall"], fig["cpu"], fig["rss_kb"] / 1024,
                        "  (%d deletion retries)" % fig["retries"] if fig.get("retries") else ""))
        label = wl.label + (" (cold cache)" if self.cfg.cold else "")
        row = {"workload": label, "name": wl.name, "peer": wl.peer_label, "runs": runs,
               "kind": wl.kind, "target": wl.target}
        if error:
            row["error"] = error
            self.failed = True
        else:
            h = median([f["wall"] for f in figs["helper"]])
            p = median([f["wall"] for f in figs["peer"]])
            row.update({
                "helper_s": h, "peer_s": p, "ratio": h / p if p else None,
                "helper_cpu_s": median([f["cpu"] for f in figs["helper"]]),
                "helper_rss_kb": median([f["rss_kb"] for f in figs["helper"]]),
                "peer_rss_kb": median([f["rss_kb"] for f in figs["peer"]]),
                "helper_all_s": [f["wall"] for f in figs["helper"]],
                "space": (median([f["space"] for f in figs["helper"]]),
                          median([f["space"] for f in figs["peer"]])) if self.cfg.space else None,
                "peer_all_s": [f["wall"] for f in figs["peer"]],
            })
            if wl.name == "startup":
                self.baseline_rss_kb = row["helper_rss_kb"]
            if wl.kind == "memory":
                entries = figs["helper"][0]["entries"]
                row["entries"] = entries
                base = self.baseline_rss_kb or 0
                row["baseline_rss_kb"] = base
                row["bytes_per_entry"] = (row["helper_rss_kb"] - base) * 1024 / entries
        self.rows.append(row)
        return row

    # ---- idle polls, measured in-process (GetNextCommand is the poll's work)

    def run_poll(self, stale):
        label = ("idle poll, %s stale cmd files (CPU)" % thousands(stale)) if stale \
            else "idle poll, empty comm dir (CPU)"
        name = "poll-stale" if stale else "poll-empty"
        self.log("== %s (%s): %d runs" % (label, name, self.cfg.runs))
        cpu, worst = [], []
        error = None
        for rep in range(self.cfg.runs):
            comm = os.path.join(self.base, "%s-%d" % (name, rep))
            os.makedirs(comm)
            try:
                open(os.path.join(comm, "ZQIMLog.txt"), "w").close()
                for n in range(1, stale + 1):
                    for ext in (".txt", ".zqsig", ".zqfin"):
                        with open(os.path.join(comm, "ZQCmd%d%s" % (n, ext)), "w") as f:
                            f.write("exit\n" if ext == ".txt" else
                                    "Finished." if ext == ".zqfin" else "")
                settle()
                res = subprocess.run([self.runner.poll_bench, comm, str(stale if stale else -1),
                                      str(self.cfg.poll_iterations)],
                                     capture_output=True, text=True)
                if res.returncode != 0:
                    raise Failure("the poll found a command file, or failed: " +
                                  (res.stdout + res.stderr).strip())
                fields = dict(kv.split("=", 1) for kv in res.stdout.split())
                cpu.append(float(fields["cpu_median_s"]))
                worst.append(float(fields["cpu_max_s"]))
                self.log("   run %d: median %.3f ms CPU per poll, max %.3f ms"
                         % (rep + 1, cpu[-1] * 1e3, worst[-1] * 1e3))
            except Failure as e:
                error = str(e)
                self.log("   FAILED " + error)
                self.failed = True
                break
            # The directories stay until the end: deleting 30,000 files now
            # would slow down file creation for the next minute.
        row = {"workload": label, "name": name, "peer": "-", "runs": self.cfg.runs,
               "kind": "poll", "target": ("cpu_ms", 20.0)}
        if error:
            row["error"] = error
        else:
            row["poll_cpu_ms"] = median(cpu) * 1e3
            row["poll_cpu_max_ms"] = max(worst) * 1e3
        self.rows.append(row)

    # ---- a whole idle helper process, measured from outside

    def run_idle_round(self):
        label = "idle round, whole process (CPU)"
        self.log("== %s (idle-round): %d s idle, %d runs" % (label, self.cfg.idle_seconds,
                                                              self.cfg.runs))
        start = next((r for r in self.rows if r["name"] == "startup" and "error" not in r), None)
        per_round = []
        error = None
        for rep in range(self.cfg.runs):
            work = os.path.join(self.base, "idle-%d" % rep)
            comm = os.path.join(work, "comm")
            os.makedirs(comm)
            try:
                proc = subprocess.Popen(
                    [self.runner.measure_tool, "-o", os.path.join(work, "helper.out"), "--",
                     self.runner.helper, "-c", comm], stdout=subprocess.PIPE, text=True)
                time.sleep(self.cfg.idle_seconds + 0.5)
                with open(os.path.join(comm, "ZQCmd1.txt"), "w") as f:
                    f.write("exit\n")
                open(os.path.join(comm, "ZQCmd1.zqsig"), "w").close()
                out, _ = proc.communicate(timeout=30)
                fields = dict(kv.split("=", 1) for kv in out.split())
                if int(fields["status"]) != 0 or \
                        read_text(os.path.join(comm, "ZQCmd1.zqfin")) != "Finished.":
                    raise Failure("the idle helper did not finish")
                cpu = (int(fields["user_us"]) + int(fields["sys_us"])) / 1e6
                wall = int(fields["wall_ns"]) / 1e9
                rounds = max(1, int(round(wall)))
                base_cpu = start["helper_cpu_s"] if start and "helper_cpu_s" in start else 0.0
                per_round.append(max(0.0, cpu - base_cpu) / rounds)
                self.log("   run %d: %.3f s CPU in %.1f s (%d rounds): %.3f ms per round"
                         % (rep + 1, cpu, wall, rounds, per_round[-1] * 1e3))
            except (Failure, subprocess.TimeoutExpired, KeyError, ValueError) as e:
                error = str(e) or type(e).__name__
                self.log("   FAILED " + error)
                self.failed = True
                break
            finally:
                remove_tree(work)
        row = {"workload": label, "name": "idle-round", "peer": "-", "runs": self.cfg.runs,
               "kind": "poll", "target": None}
        if error:
            row["error"] = error
        else:
            row["poll_cpu_ms"] = median(per_round) * 1e3
            row["poll_cpu_max_ms"] = max(per_round) * 1e3
        self.rows.append(row)

    # ---- latency from a signal file to its finished file

    def run_latency(self):
        n = self.cfg.latency_commands
        label = "latency .zqsig -> .zqfin, idle"
        self.log("== %s (latency): %d command files at random offsets" % (label, n))
        work = os.path.join(self.base, "latency")
        comm = os.path.join(work, "comm")
        os.makedirs(comm)
        # Not seeded: the helper's poll phase is the same in every run, so a
        # fixed sequence of offsets would measure the same latencies each time.
        rng = random.SystemRandom()
        lat = []
        error = None
        out = open(os.path.join(work, "helper.out"), "w")
        proc = subprocess.Popen([self.runner.helper, "-c", comm], stdout=out,
                                stderr=subprocess.STDOUT)
        try:
            time.sleep(0.2)
            for k in range(1, n + 2):
                last = k == n + 1
                time.sleep(0 if last else rng.uniform(0.0, 2.0))
                with open(os.path.join(comm, "ZQCmd%d.txt" % k), "w") as f:
                    f.write("exit\n" if last else "progress %d\n" % k)
                open(os.path.join(comm, "ZQCmd%d.zqsig" % k), "w").close()
                t0 = time.monotonic()
                fin = os.path.join(comm, "ZQCmd%d.zqfin" % k)
                while not os.path.exists(fin):
                    if time.monotonic() - t0 > 10:
                        raise Failure("command file %d not finished after 10 s" % k)
                    time.sleep(0.0005)
                if last:
                    break
                lat.append(time.monotonic() - t0)
                if read_text(os.path.join(comm, "ZQCmd%d.progress" % k)) != "%d %%\n" % k:
                    raise Failure("command file %d was not carried out" % k)
            if proc.wait(timeout=10) != 0:
                raise Failure("the helper did not exit cleanly")
            self.log("   latencies (s): " + " ".join("%.3f" % x for x in lat))
        except (Failure, subprocess.TimeoutExpired) as e:
            error = str(e)
            self.log("   FAILED " + error)
            self.failed = True
            proc.kill()
            proc.wait()
        finally:
            out.close()
            remove_tree(work)
        row = {"workload": label, "name": "latency", "peer": "-", "runs": n,
               "kind": "latency", "target": ("latency_s", 1.1)}
        if error:
            row["error"] = error
        else:
            row["latency_median_s"] = median(lat)
            row["latency_max_s"] = max(lat)
        self.rows.append(row)

    def cleanup(self):
        if not (self.cfg.keep and self.failed):
            self.log("removing the generated data (this file system discards the blocks of "
                     "every deleted file: it takes a while)")
            remove_tree(self.base)
            self.note_mass_delete()


# ------------------------------------------------------------------ report


def fmt_s(v):
    if v is None:
        return "-"
    return "%.3f s" % v if v >= 0.1 else "%.1f ms" % (v * 1e3)


def fmt_mib(kb):
    return "-" if kb is None else "%.1f MiB" % (kb / 1024)


def verdict(row):
    if "error" in row:
        return "FAILED"
    t = row.get("target")
    if not t:
        return "info"
    kind, limit = t
    if kind == "ratio":
        return "met" if row["ratio"] <= limit else "MISSED"
    if kind == "bytes_per_entry":
        ok = row["bytes_per_entry"] < limit
        if ok and row["entries"] >= 100000 and row["name"].startswith("mem-delfolder"):
            ok = row["helper_rss_kb"] < 64 * 1024
        return "met" if ok else "MISSED"
    if kind == "cpu_ms":
        return "met" if row["poll_cpu_ms"] < limit else "MISSED"
    if kind == "latency_s":
        return "met" if row["latency_max_s"] < limit else "MISSED"
    return "info"


def target_text(row):
    t = row.get("target")
    if not t:
        return "-"
    kind, limit = t
    return {"ratio": "<= %.1fx" % limit, "bytes_per_entry": "< %d B/entry" % limit,
            "cpu_ms": "< %d ms CPU" % limit, "latency_s": "max < %.1f s" % limit}[kind]


def table(rows):
    head = ["workload", "peer", "runs", "helper median", "peer median", "ratio",
            "helper peak RSS", "peer peak RSS", "target", "result"]
    lines = []
    for r in rows:
        if "error" in r:
            lines.append([r["workload"], r["peer"], str(r["runs"]), "-", "-", "-", "-", "-",
                          target_text(r), "FAILED"])
            continue
        if r["kind"] in ("time", "memory"):
            ratio = "%.2fx" % r["ratio"] if r["ratio"] else "-"
            if r.get("space") is not None:
                # Absolute: a copy that shares all its blocks adds next to
                # nothing on either side, and a ratio of two near-zeros says
                # nothing.
                ratio += " (space +%s vs +%s)" % (fmt_mib(r["space"][0] / 1024),
                                                   fmt_mib(r["space"][1] / 1024))
            hrss = fmt_mib(r["helper_rss_kb"])
            if r["kind"] == "memory":
                hrss += " (%d B/entry)" % round(r["bytes_per_entry"])
            lines.append([r["workload"], r["peer"], str(r["runs"]), fmt_s(r["helper_s"]),
                          fmt_s(r["peer_s"]), ratio, hrss, fmt_mib(r["peer_rss_kb"]),
                          target_text(r), verdict(r)])
        elif r["kind"] == "poll":
            lines.append([r["workload"], r["peer"], str(r["runs"]),
                          "%.3f ms (max %.3f)" % (r["poll_cpu_ms"], r["poll_cpu_max_ms"]),
                          "-", "-", "-", "-", target_text(r), verdict(r)])
        elif r["kind"] == "latency":
            lines.append([r["workload"], r["peer"], str(r["runs"]),
                          "%.3f s (max %.3f)" % (r["latency_median_s"], r["latency_max_s"]),
                          "-", "-", "-", "-", target_text(r), verdict(r)])
    widths = [max(len(x) for x in col) for col in zip(head, *lines)]
    out = []
    for i, line in enumerate([head] + lines):
        out.append("| " + " | ".join(c.ljust(w) for c, w in zip(line, widths)) + " |")
        if i == 0:
            out.append("|" + "|".join("-" * (w + 2) for w in widths) + "|")
    return "\n".join(out)


def fs_type(path):
    """The file system of path, with the facts that matter here: whether
    ext4 has a journal and whether freed blocks are discarded at once."""
    res = subprocess.run(["findmnt", "-n", "-o", "SOURCE,FSTYPE,OPTIONS", "--target", path],
                         capture_output=True, text=True)
    parts = res.stdout.split()
    if len(parts) < 2:
        res = subprocess.run(["stat", "-f", "-c", "%T", path], capture_output=True, text=True)
        return res.stdout.strip() or "?"
    source, fstype = parts[0], parts[1]
    options = parts[2].split(",") if len(parts) > 2 else []
    text = fstype
    if fstype == "ext4":
        dev = os.path.basename(source)
        journal = os.path.isdir("/proc/fs/jbd2") and any(
            j.startswith(dev + "-") for j in os.listdir("/proc/fs/jbd2"))
        text += " (%s" % ("journal" if journal else "no journal")
        text += ", discard)" if "discard" in options else ")"
    return text


def machine():
    model = "?"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return {"cores": os.cpu_count(), "cpu": model, "kernel": platform.release(),
            "load_start": os.getloadavg()}


# -------------------------------------------------------------------- main


# In this order: what creates files in its timed part comes before anything
# that deletes many files (see Bench.cool_down).
ALL = ["startup", "poll-empty", "poll-stale", "idle-round", "latency", "copy-small",
       "copy-big", "xdev-move", "move-tree", "move-files", "fixperms", "mem-fixperms-25k",
       "mem-fixperms-100k", "delfolder", "mem-delfolder-25k", "mem-delfolder-100k"]


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--helper", required=True)
    ap.add_argument("--measure", required=True)
    ap.add_argument("--poll-bench", required=True)
    ap.add_argument("--runs", type=int, default=5, help="runs of each side per workload")
    ap.add_argument("--mem-runs", type=int, default=3, help="runs of the memory workloads")
    ap.add_argument("--only", default="", help="comma-separated workloads: " + ",".join(ALL))
    ap.add_argument("--tmp", default="/tmp", help="where the data is generated")
    ap.add_argument("--shm", default="/dev/shm", help="source file system of the cross-device move")
    ap.add_argument("--small-files", type=int, default=20000)
    ap.add_argument("--move-files", type=int, default=2000)
    ap.add_argument("--big-count", type=int, default=4)
    ap.add_argument("--big-mib", type=int, default=256)
    ap.add_argument("--delete-with-data", action="store_true",
                    help="give the files of the delFolder tree contents (then the disk's "
                         "discard latency dominates both sides)")
    ap.add_argument("--stale", type=int, default=10000)
    ap.add_argument("--poll-iterations", type=int, default=30)
    ap.add_argument("--idle-seconds", type=int, default=10)
    ap.add_argument("--latency-commands", type=int, default=20)
    ap.add_argument("--xattrs", action="store_true",
                    help="give every file of the generated trees a user.* extended attribute")
    ap.add_argument("--seed", type=int, default=20261122)
    ap.add_argument("--json", default="", help="also write the results to this file")
    ap.add_argument("--keep", action="store_true", help="keep the data of a failed run")
    ap.add_argument("--cold", action="store_true",
                    help="drop the page cache before every run (needs root)")
    ap.add_argument("--space", action="store_true",
                    help="also measure the space each run adds on the data's file system")
    cfg = ap.parse_args()
    global XATTRS
    XATTRS = cfg.xattrs

    chosen = [w.strip() for w in cfg.only.split(",") if w.strip()] or ALL
    unknown = [w for w in chosen if w not in ALL]
    if unknown:
        ap.error("unknown workloads: " + ", ".join(unknown))
    chosen = [w for w in ALL if w in chosen]
    # The baseline RSS (and the start-up CPU) of an idle helper is needed by
    # the memory rows and the idle round.
    if any(w.startswith("mem-") or w == "idle-round" for w in chosen) and "startup" not in chosen:
        chosen.insert(0, "startup")
    if os.geteuid() != 0 and any("fixperms" in w for w in chosen):
        sys.exit("fixPermsR and chown -hR need root: run as root or leave the fixperms rows out")

    info = machine()
    info.update({"tmp_fs": fs_type(cfg.tmp), "shm_fs": fs_type(cfg.shm)})
    print("machine: %d cores (%s), kernel %s; %s is %s, %s is %s; load average %.2f %.2f %.2f"
          % (info["cores"], info["cpu"], info["kernel"], cfg.tmp, info["tmp_fs"], cfg.shm,
             info["shm_fs"], *info["load_start"]), flush=True)
    print("runs: %d per side (memory rows %d), interleaved helper/peer, fresh data each run, "
          "warm page cache, dirty pages synced before every run" % (cfg.runs, cfg.mem_runs),
          flush=True)

    bench = Bench(cfg)
    workloads = {
        "startup": Startup(cfg), "copy-small": CopySmall(cfg), "copy-big": CopyBig(cfg),
        "move-tree": MoveTree(cfg), "move-files": MoveFiles(cfg),
        "xdev-move": CrossDeviceMove(cfg), "delfolder": DelFolder(cfg),
        "fixperms": FixPerms(cfg),
        "mem-delfolder-25k": MemDelFolder(cfg, 25000),
        "mem-delfolder-100k": MemDelFolder(cfg, 100000),
        "mem-fixperms-25k": MemFixPerms(cfg, 25000),
        "mem-fixperms-100k": MemFixPerms(cfg, 100000),
    }
    try:
        for name in chosen:
            if name in workloads:
                bench.run_workload(workloads[name])
            elif name == "poll-empty":
                bench.run_poll(0)
            elif name == "poll-stale":
                bench.run_poll(cfg.stale)
            elif name == "idle-round":
                bench.run_idle_round()
            elif name == "latency":
                bench.run_latency()
    finally:
        bench.cleanup()

    info["load_end"] = os.getloadavg()
    print()
    print(table(bench.rows))
    print()
    base = bench.baseline_rss_kb
    if base:
        print("bytes per entry = (peak RSS - %.1f MiB, the peak RSS of an idle helper) / entries"
              % (base / 1024))
    print("load average at the start %.2f %.2f %.2f, at the end %.2f %.2f %.2f"
          % (*info["load_start"], *info["load_end"]))
    if cfg.json:
        with open(cfg.json, "w") as f:
            json.dump({"machine": info, "runs": cfg.runs, "rows": bench.rows}, f, indent=1)
    missed = [r["workload"] for r in bench.rows if verdict(r) == "MISSED"]
    failed = [r["workload"] for r in bench.rows if verdict(r) == "FAILED"]
    if missed:
        print("targets missed: " + "; ".join(missed))
    if failed:
        print("FAILED (work not done or helper error): " + "; ".join(failed))
        sys.exit(1)


if __name__ == "__main__":
    main()
