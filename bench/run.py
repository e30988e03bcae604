#!/usr/bin/env python3
"""Benchmarks tanner-backup against rsync and cp on the same source and the same freshly prepared
device, in a private mount namespace, and writes the medians and ratios to docs/PERFORMANCE.md.

Run as root:  bench/run.py [--runs 5] [--workloads W1,W2,W3,W4,W5] [--devices ext4,tmpfs]
              [--binary build/tanner-backup] [--tiny] [--no-write]

Workloads (fixed random seed):
  W1  200,000 files of 0 to 16 KiB in 20,000 folders, 6 levels deep: a full backup
  W2  8 files of 256 MiB: a full backup
  W3  W1 right after a backup: a pure comparison
  W4  W1 with 1% of files modified, 0.5% deleted, 0.5% added and one folder renamed
  W5  100,000 files in one folder: a full backup
Every tool runs on the same source and the same freshly prepared device; the tools alternate run
by run, and the page cache is dropped before every timed run (or, where that is not allowed,
warmed by reading both trees, the same for every tool).
"""
import argparse
import os
import random
import shutil
import statistics
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SEED = 20261122


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
    def __init__(self, tiny):
        self.files = 2000 if tiny else 200_000
        self.fanout = 3 if tiny else 5  # 6 levels of 5: 19,530 folders
        self.max_size = 16 * 1024
        self.big_files = 2 if tiny else 8
        self.big_size = (4 if tiny else 256) * 1024 * 1024
        self.flat_files = 1000 if tiny else 100_000


def folder_paths(root, fanout, levels=6):
    paths, frontier = [], [root]
    for _ in range(levels):
        nxt = []
        for parent in frontier:
            for i in range(fanout):
                nxt.append(os.path.join(parent, f"d{i:02d}"))
        paths += nxt
        frontier = nxt
    return paths


def make_w1(root, scale, rng):
    folders = folder_paths(root, scale.fanout)
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
                out.write(block[k % 7:] + block[: k % 7])


def make_w5(root, scale, rng):
    os.makedirs(root, exist_ok=True)
    for i in range(scale.flat_files):
        with open(os.path.join(root, f"item{i:06d}.txt"), "wb") as out:
            out.write(rng.randbytes(rng.randint(0, 4096)))


