#!/usr/bin/env python3
"""Benchmarks tanner-backup against rsync, cp and the tools a user would pick instead (rclone,
FreeFileSync) on the same source and the same freshly prepared device, in a private mount
namespace, and writes the medians and ratios to docs/PERFORMANCE.md.

Run as root:  bench/run.py [--runs 5] [--workloads W1,W2,W3,W4,W5] [--devices ext4,tmpfs]
              [--scale 1.0] [--cache cold,warm] [--binary build/tanner-backup]
              [--baseline OTHER/tanner-backup] [--tiny] [--no-write]

Workloads (fixed random seed; --scale shrinks the counts and sizes, keeping the shape):
  W1  200,000 files of 0 to 16 KiB in 20,000 folders, 6 levels deep: a full backup
  W2  8 files of 256 MiB: a full backup
  W3  W1 right after a backup: a pure comparison
  W4  W1 with 1% of files modified, 0.5% deleted, 0.5% added and one folder renamed
  W5  100,000 files in one folder: a full backup
The source lives on an ext4 file system of its own (a loop device), as a user's files live on a
disk; the device is a second ext4 loop device or a tmpfs. Every tool runs on the same source and
the same freshly prepared device; the tools alternate run by run. With --cache cold the page cache
is dropped before every timed run. With --cache warm the source tree is read once before the timed
runs and never dropped, and the freshly prepared device is read before each run (a device made
anew from its image starts cold): the daily case, with the trees already in the page cache. Both
states in one call (--cache cold,warm) give a table each.

The peers: rsync, cp -a (full backups), rclone sync when the rclone command is installed, and
FreeFileSync's batch mirror (W1, W3, W4; with a sync of the device after it in W1, like cp -a) when
FreeFileSync and Xvfb are installed and a small job of its own comes out right. The benchmark asks
apt-get for what is missing once, except with --tiny, and otherwise leaves those rows out with the
reason printed. FreeFileSync runs a batch job (.ffs_batch) made for each workload and device:
variant Mirror, compared by time and size, deletions permanent, errors and warnings ending the run
instead of a dialog; on one Xvfb kept for the whole benchmark, with settings and logs in a folder of
the benchmark's, its directory lock (a file it writes into the source) turned off. After each of its
runs the device must mirror the source (items, kinds, sizes, times, the bytes of a sample of files,
none of its own files on either side), and its exit code must be 0; otherwise its rows for that
workload are left out with the reason printed (details: docs/PERFORMANCE.md, bench/freefilesync.py).
--baseline adds a second tanner-backup, another build, to the same alternating runs.

Memory: the largest process's peak RSS (from the kernel), and the peak of the PSS of all the tool's
processes together (sampled): rsync runs as three processes that share their libraries, which a sum
of their RSS would count three times.
"""
import argparse
import os
import random
import shlex
import shutil
import signal
import statistics
import subprocess
import sys
import threading
import time

sys.dont_write_bytecode = True  # run as root: no __pycache__ of root's in bench/
from freefilesync import FreeFileSync  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SEED = 20261122
# A FreeFileSync run that has not ended by then waits on something: it is stopped and left out.
FREEFILESYNC_LIMIT_S = 900
MKFS = ["mkfs.ext4", "-q", "-F", "-i", "8192", "-E", "lazy_itable_init=0,lazy_journal_init=0"]

# The targets by page cache state: (workload, peer, largest tanner/peer ratio of the medians, what
# is compared).
COLD_TARGETS = [
    ("W3", "rsync -n", 0.5, "wall"),
    ("W3", "stat floor", 1.5, "wall"),
    ("W1", "rsync", 0.8, "wall"),
    ("W1", "cp -a", 1.2, "wall"),
    ("W2", "cp -a", 1.05, "wall"),
    ("W4", "rsync", 0.6, "wall"),
    ("W5", "rsync", 0.8, "wall"),
    ("W1", "rsync", 0.5, "rss"),
    ("W3", "rsync", 0.5, "rss"),
]
TARGETS = {
    "cold": COLD_TARGETS,
    "warm": [
        ("W3", "rsync -n", 0.7, "wall"),
        ("W3", "stat floor", 1.3, "wall"),
        ("W4", "rsync", 0.7, "wall"),
        ("W1", "rsync + sync", 0.9, "wall"),
        ("W1", "cp -a + sync", 1.0, "wall"),
        ("W1", "rsync", 0.5, "rss"),
        ("W3", "rsync", 0.5, "rss"),
    ],
}


