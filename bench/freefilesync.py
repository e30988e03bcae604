"""FreeFileSync's batch mirror as a peer of bench/run.py, and the check that a tool's run left the
device as a mirror of the source (docs/PERFORMANCE.md, "The peers a user would pick instead", says
why each choice below was made).

- One Xvfb for the whole benchmark, DISPLAY pointing at it; no session bus and no accessibility bus
  (GTK would start both on the first run and leave them running).
- Its settings and logs live in ~/.config/FreeFileSync of the user that SUDO_USER, LOGNAME or the
  uid names, whatever HOME says: it runs without those variables, as root, with a folder of the
  benchmark's mounted over root's (the benchmark runs in a private mount namespace). The settings
  turn off the folder lock (sync.ffs_lock, written into the source during a run) and the sounds.
- The job (.ffs_batch): Mirror, by time and size, links as links, deletions permanent, no retries,
  and ErrorDialog Cancel: an error or a warning ends the run with exit code 3 instead of a dialog.
  A mirror without move detection writes no sync.ffs_db; the check fails if one appears.
"""
import os
import pwd
import shutil
import subprocess
import xml.sax.saxutils

LEFTOVER_SUFFIXES = (".ffs_db", ".ffs_lock", ".ffs_tmp")

SETTINGS = """<?xml version="1.0" encoding="utf-8"?>
<FreeFileSync XmlType="GLOBAL" XmlFormat="25">
    <LockDirectoriesDuringSync Enabled="false"/>
    <Sounds>
        <CompareFinished Path=""/>
        <SyncFinished Path=""/>
        <AlertPending Path=""/>
    </Sounds>
</FreeFileSync>
"""

JOB = """<?xml version="1.0" encoding="utf-8"?>
<FreeFileSync XmlType="BATCH" XmlFormat="17">
    <Compare>
        <Variant>TimeAndSize</Variant>
        <Symlinks>Direct</Symlinks>
        <IgnoreTimeShift/>
    </Compare>
    <Synchronize>
        <Variant>Mirror</Variant>
        <DetectMovedFiles>false</DetectMovedFiles>
        <DeletionPolicy>Permanent</DeletionPolicy>
        <VersioningFolder Style="Replace"/>
    </Synchronize>
    <Filter>
        <Include>
            <Item>*</Item>
        </Include>
        <Exclude/>
        <SizeMin Unit="None">0</SizeMin>
        <SizeMax Unit="None">0</SizeMax>
        <TimeSpan Type="None">0</TimeSpan>
    </Filter>
    <FolderPairs>
        <Pair>
            <Left>{source}</Left>
            <Right>{target}</Right>
        </Pair>
    </FolderPairs>
    <Errors Ignore="false" Retry="0" Delay="0"/>
    <PostSyncCommand Condition="Completion"/>
    <LogFolder>{logs}</LogFolder>
    <EmailNotification Condition="Always"/>
    <Batch>
        <ProgressDialog Minimized="true" AutoClose="true"/>
        <ErrorDialog>Cancel</ErrorDialog>
        <PostSyncAction>None</PostSyncAction>
    </Batch>
</FreeFileSync>
"""

EXIT_CODES = {1: "completed with warnings", 2: "completed with errors", 3: "cancelled"}


def _listing(root):
    """Every item below root by its relative path: (kind, size or link text, modification time)."""
    items, folders = {}, [""]
    while folders:
        folder = folders.pop()
        with os.scandir(os.path.join(root, folder)) as entries:
            for entry in entries:
                rel = os.path.join(folder, entry.name)
                if entry.is_symlink():
                    items[rel] = ("link", os.readlink(entry.path), 0)
                elif entry.is_dir(follow_symlinks=False):
                    items[rel] = ("folder", 0, 0)
                    folders.append(rel)
                else:
                    st = entry.stat(follow_symlinks=False)
                    items[rel] = ("file", st.st_size, st.st_mtime_ns)
    return items


