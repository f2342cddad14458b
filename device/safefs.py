# Host-side access to a device's run directory that never follows a link.
#
# The run directory is writable from inside the device, and the code that
# reads and writes it on the host runs as root: a link planted from inside
# (a file, or a whole directory such as sim/ replaced by a link to "/") must
# not lead a host-side helper to a host file.  Every path is walked one
# component at a time from the run directory with O_NOFOLLOW, every
# directory is opened with O_DIRECTORY, and only regular files are read or
# written (a planted FIFO or device node is refused too, without blocking).
#
# The device runs as an unprivileged host user that owns the run directory;
# whatever a host-side helper creates or writes inside it is given to the
# run directory's owner, so that the device can change it as its own.
# Mount sources for the sandbox are opened the same way (open_dir,
# open_node) and handed to bubblewrap by descriptor.
import errno
import os
import shutil
import stat

_DIR_FLAGS = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC


class UnsafePath(OSError):
    """A component of the path is a link or not of the expected kind."""


def _parts(rel):
    parts = [p for p in rel.split("/") if p not in ("", ".")]
    if not parts or ".." in parts:
        raise ValueError("not a path inside the run directory: %r" % rel)
    return parts


def _refuse(e, root, rel):
    return UnsafePath(e.errno, "refusing to follow %s in %s: a link or not "
                      "of the expected kind" % (rel, root))


def _give(fd, owner):
    """Gives the open file or directory fd to owner (uid, gid) unless it
    is already its, or a file with several names (not all of them need be
    the device's)."""
    st = os.fstat(fd)
    if (st.st_uid, st.st_gid) != owner and \
            (stat.S_ISDIR(st.st_mode) or st.st_nlink == 1):
        os.fchown(fd, *owner)


def _owner(fd):
    st = os.fstat(fd)
    return st.st_uid, st.st_gid


def _open_dir(root, parts, create=False):
    """Descriptor of the directory root/parts..., walked without links.
    Directories it creates belong to root's owner."""
    fd = os.open(root, _DIR_FLAGS)
    owner = _owner(fd) if create else None
    try:
        for i, p in enumerate(parts):
            try:
                nfd = os.open(p, _DIR_FLAGS, dir_fd=fd)
            except FileNotFoundError:
                if not create:
                    raise
                try:
                    os.mkdir(p, 0o755, dir_fd=fd)
                except FileExistsError:
                    pass
                try:
                    nfd = os.open(p, _DIR_FLAGS, dir_fd=fd)
                except OSError as e:
                    if e.errno in (errno.ELOOP, errno.ENOTDIR):
                        raise _refuse(e, root, "/".join(parts[:i + 1]))
                    raise
                _give(nfd, owner)
            except OSError as e:
                if e.errno in (errno.ELOOP, errno.ENOTDIR):
                    raise _refuse(e, root, "/".join(parts[:i + 1]))
                raise
            os.close(fd)
            fd = nfd
        return fd
    except BaseException:
        os.close(fd)
        raise


def open_dir(root, rel=""):
    """Descriptor of the directory root/rel (root itself for ""), reached
    without following any link: a link or anything but a directory is
    refused (UnsafePath).  For a bind mount by descriptor; the caller
    closes it."""
    return _open_dir(root, _parts(rel) if rel.strip("/.") else [])


def open_node(root, rel, directory_ok=False):
    """O_PATH descriptor of the regular file root/rel, reached without
    following any link: a link, FIFO, device node or directory (unless
    directory_ok) is refused (UnsafePath).  For a bind mount by
    descriptor; the caller closes it."""
    parts = _parts(rel)
    dfd = _open_dir(root, parts[:-1])
    try:
        fd = os.open(parts[-1], os.O_PATH | os.O_NOFOLLOW | os.O_CLOEXEC,
                     dir_fd=dfd)
    finally:
        os.close(dfd)
    mode = os.fstat(fd).st_mode
    if not (stat.S_ISREG(mode) or directory_ok and stat.S_ISDIR(mode)):
        os.close(fd)
        raise UnsafePath(errno.EINVAL, "refusing to follow %s in %s: a link "
                         "or not a regular file" % (rel, root))
    return fd


def chown_tree(root, owner):
    """Gives root and everything below it to owner (uid, gid), never
    following a link (a link itself changes owner); a file with several
    names is left as it is."""
    stack = [os.open(root, _DIR_FLAGS)]
    try:
        _give(stack[0], owner)
        while stack:
            fd = stack.pop()
            try:
                for name in os.listdir(fd):
                    try:
                        st = os.stat(name, dir_fd=fd, follow_symlinks=False)
                        if stat.S_ISDIR(st.st_mode):
                            sub = os.open(name, _DIR_FLAGS, dir_fd=fd)
                            stack.append(sub)
                            _give(sub, owner)
                        elif (st.st_uid, st.st_gid) != owner and \
                                st.st_nlink == 1:
                            os.chown(name, *owner, dir_fd=fd,
                                     follow_symlinks=False)
                    except (FileNotFoundError, NotADirectoryError):
                        continue  # changed meanwhile: the device's own
                    except OSError as e:
                        if e.errno != errno.ELOOP:
                            raise
            finally:
                os.close(fd)
    finally:
        for fd in stack:
            os.close(fd)


