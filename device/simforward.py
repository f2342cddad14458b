#!/usr/bin/python3
# A TCP forward from a simulated network to one server the user names.
#
# Devices never share the host's network (README.md, Network).  To let the
# agent reach a server outside (a cloud team's staging server, or one on
# the host's loopback), this forward listens on one address and port inside
# a namespace of the simulation -- a device's gateway namespace
# (192.168.1.1, `run-device net-up --forward`) or the fleet's switch
# namespace (fleet/) -- and connects each accepted connection, from the
# host's own network namespace, to that one host and port, copying bytes
# both ways unchanged (TLS passes through: the agent talks to the server
# itself).  Nothing else is routed: the devices still have no route to the
# host's network, and the forward reaches no other address.
#
#   simforward.py --netns PATH --listen ADDR:PORT --to HOST:PORT [--ready-fd N]
#
# --netns is the namespace to listen in (a /proc/PID/ns/net or
# /proc/PID/fd/N path); --to is resolved in the host's namespace at each
# connection.  It writes "ready\n" to --ready-fd (or standard output) once
# it listens, and runs until killed (or, with --parent-pipe N, until that
# descriptor reaches end of file).
import argparse
import asyncio
import ctypes
import os
import socket
import sys

CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def listen_in(netns, host, port):
    """A listening TCP socket made inside the namespace at netns (this
    thread returns to its own namespace afterwards)."""
    back = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
    target = os.open(netns, os.O_RDONLY | os.O_CLOEXEC)
    try:
        if _libc.setns(target, CLONE_NEWNET) != 0:
            err = ctypes.get_errno()
            raise OSError(err, "cannot enter %s: %s" % (netns, os.strerror(err)))
        try:
            sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            sock.bind((host, port))
            sock.listen(1024)
            sock.setblocking(False)
        finally:
            if _libc.setns(back, CLONE_NEWNET) != 0:
                os._exit(70)  # cannot go back: never run on in the wrong network
    finally:
        os.close(target)
        os.close(back)
    return sock


def needs_name(host):
    """True when the device should resolve host to the forward's address:
    a name, but not an address literal and not a name of the device's own
    loopback (which must stay the device's; the agent then uses the
    forward's address itself)."""
    import ipaddress
    if host == "localhost" or host.endswith(".localhost"):
        return False
    try:
        ipaddress.ip_address(host)
        return False
    except ValueError:
        return True


def point_name(run, name, address):
    """Makes `name` resolve to `address` inside the device of run
    directory `run`: the first line of its /etc/hosts (the first line
    naming it is the one taken), written without following a link."""
    sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
    import safefs
    try:
        text = safefs.read_text(run, "etc/hosts")
    except FileNotFoundError:
        text = ""
    line = "%s\t%s\n" % (address, name)
    if not text.startswith(line):
        safefs.write_text(run, "etc/hosts", line + text)


def split_hostport(text):
    host, sep, port = text.rpartition(":")
    if not sep or not host or not port.isdigit() or not 0 < int(port) < 65536:
        raise ValueError("want HOST:PORT, got %r" % text)
    return host.strip("[]"), int(port)


async def _pipe(reader, writer):
    try:
        while True:
            data = await reader.read(65536)
            if not data:
                break
            writer.write(data)
            await writer.drain()
    except (ConnectionError, OSError):
        pass
    finally:
        try:
            if writer.can_write_eof():
                writer.write_eof()
            else:
                writer.close()
        except (ConnectionError, OSError, RuntimeError):
            pass


class Counts:
    def __init__(self):
        self.accepted = 0
        self.failed = 0


async def serve(sock, to_host, to_port, counts):
    async def handle(reader, writer):
        counts.accepted += 1
        try:
            up_reader, up_writer = await asyncio.open_connection(to_host, to_port)
        except OSError:
            counts.failed += 1
            writer.close()
            return
        await asyncio.gather(_pipe(reader, up_writer), _pipe(up_reader, writer))
        for w in (writer, up_writer):
            try:
                w.close()
            except Exception:
                pass

    server = await asyncio.start_server(handle, sock=sock)
    async with server:
        await server.serve_forever()


def main(argv=None):
    ap = argparse.ArgumentParser(description="TCP forward from a simulated network "
                                             "to one host and port")
    ap.add_argument("--netns", required=True, help="namespace to listen in")
    ap.add_argument("--listen", required=True, metavar="ADDR:PORT")
    ap.add_argument("--to", required=True, metavar="HOST:PORT")
    ap.add_argument("--ready-fd", type=int, default=1)
    ap.add_argument("--parent-pipe", type=int, default=None,
                    help="end when this descriptor reaches end of file")
    a = ap.parse_args(argv)
    lhost, lport = split_hostport(a.listen)
    thost, tport = split_hostport(a.to)
    sock = listen_in(a.netns, lhost, lport)
    os.write(a.ready_fd, b"ready\n")
    if a.ready_fd != 1:
        os.close(a.ready_fd)
    try:
        asyncio.run(_main(sock, thost, tport, a.parent_pipe))
    except KeyboardInterrupt:
        pass
    return 0


async def _main(sock, host, port, parent_pipe):
    loop = asyncio.get_running_loop()
    ended = loop.create_future()
    if parent_pipe is not None:
        def readable():
            try:
                data = os.read(parent_pipe, 64)
            except OSError:
                data = b""
            if not data and not ended.done():
                ended.set_result(None)
        loop.add_reader(parent_pipe, readable)
    task = asyncio.ensure_future(serve(sock, host, port, Counts()))
    await asyncio.wait([task, ended], return_when=asyncio.FIRST_COMPLETED)
    task.cancel()
    await asyncio.gather(task, return_exceptions=True)


if __name__ == "__main__":
    sys.exit(main())