def _same_content(a, b):
    """Whole files up to 1 MiB; of larger ones the first, middle and last 64 KiB."""
    size = os.path.getsize(a)
    with open(a, "rb") as fa, open(b, "rb") as fb:
        if size <= 1 << 20:
            return fa.read() == fb.read()
        for offset in (0, size // 2, max(0, size - 65536)):
            fa.seek(offset)
            fb.seek(offset)
            if fa.read(65536) != fb.read(65536):
                return False
    return True


def _examples(paths):
    paths = sorted(paths)
    return ", ".join(paths[:3]) + (", ..." if len(paths) > 3 else "")


def check_mirror(source, target, samples=100, tolerance_ns=2_000_000_000):
    """None when target holds what source holds: the same items by name and kind, files of the same
    size, modification times within tolerance_ns (the tool's own comparison), links to the same
    text, and the same bytes in up to `samples` files spread over the tree; otherwise what differs.
    Fails too when a sync tool's own files (lock, database, half-copied file) are on either side."""
    want, have = _listing(source), _listing(target)
    leftovers = [f"{side}/{p}" for side, items in (("source", want), ("target", have)) for p in items
                 if p.endswith(LEFTOVER_SUFFIXES)]
    if leftovers:
        return f"its own files were left behind: {_examples(leftovers)}"
    problems = []
    missing = want.keys() - have.keys()
    extra = have.keys() - want.keys()
    if missing:
        problems.append(f"missing on the device: {len(missing)} ({_examples(missing)})")
    if extra:
        problems.append(f"on the device but not in the source: {len(extra)} ({_examples(extra)})")
    differ = []
    for path in want.keys() & have.keys():
        (kind, size, mtime), (dkind, dsize, dmtime) = want[path], have[path]
        if kind != dkind or size != dsize or abs(mtime - dmtime) > tolerance_ns:
            differ.append(path)
    if differ:
        problems.append(f"different in kind, size or time: {len(differ)} ({_examples(differ)})")
    if not problems:
        files = sorted(p for p, (kind, _, _) in want.items() if kind == "file")
        step = max(1, len(files) // samples)
        changed = [p for p in files[::step] if not _same_content(os.path.join(source, p), os.path.join(target, p))]
        if changed:
            problems.append(f"different in content: {len(changed)} of the {len(files[::step])} files compared ({_examples(changed)})")
    return "; ".join(problems) or None


class FreeFileSync:
    """FreeFileSync run by batch jobs on a private Xvfb, with settings and logs of its own. available()
    installs (once, when allowed), starts and tries it; prepare() and verify() surround every timed run."""

    def __init__(self, work, install):
        self.dir = os.path.join(work, "freefilesync")
        self.install = install
        self.reason = None  # why it is left out, once known
        self.ready = False
        self.xvfb = None
        self.mounted = None
        self.created = None  # the top of the mount point's folders that did not exist before
        self.logs = os.path.join(self.dir, "logs")
        self.env = None

    def available(self):
        """True when FreeFileSync runs here; otherwise prints why it is left out (once)."""
        if self.ready or self.reason:
            return self.ready
        try:
            self._start()
            self.ready = True
        except (OSError, RuntimeError, subprocess.SubprocessError) as e:
            self.reason = str(e)
            self.close()
            print(f"FreeFileSync left out: {self.reason}", flush=True)
        return self.ready

    def _start(self):
        missing = [c for c in ("FreeFileSync", "Xvfb") if not shutil.which(c)]
        if missing and not self.install:
            raise RuntimeError(f"{' and '.join(missing)} not installed (--tiny does not install them)")
        if missing:
            print("FreeFileSync is not installed: asking apt-get for freefilesync and xvfb", flush=True)
            subprocess.run(["apt-get", "install", "-y", "-q", "freefilesync", "xvfb"], check=False,
                           stdout=subprocess.DEVNULL, env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))
            missing = [c for c in ("FreeFileSync", "Xvfb") if not shutil.which(c)]
            if missing:
                raise RuntimeError(f"{' and '.join(missing)} not installed, and apt-get could not install them")
        if os.path.exists(self.dir):
            shutil.rmtree(self.dir)
        config = os.path.join(self.dir, "config")
        home = os.path.join(self.dir, "home")
        for folder in (config, home, self.logs):
            os.makedirs(folder)
        self.settings = os.path.join(config, "GlobalSettings.xml")
        with open(self.settings, "w") as f:
            f.write(SETTINGS)
        self._mount_config(config)

        read, write = os.pipe()
        try:
            self.xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write), "-nolisten", "tcp"], pass_fds=(write,),
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            os.close(write)
            with os.fdopen(read) as f:
                display = f.readline().strip()
        except BaseException:
            os.close(read)
            raise
        if not display:
            raise RuntimeError("Xvfb did not start")
        env = {k: v for k, v in os.environ.items() if k not in ("SUDO_USER", "LOGNAME", "DBUS_SESSION_BUS_ADDRESS")}
        self.env = dict(env, DISPLAY=f":{display}", HOME=home, NO_AT_BRIDGE="1",
                        DBUS_SESSION_BUS_ADDRESS="disabled:")
        self._probe()

    def _mount_config(self, config):
        """Mounts config over the settings folder of the user that FreeFileSync runs as (root)."""
        target = os.path.join(pwd.getpwuid(os.geteuid()).pw_dir, ".config", "FreeFileSync")
        top = target
        while not os.path.exists(os.path.dirname(top)):
            top = os.path.dirname(top)
        if not os.path.exists(top):
            self.created = top
        os.makedirs(target, exist_ok=True)
        subprocess.run(["mount", "--bind", config, target], check=True)
        self.mounted = target

    def _probe(self):
        """A small mirror that must come out right: files, a nested and an empty folder, and a file on
        the target to delete."""
        source, target = os.path.join(self.dir, "probe", "source"), os.path.join(self.dir, "probe", "target")
        os.makedirs(os.path.join(source, "a", "b"))
        os.makedirs(os.path.join(source, "empty"))
        os.makedirs(target)
        for path, text in (("a/one.txt", "one\n"), ("a/b/two.txt", "two\n"), ("three.txt", "")):
            with open(os.path.join(source, path), "w") as f:
                f.write(text)
        with open(os.path.join(target, "stale.txt"), "w") as f:
            f.write("stale\n")
        job = self.job("probe", source, target)
        try:
            done = subprocess.run(self.command(job), env=self.env, timeout=120, capture_output=True, text=True)
        except subprocess.TimeoutExpired:
            raise RuntimeError("a batch job of three files did not end within 120 s")
        if done.returncode != 0:
            tail = done.stderr.strip().splitlines()[-1:]
            raise RuntimeError(f"a batch job of three files: {self.explain(done.returncode)}"
                               + (f" ({tail[0]})" if tail else ""))
        wrong = check_mirror(source, target)
        if wrong:
            raise RuntimeError(f"a batch job of three files did not mirror them: {wrong}")
        with open(self.settings) as f:
            if "<ConfirmStartSync" not in f.read():
                raise RuntimeError(f"it did not use the settings in {self.mounted} that the benchmark gave it")
        self.clear_logs()

    def explain(self, code):
        """What a failed job's exit code means, and where its log is."""
        what = EXIT_CODES.get(code, "failed")
        logs = sorted(os.listdir(self.logs), key=lambda n: os.path.getmtime(os.path.join(self.logs, n)))
        where = f"; its log: {os.path.join(self.logs, logs[-1])}" if logs else ""
        return f"the batch job {what} (exit code {code}){where}"

    def job(self, name, source, target):
        """Writes the batch job that mirrors source into target; returns its path."""
        path = os.path.join(self.dir, f"{name}.ffs_batch")
        quote = xml.sax.saxutils.escape
        with open(path, "w") as f:
            f.write(JOB.format(source=quote(source), target=quote(target), logs=quote(self.logs)))
        return path

    @staticmethod
    def command(job):
        return ["FreeFileSync", job]

    @staticmethod
    def prepare(target):
        """Before a run: the target folder exists (empty on a fresh device); one that does not is a
        warning, which ends the job."""
        os.makedirs(target, exist_ok=True)

    def verify(self, source, target):
        """After a run: raises unless target mirrors source; then empties the log folder."""
        wrong = check_mirror(source, target)
        if wrong:
            raise RuntimeError(f"the device does not mirror the source after its run: {wrong}")
        self.clear_logs()

    def clear_logs(self):
        for name in os.listdir(self.logs):
            os.remove(os.path.join(self.logs, name))

    @staticmethod
    def version():
        done = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", "freefilesync"], capture_output=True, text=True)
        return f"FreeFileSync {done.stdout.strip() or 'unknown version'}"

    def close(self):
        if self.xvfb:
            self.xvfb.terminate()
            self.xvfb.wait()
            self.xvfb = None
        if self.mounted:
            subprocess.run(["umount", self.mounted], check=False)
            self.mounted = None
        if self.created:
            # Only folders that the benchmark made, and only while empty.
            for folder, _, _ in sorted(os.walk(self.created), key=lambda w: -len(w[0])):
                try:
                    os.rmdir(folder)
                except OSError:
                    break
            self.created = None
        self.ready = False