def open_file(root, rel, flags, mode=0o644, create_dirs=False):
    """os.open of root/rel without following any link; the result is a
    descriptor of a regular file."""
    parts = _parts(rel)
    dfd = _open_dir(root, parts[:-1], create_dirs)
    try:
        try:
            fd = os.open(parts[-1], flags | os.O_NOFOLLOW | os.O_CLOEXEC |
                         os.O_NONBLOCK, mode, dir_fd=dfd)
        except OSError as e:
            if e.errno == errno.ELOOP:
                raise _refuse(e, root, rel)
            if e.errno == errno.ENXIO:  # a FIFO nobody reads
                raise UnsafePath(e.errno, "not a regular file: %s" % rel)
            raise
        if flags & (os.O_WRONLY | os.O_RDWR) and \
                stat.S_ISREG(os.fstat(fd).st_mode):
            st = os.stat(root)
            _give(fd, (st.st_uid, st.st_gid))
    finally:
        os.close(dfd)
    if not stat.S_ISREG(os.fstat(fd).st_mode):
        os.close(fd)
        raise UnsafePath(errno.EINVAL, "not a regular file: %s" % rel)
    os.set_blocking(fd, True)
    return fd


def read_bytes(root, rel):
    fd = open_file(root, rel, os.O_RDONLY)
    with os.fdopen(fd, "rb") as f:
        return f.read()


def read_text(root, rel):
    return read_bytes(root, rel).decode("utf-8", "surrogateescape")


def write_bytes(root, rel, data, mode=None, append=False, create_dirs=True):
    flags = os.O_WRONLY | os.O_CREAT | (os.O_APPEND if append else os.O_TRUNC)
    fd = open_file(root, rel, flags, 0o644 if mode is None else mode,
                   create_dirs=create_dirs)
    with os.fdopen(fd, "wb") as f:
        f.write(data)
        if mode is not None:
            os.fchmod(f.fileno(), mode)


def write_text(root, rel, text, mode=None, append=False, create_dirs=True):
    write_bytes(root, rel, text.encode("utf-8", "surrogateescape"), mode,
                append, create_dirs)


def lexists(root, rel):
    parts = _parts(rel)
    try:
        dfd = _open_dir(root, parts[:-1])
    except (FileNotFoundError, UnsafePath, NotADirectoryError):
        return False
    try:
        os.stat(parts[-1], dir_fd=dfd, follow_symlinks=False)
        return True
    except FileNotFoundError:
        return False
    finally:
        os.close(dfd)


def is_file(root, rel):
    """True when root/rel is a regular file reached without links."""
    try:
        os.close(open_file(root, rel, os.O_RDONLY))
        return True
    except (FileNotFoundError, UnsafePath, NotADirectoryError):
        return False


def unlink(root, rel):
    """Removes root/rel (a link itself, never its target); missing is fine."""
    parts = _parts(rel)
    try:
        dfd = _open_dir(root, parts[:-1])
    except FileNotFoundError:
        return
    try:
        os.unlink(parts[-1], dir_fd=dfd)
    except FileNotFoundError:
        pass
    finally:
        os.close(dfd)


def makedirs(root, rel):
    os.close(_open_dir(root, _parts(rel), create=True))


def listdir(root, rel):
    fd = _open_dir(root, _parts(rel))
    try:
        return os.listdir(fd)
    finally:
        os.close(fd)


def copy_in(root, rel, src, mode=None):
    """Copies the host file src to root/rel (file mode kept unless given)."""
    with open(src, "rb") as f:
        data = f.read()
    write_bytes(root, rel, data,
                mode if mode is not None else stat.S_IMODE(os.stat(src).st_mode))


# ---- launching a sandbox with its mount sources by descriptor ----------------
#
# bubblewrap binds a descriptor (--bind-fd) by resolving the descriptor's path
# again as the user it runs as; the sandbox user may not search the host
# directories above a run directory (pytest's, for one).  So the launcher,
# run as root in the device's network namespace, enters a private mount
# namespace (the host's mount table is not touched), opens every source as
# above (no link followed, the expected kind), binds what it opened onto a
# staging tmpfs laid over /tmp of that namespace, becomes the sandbox user
# and execs bubblewrap, which binds the staged paths: what is mounted is
# what was opened.  A program to exec that lives under /tmp (a tree cloned
# there) keeps its top directory under /tmp, bound again over the tmpfs.
#
#   safefs.py launch RUN UID GID N KIND PATH ... -- ARGV...
#       N sources as KIND PATH pairs, source i staged at STAGE/i.  KIND:
#       "dir", "file" (RUN-relative), "node" (RUN-relative, file or
#       directory), "host" (a host path the caller chose, opened as it is).
#       ARGV is then executed as UID:GID.