def change_w4(root, files, rng):
    """1% modified, 0.5% deleted, 0.5% added, one folder renamed."""
    n = len(files)
    picks = rng.sample(files, n // 50)
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
    victim = next(f for f in folders if os.path.exists(f) and f.count("/") == root.count("/") + 2)
    os.rename(victim, victim + "-renamed")


def drop_caches():
    sh("sync")
    try:
        with open("/proc/sys/vm/drop_caches", "w") as f:
            f.write("3\n")
        return "dropped"
    except OSError:
        return None


def warm(*trees):
    for tree in trees:
        sh("sh", "-c", f"find '{tree}' -type f -print0 | xargs -0 -r cat > /dev/null", check=False)


def timed(cmd, env=None):
    """Runs a command under /usr/bin/time; returns (wall seconds, peak RSS in KiB)."""
    out = subprocess.run(["/usr/bin/time", "-f", "TIME %e %M"] + cmd, env=env, stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, text=True)
    line = [l for l in out.stderr.splitlines() if l.startswith("TIME ")]
    if out.returncode not in (0, 1) or not line:
        raise RuntimeError(f"{cmd[0]} failed ({out.returncode}): {out.stderr[-2000:]}")
    _, wall, rss = line[-1].split()
    return float(wall), int(rss)


class Device:
    def __init__(self, kind, work, size_mib):
        self.kind, self.work, self.size_mib = kind, work, size_mib
        self.volumes = os.path.join(work, "volumes")
        self.mount = os.path.join(self.volumes, "BenchDisk")
        self.image = os.path.join(work, "device.img")

    def fresh(self):
        if os.path.ismount(self.mount):
            sh("umount", self.mount)
        os.makedirs(self.mount, exist_ok=True)
        if self.kind == "tmpfs":
            sh("mount", "-t", "tmpfs", "-o", f"size={self.size_mib}m", "tmpfs", self.mount)
        else:
            with open(self.image, "wb") as f:
                f.truncate(self.size_mib * 1024 * 1024)
            sh("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", self.image)
            sh("mount", "-o", "loop", self.image, self.mount)

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


def run_workload(name, args, work, scale, device_kind):
    rng = random.Random(SEED)
    src_mount = os.path.join(work, "source")
    os.makedirs(src_mount, exist_ok=True)
    if not os.path.ismount(src_mount):
        sh("mount", "-t", "tmpfs", "-o", "size=4g" if args.tiny else "size=6g", "tmpfs", src_mount)
    for entry in os.listdir(src_mount):
        shutil.rmtree(os.path.join(src_mount, entry))
    folder = os.path.join(src_mount, name)
    files = []
    if name in ("W1", "W3", "W4"):
        files = make_w1(folder, scale, rng)
    elif name == "W2":
        make_w2(folder, scale, rng)
    else:
        make_w5(folder, scale, rng)

    size_mib = 2048 if args.tiny else (4096 if name == "W2" else 3072)
    device = Device(device_kind, work, size_mib)
    env = tanner_env(work, folder)
    binary = os.path.abspath(args.binary)
    target = os.path.join(device.mount, name)
    pristine = os.path.join(work, "pristine")

    def prepare(full):
        device.fresh()
        if not full:
            sh("cp", "-a", pristine, target)

    incremental = name in ("W3", "W4")
    if incremental:
        device.fresh()
        sh(binary, "backup", "BenchDisk", env=env, stdout=subprocess.DEVNULL)
        if os.path.exists(pristine):
            shutil.rmtree(pristine)
        sh("cp", "-a", target, pristine)
        if name == "W4":
            change_w4(folder, files, rng)

    tools = {"tanner": [binary, "backup", "BenchDisk"], "rsync": ["rsync", "-a", "--delete", folder + "/", target + "/"]}
    if incremental:
        tools["rsync -n"] = ["rsync", "-a", "--delete", "-n", folder + "/", target + "/"]
        tools["stat floor"] = ["sh", "-c", f"find '{folder}' '{target}' -printf '%s %T@ %m\\n' > /dev/null"]
    else:
        tools["cp -a"] = ["cp", "-a", folder, device.mount + "/"]
        tools["read floor"] = ["sh", "-c", f"find '{folder}' -type f -print0 | xargs -0 -r cat > /dev/null"]

    results = {tool: [] for tool in tools}
    order = list(tools)
    for run in range(args.runs):
        for tool in order[run % len(order):] + order[: run % len(order)]:
            prepare(full=not incremental)
            if drop_caches() is None:
                warm(folder, device.mount)
            results[tool].append(timed(tools[tool], env=env if tool == "tanner" else None))
    device.close()
    return results


def machine():
    model = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    mem = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    return f"{os.cpu_count()} cores ({model}), {mem:.0f} GiB, Linux {os.uname().release}"


def report(all_results, args):
    lines = [f"Machine: {machine()}. {args.runs} runs per tool, medians.", ""]
    lines.append("| workload | device | tool | wall s | peak RSS MiB | tanner/tool wall | tanner/tool RSS |")
    lines.append("|---|---|---|---|---|---|---|")
    for (name, dev), results in all_results.items():
        med = {t: (statistics.median(w for w, _ in r), statistics.median(m for _, m in r)) for t, r in results.items()}
        tw, tm = med["tanner"]
        for tool, (wall, rss) in med.items():
            ratio = "" if tool == "tanner" else f"{tw / wall:.2f}" if wall > 0 else "n/a"
            mratio = "" if tool == "tanner" or "floor" in tool else f"{tm / rss:.2f}"
            lines.append(f"| {name} | {dev} | {tool} | {wall:.2f} | {rss / 1024:.1f} | {ratio} | {mratio} |")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--workloads", default="W1,W2,W3,W4,W5")
    parser.add_argument("--devices", default="ext4,tmpfs")
    parser.add_argument("--binary", default=os.path.join(ROOT, "build", "tanner-backup"))
    parser.add_argument("--workdir", default="/var/tmp/tanner-bench")
    parser.add_argument("--tiny", action="store_true", help="a small workload, to check that the benchmark runs")
    parser.add_argument("--no-write", action="store_true", help="print the results without writing docs/PERFORMANCE.md")
    args = parser.parse_args()
    enter_private_namespace()
    os.makedirs(args.workdir, exist_ok=True)
    scale = Scale(args.tiny)
    all_results = {}
    for dev in args.devices.split(","):
        for name in args.workloads.split(","):
            print(f"== {name} on {dev}", flush=True)
            all_results[(name, dev)] = run_workload(name, args, args.workdir, scale, dev)
    text = report(all_results, args)
    print(text)
    if not args.no_write and not args.tiny:
        path = os.path.join(ROOT, "docs", "PERFORMANCE.md")
        old = open(path).read() if os.path.exists(path) else "# Performance\n"
        marker = "## Benchmark results"
        head = old.split(marker)[0].rstrip() + "\n\n"
        with open(path, "w") as f:
            f.write(head + marker + "\n\n" + f"`bench/run.py`, {time.strftime('%Y-%m-%d')}.\n\n" + text + "\n")


if __name__ == "__main__":
    main()
