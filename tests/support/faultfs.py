#!/usr/bin/python3
"""A pass-through file system whose operations fail on command, for the tests.

    faultfs.py ROOT MOUNTPOINT RULES

mirrors the folder ROOT at MOUNTPOINT (in the foreground, as root) until it is unmounted. RULES is a
file outside the mount, read again whenever it changes; each line is

    OPERATION ERRNO GLOB

and makes OPERATION fail with ERRNO (a name such as EIO or EACCES) for every path (as seen from
the mount's root, "/a/b.txt") that matches the shell pattern GLOB. OPERATION is one of lookup
(getattr), list (readdir), open, read, write, create, mkdir, rename, unlink, rmdir, chmod, chown,
utimens, setxattr or fsync. The operation "slow" takes a number of milliseconds instead of ERRNO
and makes every read of a matching file wait that long first. Blank lines and lines starting with
"#" are skipped.
"""

import errno
import fnmatch
import os
import sys
import threading
import time

from fusepy import FUSE, FuseOSError, Operations


class FaultFS(Operations):
    use_ns = True  # times pass as whole nanoseconds, at full precision

    def __init__(self, root, rules_path):
        self.root = os.path.realpath(root)
        self.rules_path = rules_path
        self.rules = []
        self.rules_stamp = None
        self.rules_lock = threading.Lock()

    # -- rules

    def _load_rules(self):
        try:
            status = os.stat(self.rules_path)
            stamp = (status.st_mtime_ns, status.st_size, status.st_ino)
        except FileNotFoundError:
            stamp = None
        with self.rules_lock:
            if stamp == self.rules_stamp:
                return self.rules
            rules = []
            if stamp is not None:
                with open(self.rules_path, encoding="utf-8", errors="surrogateescape") as f:
                    for line in f:
                        parts = line.strip().split(None, 2)
                        if len(parts) != 3 or parts[0].startswith("#"):
                            continue
                        value = int(parts[1]) if parts[1].isdigit() else getattr(errno, parts[1], errno.EIO)
                        rules.append((parts[0], value, parts[2]))
            self.rules, self.rules_stamp = rules, stamp
            return rules

    def _check(self, operation, path):
        for rule_operation, number, pattern in self._load_rules():
            if rule_operation == operation and fnmatch.fnmatchcase(path, pattern):
                raise FuseOSError(number)

    def _full(self, path):
        return os.path.join(self.root, path.lstrip("/"))

    # -- the file system

    def getattr(self, path, fh=None):
        self._check("lookup", path)
        status = os.lstat(self._full(path))
        keys = ("st_mode", "st_nlink", "st_uid", "st_gid", "st_size", "st_atime", "st_mtime", "st_ctime",
                "st_blocks")
        result = {key: getattr(status, key) for key in keys}
        for key in ("st_atime", "st_mtime", "st_ctime"):
            result[key] = getattr(status, key + "_ns")
        return result

    def readdir(self, path, fh):
        self._check("list", path)
        return [".", ".."] + os.listdir(self._full(path))

    def readlink(self, path):
        return os.readlink(self._full(path))

    def statfs(self, path):
        status = os.statvfs(self._full(path))
        keys = ("f_bavail", "f_bfree", "f_blocks", "f_bsize", "f_favail", "f_ffree", "f_files", "f_flag",
                "f_frsize", "f_namemax")
        return {key: getattr(status, key) for key in keys}

    def access(self, path, mode):
        self._check("lookup", path)
        if not os.access(self._full(path), mode):
            raise FuseOSError(errno.EACCES)

    def chmod(self, path, mode):
        self._check("chmod", path)
        os.chmod(self._full(path), mode)

    def chown(self, path, uid, gid):
        self._check("chown", path)
        os.lchown(self._full(path), uid, gid)

    def utimens(self, path, times=None):
        self._check("utimens", path)
        if times is None:
            os.utime(self._full(path), follow_symlinks=False)
        else:
            os.utime(self._full(path), ns=(int(times[0]), int(times[1])), follow_symlinks=False)

    def mkdir(self, path, mode):
        self._check("mkdir", path)
        os.mkdir(self._full(path), mode)

    def rmdir(self, path):
        self._check("rmdir", path)
        os.rmdir(self._full(path))

    def unlink(self, path):
        self._check("unlink", path)
        os.unlink(self._full(path))

    def symlink(self, target, source):
        os.symlink(source, self._full(target))

    def rename(self, old, new):
        self._check("rename", old)
        os.rename(self._full(old), self._full(new))

    def link(self, target, source):
        os.link(self._full(source), self._full(target))

    def open(self, path, flags):
        self._check("open", path)
        return os.open(self._full(path), flags & ~os.O_CREAT)

    def create(self, path, mode, fi=None):
        self._check("create", path)
        return os.open(self._full(path), os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode)

    def read(self, path, length, offset, fh):
        self._check("read", path)
        for rule_operation, milliseconds, pattern in self._load_rules():
            if rule_operation == "slow" and fnmatch.fnmatchcase(path, pattern):
                time.sleep(milliseconds / 1000)
        return os.pread(fh, length, offset)

    def write(self, path, data, offset, fh):
        self._check("write", path)
        return os.pwrite(fh, data, offset)

    def truncate(self, path, length, fh=None):
        self._check("write", path)
        if fh is not None:
            os.ftruncate(fh, length)
        else:
            os.truncate(self._full(path), length)

    def flush(self, path, fh):
        return 0

    def release(self, path, fh):
        os.close(fh)
        return 0

    def fsync(self, path, datasync, fh):
        self._check("fsync", path)
        if datasync:
            os.fdatasync(fh)
        else:
            os.fsync(fh)
        return 0

    def getxattr(self, path, name, position=0):
        try:
            return os.getxattr(self._full(path), name, follow_symlinks=False)
        except OSError as error:
            raise FuseOSError(error.errno or errno.ENODATA)

    def listxattr(self, path):
        return os.listxattr(self._full(path), follow_symlinks=False)

    def setxattr(self, path, name, value, options, position=0):
        self._check("setxattr", path)
        os.setxattr(self._full(path), name, value, options, follow_symlinks=False)

    def removexattr(self, path, name):
        os.removexattr(self._full(path), name, follow_symlinks=False)


def main():
    if len(sys.argv) != 4:
        sys.stderr.write(__doc__)
        return 2
    root, mountpoint, rules = sys.argv[1:]
    FUSE(FaultFS(root, rules), mountpoint, foreground=True, nothreads=False, allow_other=True,
         default_permissions=True, nonempty=True, direct_io=True, fsname="faultfs", subtype="faultfs", attr_timeout=0, entry_timeout=0)
    return 0


if __name__ == "__main__":
    sys.exit(main())