def sh(*args, check=True, **kw):
    return subprocess.run(args, check=check, **kw)


def enter_private_namespace():
    if os.environ.get("TANNER_BENCH_NS") == "1":
        sh("mount", "--make-rprivate", "/")
        return
    if os.geteuid() != 0:
        print("bench/run.py needs root: it mounts file systems in a private mount namespace", file=sys.stderr)
        sys.exit(77)
    env = dict(os.environ, TANNER_BENCH_NS="1")
    os.execvpe("unshare", ["unshare", "-m", "--propagation", "private", sys.executable] + sys.argv, env)


class Scale:
    """The workloads' sizes; 1.0 is the full benchmark, smaller values keep its shape for quick runs."""

    def __init__(self, scale):
        self.scale = scale
        self.files = max(100, round(200_000 * scale))
        self.folders = max(6, round(20_000 * scale))
        self.levels = 6
        self.max_size = 16 * 1024
        self.big_files = 8
        self.big_size = max(4, round(256 * scale)) * 1024 * 1024
        self.flat_files = max(100, round(100_000 * scale))

    def size_mib(self, name):
        """A file system that holds one copy of the workload with room to spare."""
        if name == "W2":
            data = self.big_files * self.big_size
        elif name == "W5":
            data = self.flat_files * 8192
        else:
            data = self.files * 14 * 1024 + self.folders * 4096
        return max(256, int(data * 1.5 / 2**20))


def folder_paths(root, total, levels):
    """About `total` folders, `levels` deep, each level r times as wide as the one above."""
    lo, hi = 1.0, float(total)
    for _ in range(100):
        r = (lo + hi) / 2
        lo, hi = (r, hi) if sum(r**k for k in range(1, levels + 1)) < total else (lo, r)
    paths, frontier = [], [root]
    for k in range(1, levels + 1):
        count = max(len(frontier), round(lo**k))
        level = []
        for j in range(count):
            parent = frontier[j % len(frontier)]
            level.append(os.path.join(parent, f"d{j // len(frontier):02d}"))
        paths += level
        frontier = level
    return paths


def make_w1(root, scale, rng):
    folders = folder_paths(root, scale.folders, scale.levels)
    for f in folders:
        os.makedirs(f, exist_ok=True)
    files = []
    for i in range(scale.files):
        folder = folders[i % len(folders)]
        path = os.path.join(folder, f"f{i:06d}.dat")
        with open(path, "wb") as out:
            out.write(rng.randbytes(rng.randint(0, scale.max_size)))
        files.append(path)
    return files


