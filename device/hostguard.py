# Host safety check for sandboxed device runs: snapshot the host state that
# a device run could touch (kernel printk level, /etc, /mnt, the device's
# /tmp names, mounts, hostname) and start decoy processes named like device
# programs; afterwards report every difference and every signalled decoy.
import os
import shutil
import subprocess
import tempfile

# /tmp names the agent and the device tools use.
DEVICE_TMP_NAMES = ["cloud_conn_state", "cloud_timer_pid", "cEvtLog",
                    "cloud_log_file", "luci_reload_cmd", "ps.txt",
                    "ts_autoupdate", ".uci", "luci-sessions", "resolv.conf",
                    "resolv.conf.auto"]


def _stat(path):
    try:
        st = os.lstat(path)
    except OSError:
        return None
    link = os.readlink(path) if os.path.islink(path) else None
    return (st.st_mode, st.st_size, st.st_mtime_ns, st.st_ino, link)


def snapshot_tree(root):
    """{relative path: stat summary} of every entry under root."""
    out = {"": _stat(root)}
    for dirpath, dirnames, filenames in os.walk(root):
        for name in dirnames + filenames:
            p = os.path.join(dirpath, name)
            out[os.path.relpath(p, root)] = _stat(p)
    return out


def _read(path):
    try:
        with open(path) as f:
            return f.read()
    except OSError as e:
        return "<%s>" % e


# Kernel settings a device run must not change.
PROC_SYS = ["kernel/printk", "kernel/printk_ratelimit", "kernel/hostname",
            "kernel/domainname", "kernel/sysrq", "kernel/panic",
            "vm/drop_caches", "net/ipv4/ip_forward"]


def _proc_sys():
    return {k: _read("/proc/sys/" + k) for k in PROC_SYS}


def _mount_points():
    with open("/proc/self/mountinfo") as f:
        return sorted(line.split()[4] for line in f)


class HostGuard:
    """Usage:
        with HostGuard(device) as guard:
            ... run the device ...
            assert guard.problems() == []
    `device` (optional) is a simdevice.Device: every name found in its /tmp
    after the run is also checked on the host (/etc is checked whole)."""

    def __init__(self, device=None, decoys=("korvat-cloud",),
                 tmp_names=DEVICE_TMP_NAMES):
        self.device = device
        # The sandbox user is created on first use (/etc/passwd changes
        # then): before the snapshot, not during the guarded run.
        import simdevice
        simdevice.sandbox_ids()
        self.decoy_dir = tempfile.mkdtemp(prefix="hostguard-")
        self.decoys = {}
        for name in decoys:
            exe = os.path.join(self.decoy_dir, name)
            shutil.copy2("/bin/sleep", exe)
            self.decoys[name] = subprocess.Popen([exe, "3600"],
                                                 start_new_session=True)
        self.tmp_names = list(tmp_names)
        self.sysctl = _proc_sys()
        self.hostname = os.uname().nodename
        self.etc = snapshot_tree("/etc")
        self.mnt = snapshot_tree("/mnt")
        self.tmp = {n: _stat(os.path.join("/tmp", n))
                    for n in os.listdir("/tmp")}
        self.mounts = _mount_points()

    def problems(self):
        """List of texts, one per change found on the host (empty = safe)."""
        out = []
        now = _proc_sys()
        for k in PROC_SYS:
            if now[k] != self.sysctl[k]:
                out.append("host /proc/sys/%s changed: %r -> %r"
                           % (k, self.sysctl[k], now[k]))
        if os.uname().nodename != self.hostname:
            out.append("host name changed to %s" % os.uname().nodename)
        for root, before in (("/etc", self.etc), ("/mnt", self.mnt)):
            after = snapshot_tree(root)
            for rel in sorted(set(before) | set(after)):
                if before.get(rel) != after.get(rel):
                    out.append("host %s changed" % os.path.join(root, rel))
        names = set(self.tmp_names)
        if self.device is not None:
            names |= set(self.device.listdir("/tmp"))
        for n in sorted(names):
            if _stat(os.path.join("/tmp", n)) != self.tmp.get(n):
                out.append("host /tmp/%s changed" % n)
        if _mount_points() != self.mounts:
            out.append("host mount table changed")
        for name, p in self.decoys.items():
            if p.poll() is not None:
                out.append("host process %s was killed (status %s)"
                           % (name, p.returncode))
            elif _read("/proc/%d/stat" % p.pid).split(")")[-1].split()[:1] \
                    in (["T"], ["t"]):
                out.append("host process %s was stopped" % name)
        return out

    def close(self):
        for p in self.decoys.values():
            if p.poll() is None:
                p.kill()
            p.wait()
        shutil.rmtree(self.decoy_dir, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