STAGE = "/tmp/.simdevice-stage"
_CLONE_NEWNS = 0x00020000
_MS_BIND, _MS_REC, _MS_PRIVATE = 0x1000, 0x4000, 0x40000


def open_source(run, kind, path):
    """Descriptor of one mount source (see launch)."""
    if kind == "dir":
        return open_dir(run, path)
    if kind == "file":
        return open_node(run, path)
    if kind == "node":
        return open_node(run, path, directory_ok=True)
    if kind == "host":
        return os.open(path, os.O_PATH | os.O_CLOEXEC)
    raise ValueError("unknown mount source kind %r" % kind)


def launch_argv(python, run, ids, sources, argv):
    """The launcher's command line (see above)."""
    out = [python, "-S", os.path.abspath(__file__), "launch", run,
           str(ids[0]), str(ids[1]), str(len(sources))]
    for kind, path in sources:
        out += [kind, path]
    return out + ["--"] + list(argv)


def _parse_launch(args):
    run, uid, gid, n = args[0], int(args[1]), int(args[2]), int(args[3])
    pairs = args[4:4 + 2 * n]
    if args[4 + 2 * n] != "--":
        raise ValueError("malformed launch arguments")
    return {"run": run, "ids": (uid, gid),
            "sources": list(zip(pairs[0::2], pairs[1::2])),
            "argv": args[5 + 2 * n:]}


def _kept_tmp_dir(program):
    """/tmp/NAME when the program (a path, or a name looked up in PATH)
    lives below the directory /tmp/NAME, else None."""
    path = program if "/" in program else shutil.which(program)
    if not path:
        return None
    parts = os.path.realpath(path).split("/")
    if len(parts) < 4 or parts[1] != "tmp" or \
            "/tmp/" + parts[2] == STAGE:
        return None
    return "/tmp/" + parts[2]


def launch(spec):
    import ctypes
    libc = ctypes.CDLL(None, use_errno=True)

    def check(ret, what):
        if ret != 0:
            e = ctypes.get_errno()
            raise OSError(e, "%s: %s" % (what, os.strerror(e)))

    check(libc.unshare(_CLONE_NEWNS), "unshare")
    check(libc.mount(None, b"/", None, _MS_REC | _MS_PRIVATE, None),
          "private mounts")
    # opened in this namespace (a bind takes its source from the caller's)
    fds = [open_source(spec["run"], kind, path)
           for kind, path in spec["sources"]]
    # the program run at the end, when it lives under /tmp (a tree cloned
    # there): the staging tmpfs would hide it, so its top directory under
    # /tmp is opened now and bound again at its place
    kept = _kept_tmp_dir(spec["argv"][0])
    kept_fd = os.open(kept, os.O_PATH | os.O_DIRECTORY | os.O_NOFOLLOW |
                      os.O_CLOEXEC) if kept else None
    check(libc.mount(b"tmpfs", b"/tmp", b"tmpfs", 0, b"mode=755"),
          "staging tmpfs")
    if kept_fd is not None:
        os.mkdir(kept, 0o755)
        check(libc.mount(("/proc/self/fd/%d" % kept_fd).encode(),
                         kept.encode(), None, _MS_BIND | _MS_REC, None),
              "bind " + kept)
        os.close(kept_fd)
    os.mkdir(STAGE, 0o755)
    for i, fd in enumerate(fds):
        target = "%s/%d" % (STAGE, i)
        if stat.S_ISDIR(os.fstat(fd).st_mode):
            os.mkdir(target, 0o755)
        else:
            os.close(os.open(target, os.O_WRONLY | os.O_CREAT | os.O_CLOEXEC,
                             0o644))
        check(libc.mount(("/proc/self/fd/%d" % fd).encode(), target.encode(),
                         None, _MS_BIND | _MS_REC, None), "bind " + target)
        os.close(fd)
    uid, gid = spec["ids"]
    if (uid, gid) != (0, 0):
        os.setgroups([])
        os.setresgid(gid, gid, gid)
        os.setresuid(uid, uid, uid)  # drops every capability
    argv = spec["argv"]
    os.execvp(argv[0], argv)


if __name__ == "__main__":
    import sys
    if len(sys.argv) > 6 and sys.argv[1] == "launch":
        try:
            launch(_parse_launch(sys.argv[2:]))
        except UnsafePath as e:
            sys.stderr.write("simdevice: %s\n" % e.strerror)
        except OSError as e:
            sys.stderr.write("simdevice: cannot start the sandbox: %s\n" % e)
        sys.exit(1)
    sys.stderr.write("usage: safefs.py launch RUN UID GID N KIND PATH ... "
                     "-- ARGV...\n")
    sys.exit(2)
