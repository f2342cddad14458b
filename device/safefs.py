# Host-side access to a device's run directory that never follows a link.
#
# The run directory is writable from inside the device, and the code that
# reads and writes it on the host runs as root: a link planted from inside
# (a file, or a whole directory such as sim/ replaced by a link to "/") must
# not lead a host-side helper to a host file.  Every path is walked one
# component at a time from the run directory with O_NOFOLLOW, every
# directory is opened with O_DIRECTORY, and only regular files are read or
# written (a planted FIFO or device node is refused too, without blocking).
import errno
import os
import stat

_DIR_FLAGS = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC


class UnsafePath(OSError):
    """A component of the path is a link or not of the expected kind."""


def _parts(rel):
    parts = [p for p in rel.split("/") if p not in ("", ".")]
    if not parts or ".." in parts:
        raise ValueError("not a path inside the run directory: %r" % rel)
    return parts


def _open_dir(root, parts, create=False):
    """Descriptor of the directory root/parts..., walked without links."""
    fd = os.open(root, _DIR_FLAGS)
    try:
        for p in parts:
            try:
                nfd = os.open(p, _DIR_FLAGS, dir_fd=fd)
            except FileNotFoundError:
                if not create:
                    raise
                try:
                    os.mkdir(p, 0o755, dir_fd=fd)
                except FileExistsError:
                    pass
                nfd = os.open(p, _DIR_FLAGS, dir_fd=fd)
            except OSError as e:
                if e.errno in (errno.ELOOP, errno.ENOTDIR):
                    raise UnsafePath(e.errno, "refusing to follow %s" % p)
                raise
            os.close(fd)
            fd = nfd
        return fd
    except BaseException:
        os.close(fd)
        raise


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
                raise UnsafePath(e.errno, "refusing to follow %s" % rel)
            if e.errno == errno.ENXIO:  # a FIFO nobody reads
                raise UnsafePath(e.errno, "not a regular file: %s" % rel)
            raise
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