def make_w2(root, scale, rng):
    os.makedirs(root, exist_ok=True)
    block = rng.randbytes(1024 * 1024)
    for i in range(scale.big_files):
        with open(os.path.join(root, f"big{i}.bin"), "wb") as out:
            for k in range(scale.big_size // len(block)):
                out.write(block[k % 7 :] + block[: k % 7])


def make_w5(root, scale, rng):
    os.makedirs(root, exist_ok=True)
    for i in range(scale.flat_files):
        with open(os.path.join(root, f"item{i:06d}.txt"), "wb") as out:
            out.write(rng.randbytes(rng.randint(0, 4096)))


def change_w4(root, files, rng):
    """1% modified, 0.5% deleted, 0.5% added, one folder renamed."""
    n = len(files)
    picks = rng.sample(files, n // 100 + n // 200)
    modified, deleted = picks[: n // 100], picks[n // 100 :]
    now = time.time() + 3600
    for path in modified:
        with open(path, "ab") as out:
            out.write(b"changed")
        os.utime(path, (now, now))
    for path in deleted:
        os.remove(path)
    folders = sorted({os.path.dirname(f) for f in files})
    for i in range(n // 200):
        with open(os.path.join(folders[i % len(folders)], f"new{i:06d}.dat"), "wb") as out:
            out.write(rng.randbytes(rng.randint(0, 16 * 1024)))
    # A folder two levels above the bottom: about 1/600 of the tree moves.
    victim = next(f for f in folders if os.path.exists(f) and f.count("/") == root.count("/") + 4)
    os.rename(victim, victim + "-renamed")


def drop_caches():
    sh("sync")
    with open("/proc/sys/vm/drop_caches", "w") as f:
        f.write("3\n")


def warm(*trees):
    """Reads every item's metadata and every file's data."""
    for tree in trees:
        sh("sh", "-c", f"find '{tree}' -printf '' ; find '{tree}' -type f -print0 | xargs -0 -r cat > /dev/null",
           check=False)


def _tree_pss_kib(pid):
    """Proportional set size in KiB of a process's descendants (not the process itself): shared pages
    counted once among the processes that share them."""
    total, stack = 0, [pid]
    while stack:
        parent = stack.pop()
        try:
            tasks = os.listdir(f"/proc/{parent}/task")
        except OSError:
            continue
        for task in tasks:
            try:
                with open(f"/proc/{parent}/task/{task}/children") as f:
                    children = [int(c) for c in f.read().split()]
            except OSError:
                continue
            for child in children:
                stack.append(child)
                try:
                    with open(f"/proc/{child}/smaps_rollup") as f:
                        total += next(int(l.split()[1]) for l in f if l.startswith("Pss:"))
                except (OSError, StopIteration, ValueError):
                    pass
    return total


class ToolFailed(RuntimeError):
    def __init__(self, message, code):
        super().__init__(message)
        self.code = code


def timed(cmd, env=None, ok=(0,), limit=None):
    """Runs a command under /usr/bin/time. Returns (wall seconds, peak RSS KiB of its largest
    process, peak PSS KiB of all its processes together, sampled every 20 ms). With a limit in
    seconds, a command still running then is killed with all its processes."""
    process = subprocess.Popen(["/usr/bin/time", "-f", "TIME %e %M"] + cmd, env=env, stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE, text=True, start_new_session=limit is not None)
    peak = [0]

    def sample():
        while process.poll() is None:
            peak[0] = max(peak[0], _tree_pss_kib(process.pid))
            time.sleep(0.02)

    sampler = threading.Thread(target=sample)
    sampler.start()
    try:
        _, err = process.communicate(timeout=limit)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        sampler.join()
        raise ToolFailed(f"{cmd[0]} did not end within {limit} s and was stopped", None)
    sampler.join()
    line = [l for l in err.splitlines() if l.startswith("TIME ")]
    if process.returncode not in ok or not line:
        # /usr/bin/time reports a command's own exit code as "Command exited with non-zero status N".
        codes = [int(l.split()[-1]) for l in err.splitlines() if l.startswith("Command exited with non-zero status")]
        raise ToolFailed(f"{cmd[0]} failed ({process.returncode}): {err[-2000:]}", codes[-1] if codes else None)
    _, wall, rss = line[-1].split()
    return float(wall), int(rss), peak[0]


class Ext4:
    """An ext4 file system on a loop device, made from an image file."""

    def __init__(self, image, mount, size_mib):
        self.image, self.mount, self.size_mib = image, mount, size_mib

    def fresh(self, pristine=None):
        self.close()
        os.makedirs(self.mount, exist_ok=True)
        if pristine:
            sh("cp", "--sparse=always", pristine, self.image)
        else:
            with open(self.image, "wb") as f:
                f.truncate(self.size_mib * 1024 * 1024)
            sh(*MKFS, self.image)
        sh("mount", "-o", "loop", self.image, self.mount)
        if not pristine:
            # A device's top level holds only the mirrors: mkfs's lost+found would be an extra item.
            os.rmdir(os.path.join(self.mount, "lost+found"))

    def close(self):
        if os.path.ismount(self.mount):
            sh("umount", self.mount)


class Device:
    """The backup device "BenchDisk": ext4 on a loop device or a tmpfs, prepared afresh for every
    run, empty or as a pristine copy saved after the first backup."""

    def __init__(self, kind, work, size_mib):
        self.kind, self.work, self.size_mib = kind, work, size_mib
        self.volumes = os.path.join(work, "volumes")
        self.mount = os.path.join(self.volumes, "BenchDisk")
        self.ext4 = Ext4(os.path.join(work, "device.img"), self.mount, size_mib)
        self.pristine = None

    def fresh(self):
        if self.kind == "tmpfs":
            self.close()
            os.makedirs(self.mount, exist_ok=True)
            sh("mount", "-t", "tmpfs", "-o", f"size={self.size_mib}m", "tmpfs", self.mount)
            if self.pristine:
                sh("cp", "-a", self.pristine + "/.", self.mount)
        else:
            self.ext4.fresh(self.pristine)

    def save_pristine(self):
        """Keeps the device as it is now; fresh() then restores it."""
        if self.kind == "tmpfs":
            self.pristine = os.path.join(self.work, "pristine")
            if os.path.exists(self.pristine):
                shutil.rmtree(self.pristine)
            sh("cp", "-a", self.mount, self.pristine)
        else:
            self.ext4.close()
            self.pristine = os.path.join(self.work, "pristine.img")
            sh("cp", "--sparse=always", self.ext4.image, self.pristine)

    def close(self):
        if os.path.ismount(self.mount):
            sh("umount", self.mount)


def tanner_env(work, folder):
    home = os.path.join(work, "home")
    conf = os.path.join(home, "config", "Tannerwick")
    os.makedirs(conf, exist_ok=True)
    with open(os.path.join(conf, "Tanner Backup.conf"), "w") as f:
        f.write(f"[General]\ntwbackup.folders={folder}\n")
    return dict(os.environ, HOME=home, XDG_CONFIG_HOME=os.path.join(home, "config"),
                XDG_STATE_HOME=os.path.join(home, "state"), XDG_DATA_HOME=os.path.join(home, "data"),
                TANNER_VOLUMES_ROOT=os.path.join(work, "volumes"))


def rclone_available(install):
    """True when rclone can be run; otherwise asks apt-get for it once when install is true, and says
    why it is left out."""
    if shutil.which("rclone"):
        return True
    if not install:
        if not getattr(rclone_available, "told", False):
            rclone_available.told = True
            print("rclone left out: the rclone command is not installed (--tiny does not install it)", flush=True)
        return False
    if not getattr(rclone_available, "asked", False):
        rclone_available.asked = True
        print("rclone is not installed: asking apt-get for it", flush=True)
        sh("apt-get", "install", "-y", "-q", "rclone", check=False, stdout=subprocess.DEVNULL,
           env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))
    if shutil.which("rclone"):
        return True
    print("rclone left out: the rclone command is not installed and apt-get could not install it", flush=True)
    return False


def run_workload(name, args, work, scale, device_kind, freefilesync):
    rng = random.Random(SEED)
    size_mib = scale.size_mib(name)
    source = Ext4(os.path.join(work, "source.img"), os.path.join(work, "source"), size_mib)
    source.fresh()
    folder = os.path.join(source.mount, name)
    files = []
    if name in ("W1", "W3", "W4"):
        files = make_w1(folder, scale, rng)
    elif name == "W2":
        make_w2(folder, scale, rng)
    else:
        make_w5(folder, scale, rng)

    device = Device(device_kind, work, size_mib)
    env = tanner_env(work, folder)
    binary = os.path.abspath(args.binary)
    target = os.path.join(device.mount, name)

    incremental = name in ("W3", "W4")
    if incremental:
        device.fresh()
        sh(binary, "backup", "BenchDisk", env=env, stdout=subprocess.DEVNULL)
        device.save_pristine()
        if name == "W4":
            change_w4(folder, files, rng)

    tools = {"tanner": [binary, "backup", "BenchDisk"], "rsync": ["rsync", "-a", "--delete", folder + "/", target + "/"]}
    if args.baseline:
        tools["tanner baseline"] = [os.path.abspath(args.baseline), "backup", "BenchDisk"]
    if rclone_available(install=not args.tiny):
        # Local to local, no configuration file: the same mirror as the others, empty folders too.
        tools["rclone"] = ["rclone", "sync", "--create-empty-src-dirs", "--config", "/dev/null", "-q",
                           folder + "/", target + "/"]
    # FreeFileSync's rows: each is checked after every run, and left out of this workload when one fails.
    mirrors = []
    if name in ("W1", "W3", "W4") and freefilesync.available():
        command = freefilesync.command(freefilesync.job(f"{name}-{device_kind}", folder, target))
        tools["FreeFileSync"] = command
        mirrors.append("FreeFileSync")
        if not incremental:
            # Like cp -a, it leaves the copies in the page cache (it calls no fsync).
            tools["FreeFileSync + sync"] = ["sh", "-c", f"{shlex.join(command)} && sync -f {shlex.quote(device.mount)}"]
            mirrors.append("FreeFileSync + sync")
    if incremental:
        tools["rsync -n"] = ["rsync", "-a", "--delete", "-n", folder + "/", target + "/"]
        tools["stat floor"] = ["sh", "-c", f"find '{folder}' '{target}' -printf '%s %T@ %m\\n' > /dev/null"]
    else:
        tools["cp -a"] = ["cp", "-a", folder, device.mount + "/"]
        # tanner-backup ends a backup with the data on the device; cp -a leaves it in the page cache.
        tools["cp -a + sync"] = ["sh", "-c", f"cp -a '{folder}' '{device.mount}/' && sync -f '{device.mount}'"]
        tools["rsync + sync"] = ["sh", "-c", f"rsync -a --delete '{folder}/' '{target}/' && sync -f '{device.mount}'"]
        tools["read floor"] = ["sh", "-c", f"find '{folder}' -type f -print0 | xargs -0 -r cat > /dev/null"]

    all_results = {}
    order = list(tools)
    left_out = set()
    for cache in args.cache.split(","):
        results = {tool: [] for tool in tools}
        if cache == "warm":
            drop_caches()
            warm(folder)
        for run in range(args.runs):
            for tool in order[run % len(order) :] + order[: run % len(order)]:
                if tool in left_out:
                    continue
                device.fresh()
                if tool in mirrors:
                    freefilesync.prepare(target)
                if cache == "cold":
                    drop_caches()
                elif device_kind != "tmpfs":
                    warm(device.mount)
                if tool not in mirrors:
                    results[tool].append(timed(tools[tool], env=env if tool.startswith("tanner") else None))
                    continue
                try:
                    results[tool].append(timed(tools[tool], env=freefilesync.env, limit=FREEFILESYNC_LIMIT_S))
                    freefilesync.verify(folder, target)
                except RuntimeError as e:  # a failed run (ToolFailed) or a failed check
                    code = getattr(e, "code", None)
                    reason = str(e) if code is None else freefilesync.explain(code)
                    print(f"{tool} left out of {name} on {device_kind}: {reason}", flush=True)
                    left_out.add(tool)
        all_results[cache] = results
    for results in all_results.values():
        for tool in left_out:
            del results[tool]
    device.close()
    source.close()
    return all_results


def machine():
    model = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    mem = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    versions = []
    for tool in ("rsync", "cp", "rclone"):
        if shutil.which(tool):
            versions.append(subprocess.run([tool, "--version"], capture_output=True, text=True).stdout.split("\n")[0])
    if shutil.which("FreeFileSync"):
        versions.append(FreeFileSync.version())
    load = " ".join(open("/proc/loadavg").read().split()[:3])
    return (f"{os.cpu_count()} cores ({model}), {mem:.0f} GiB, Linux {os.uname().release}; "
            f"load average at the end {load}; {'; '.join(versions)}")


def medians(results):
    return {t: tuple(statistics.median(r[i] for r in runs) for i in range(3)) for t, runs in results.items()}


def report(all_results, args, cache):
    """The table of one page cache state, and the targets of that state."""
    lines = [f"Machine: {machine()}.", "",
             f"Scale {args.scale:g}, page cache {cache}, {args.runs} runs per tool, medians. Memory: the largest "
             "process's peak RSS (from the kernel) and the peak of the PSS of all the tool's processes together "
             "(sampled).", "",
             "| workload | device | tool | wall s | RSS largest MiB | PSS all MiB | tanner/tool wall "
             "| tanner/tool PSS all |",
             "|---|---|---|---|---|---|---|---|"]
    for (name, dev), by_cache in all_results.items():
        med = medians(by_cache[cache])
        tw, _, ta = med["tanner"]
        for tool, (wall, rss, alls) in med.items():
            ratio = "" if tool == "tanner" else f"{tw / wall:.2f}" if wall > 0 else "n/a"
            mratio = "" if tool == "tanner" or "floor" in tool or alls <= 0 else f"{ta / alls:.2f}"
            lines.append(f"| {name} | {dev} | {tool} | {wall:.2f} | {rss / 1024:.1f} | {alls / 1024:.1f} "
                         f"| {ratio} | {mratio} |")
    lines += ["", "| target | device | ratio | limit | met |", "|---|---|---|---|---|"]
    for name, peer, limit, what in TARGETS[cache]:
        for (workload, dev), by_cache in all_results.items():
            results = by_cache[cache]
            if workload != name or peer not in results:
                continue
            med = medians(results)
            index = 0 if what == "wall" else 2
            ratio = med["tanner"][index] / med[peer][index] if med[peer][index] > 0 else float("inf")
            label = f"{name} {'time' if what == 'wall' else 'memory'} / {peer}"
            lines.append(f"| {label} | {dev} | {ratio:.2f} | {limit} | {'yes' if ratio <= limit else 'no'} |")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--workloads", default="W1,W2,W3,W4,W5")
    parser.add_argument("--devices", default="ext4,tmpfs")
    parser.add_argument("--scale", type=float, default=1.0, help="fraction of the full workloads (1.0)")
    parser.add_argument("--cache", default="cold",
                        help="page cache before every timed run: cold (dropped), warm (both trees read, not "
                        "dropped), or cold,warm for a table of each")
    parser.add_argument("--binary", default=os.path.join(ROOT, "build", "tanner-backup"))
    parser.add_argument("--baseline", help="a second tanner-backup (another build) timed in the same runs")
    parser.add_argument("--workdir", default="/var/tmp/tanner-bench")
    parser.add_argument("--tiny", action="store_true", help="a small workload (--scale 0.01), to check that it runs")
    parser.add_argument("--no-write", action="store_true", help="print the results without writing docs/PERFORMANCE.md")
    args = parser.parse_args()
    if args.tiny:
        args.scale = min(args.scale, 0.01)
    if not args.cache or any(c not in ("cold", "warm") for c in args.cache.split(",")):
        parser.error("--cache takes cold, warm or cold,warm")
    enter_private_namespace()
    os.makedirs(args.workdir, exist_ok=True)
    scale = Scale(args.scale)
    all_results = {}
    freefilesync = FreeFileSync(args.workdir, install=not args.tiny)
    try:
        for dev in args.devices.split(","):
            for name in args.workloads.split(","):
                print(f"== {name} on {dev} ({time.strftime('%H:%M:%S')})", flush=True)
                all_results[(name, dev)] = run_workload(name, args, args.workdir, scale, dev, freefilesync)
                for cache in args.cache.split(","):
                    print(report({(name, dev): all_results[(name, dev)]}, args, cache).split("\n\n")[2], flush=True)
    finally:
        freefilesync.close()
    for cache in args.cache.split(","):
        text = report(all_results, args, cache)
        print(text)
        if not args.no_write and args.scale == 1.0 and args.runs >= 5:
            write_section(args, parser, cache, text)


def write_section(args, parser, cache, text):
    """Writes one page cache state's table to docs/PERFORMANCE.md, in its own section."""
    path = os.path.join(ROOT, "docs", "PERFORMANCE.md")
    old = open(path).read() if os.path.exists(path) else "# Performance\n"
    # One section per cache state, device set and set of workloads, so that runs on each device,
    # or of some workloads again, are kept apart.
    some = args.workloads != parser.get_default("workloads")
    marker = f"## Benchmark results, page cache {cache}, devices {args.devices}"
    command = f"`bench/run.py --cache {cache} --devices {args.devices}"
    if some:
        marker += f", workloads {args.workloads}"
        command += f" --workloads {args.workloads}"
    commit = subprocess.run(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"], capture_output=True, text=True)
    head, _, rest = old.partition(marker + "\n")
    tail = rest[rest.find("\n## ") :] if "\n## " in rest else ""
    with open(path, "w") as f:
        f.write(head.rstrip() + "\n\n" + marker + "\n\n" + command + "`, "
                f"{time.strftime('%Y-%m-%d')}, commit {commit.stdout.strip() or 'unknown'}.\n\n" + text + "\n" + tail)


if __name__ == "__main__":
    main()
