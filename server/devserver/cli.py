"""The device server's command line (server/device_server.py runs it).

Modes:
  (default)       listen, ping, log every frame; --tour sends the
                  demonstration requests (--once: then exit)
  --request       send one request (METHOD PARAMS) or JSON lines from
                  standard input (--request -) to the device named by its
                  MAC, print each reply on a line of its own, exit
  --console       the web console (devserver/console.py) with its SQLite
                  store, until Ctrl-C
Everywhere: --tls with a self-signed certificate, or --cert/--key with
one's own; --history FILE writes every frame as a JSON line; --netns PATH
(repeatable) listens in network namespaces instead of this process's own.
"""
import argparse
import json
import os
import signal
import sys
import time

from .api import DEFAULT_PING_INTERVAL, DeviceServer
from .tour import run_tour

EXIT_RESULT, EXIT_ERROR_REPLY, EXIT_FAILED = 0, 1, 2


def _parser():
    ap = argparse.ArgumentParser(
        description="Device server for the korvat-cloud agent: demonstration tour, "
                    "requests from the command line, web console",
        formatter_class=argparse.RawDescriptionHelpFormatter, epilog=__doc__.split("\n\n", 1)[1])
    ap.add_argument("--port", type=int, default=0, help="TCP port (default: ephemeral)")
    ap.add_argument("--host", default="127.0.0.1")
    ap.add_argument("--path", default="", help="path shown in the URL")
    ap.add_argument("--tls", action="store_true",
                    help="serve wss:// (a self-signed certificate unless --cert/--key)")
    ap.add_argument("--cert", default=None, help="PEM certificate (chain) of the server; "
                    "implies --tls")
    ap.add_argument("--key", default=None, help="PEM private key of --cert")
    ap.add_argument("--netns", action="append", default=[], metavar="PATH",
                    help="listen in this network namespace (such as /proc/PID/ns/net of a "
                         "simulated device network's gateway); repeat for several, each "
                         "on --host and the same port")
    ap.add_argument("--ping-interval", type=float, default=None,
                    help="seconds between pings (default 20, or 2 with --tour)")
    ap.add_argument("--tour", action="store_true", help="send the demonstration requests")
    ap.add_argument("--once", action="store_true", help="exit after the tour")
    ap.add_argument("--timeout", type=float, default=60.0,
                    help="time limit of the tour, or of each --request (connection and reply)")
    ap.add_argument("--log-file", default=None, help="also write the frame log here")
    ap.add_argument("--quiet", action="store_true", help="do not print the frame log")
    ap.add_argument("--url-file", default=None, help="write the server URL into this file")
    ap.add_argument("--history", default=None, metavar="FILE",
                    help="append every frame seen, one JSON object a line (devserver/history.py)")
    ap.add_argument("--device-run", default=None, metavar="RUNDIR",
                    help="run directory of the simulated device the agent runs in: the "
                         "tour then also shows every request family, the device's UCI "
                         "changes, the agent's messages and a reboot")
    ap.add_argument("--upnp-gateway", default=None, metavar="URL",
                    help="root description URL of the device's UPnP gateway: the tour "
                         "then also opens and closes remote access")
    ap.add_argument("--request", nargs="+", default=None, metavar="ARG",
                    help="METHOD [PARAMS-JSON]: send this request to the device (named by "
                         "--device or params.deviceId) once it is connected and print the "
                         "reply; '-': JSON lines {\"method\":..,\"params\":..} from standard "
                         "input, one reply line each.  Exit 0: result(s), 1: an error "
                         "reply, 2: no device, no reply or bad input")
    ap.add_argument("--device", default=None, metavar="MAC",
                    help="the device --request talks to (default: params.deviceId, else "
                         "the first one connected)")
    ap.add_argument("--console", action="store_true",
                    help="serve the web console (see server/README.md)")
    ap.add_argument("--console-host", default="127.0.0.1",
                    help="address of the console (default loopback; any other address "
                         "needs the token)")
    ap.add_argument("--console-port", type=int, default=8765, help="port of the console "
                    "(0: ephemeral)")
    ap.add_argument("--console-token", default=os.environ.get("KC_CONSOLE_TOKEN"),
                    help="token the console requires (default $KC_CONSOLE_TOKEN; made up "
                         "when the console is not on loopback and none is given)")
    ap.add_argument("--console-url-file", default=None,
                    help="write the console's URL into this file")
    ap.add_argument("--db", default=None, metavar="FILE",
                    help="SQLite file of the console (devices, status, events, logs, "
                         "requests); default ./korvat-console.sqlite")
    return ap


def _servers(args, interval, echo, retain):
    tls = args.tls or bool(args.cert)
    kw = dict(host=args.host, tls=tls, ping_interval=interval, url_path=args.path,
              log_file=args.log_file, echo=echo, certfile=args.cert,
              keyfile=args.key or args.cert, retain=retain)
    servers = []
    port = args.port
    for netns in args.netns or [None]:
        server = DeviceServer(port=port, netns=netns, **kw).start()
        port = server.port       # every namespace on the same port
        servers.append(server)
    return servers


def _say(text, to_stderr=False):
    print(text, file=sys.stderr if to_stderr else sys.stdout, flush=True)


def _find(servers, mac, deadline):
    """The open connection of the device `mac` (any device when None)."""
    while True:
        for server in servers:
            for conn in reversed(server.connections):
                if conn.is_open and (mac is None or (conn.origin or "").lower() == mac.lower()):
                    return server, conn
        if time.monotonic() > deadline:
            return None, None
        time.sleep(0.05)


def _one_request(servers, args, method, params, rid):
    mac = args.device or (params.get("deviceId") if isinstance(params, dict) else None)
    server, conn = _find(servers, mac, time.monotonic() + args.timeout)
    if conn is None:
        return None, "no device %s connected within %.0f s" % (mac or "", args.timeout)
    text = json.dumps({"jsonrpc": "2.0", "id": rid, "method": method, "params": params},
                      separators=(",", ":"))
    if server.protocol is not None and (server.protocol.method(method) or {}).get("x-streamed"):
        server.send_text(text, conn=conn)
        return None, None       # answered by streamed results, not a reply
    try:
        return server.request_raw(text, expect_id=rid, timeout=args.timeout, conn=conn), None
    except (TimeoutError, ConnectionError) as exc:
        return None, str(exc) or "no reply"


def _requests(servers, args):
    if args.request == ["-"]:
        items = []
        for n, line in enumerate(sys.stdin, 1):
            if not line.strip():
                continue
            try:
                obj = json.loads(line)
                if not isinstance(obj, dict) or not isinstance(obj.get("method"), str):
                    raise ValueError("needs an object with a \"method\"")
                items.append((obj["method"], obj.get("params", {}), str(obj.get("id", "cli-%d" % n)),
                              None))
            except ValueError as exc:
                items.append((None, None, None, "line %d: %s" % (n, exc)))
    else:
        method = args.request[0]
        try:
            params = json.loads(args.request[1]) if len(args.request) > 1 else {}
            problem = None if len(args.request) <= 2 else "--request takes METHOD [PARAMS]"
        except ValueError as exc:
            params, problem = None, "PARAMS is not JSON: %s" % exc
        items = [(method, params, "cli-1", problem)]
    status = EXIT_RESULT
    for method, params, rid, problem in items:
        if problem is None:
            reply, problem = _one_request(servers, args, method, params, rid)
        else:
            reply = None
        if problem is not None:
            _say(json.dumps({"error": problem}))
            status = EXIT_FAILED
        elif reply is not None:
            _say(reply.raw)
            if "error" in reply.data and status == EXIT_RESULT:
                status = EXIT_ERROR_REPLY
    return status


def _console(servers, args):
    from .console import Console
    from .devices import Devices
    from .protocol import Protocol
    from .store import Store
    protocol = Protocol()
    store = Store(args.db or "korvat-console.sqlite")
    devices = Devices(servers, store, protocol)
    console = Console(devices, protocol, host=args.console_host, port=args.console_port,
                      token=args.console_token).start()
    _say("console: %s" % console.url)
    if args.console_url_file:
        with open(args.console_url_file, "w") as fh:
            fh.write(console.url + "\n")
    return console, store


def main(argv=None):
    args = _parser().parse_args(argv)
    if args.key and not args.cert:
        _parser().error("--key needs --cert")
    # a plain kill ends the server as Ctrl-C does (files closed, store intact)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    interval = args.ping_interval
    if interval is None:
        interval = 2.0 if args.tour else DEFAULT_PING_INTERVAL
    quiet = args.quiet or args.request is not None
    servers = _servers(args, interval, echo=not quiet,
                       retain=not args.console)
    if args.request is not None:
        from .protocol import Protocol
        protocol = Protocol()
        for server in servers:
            server.protocol = server.protocol or protocol
    history = None
    if args.history:
        from .history import FrameHistory
        history = FrameHistory(args.history)
        for server in servers:
            server.add_observer(history)
    url = servers[0].url
    _say("device server URL: %s" % url, to_stderr=args.request is not None)
    if args.url_file:
        with open(args.url_file, "w") as fh:
            fh.write(url + "\n")
    console = store = None
    status = 0
    try:
        if args.console:
            console, store = _console(servers, args)
        if args.request is not None:
            return _requests(servers, args)
        if args.tour:
            try:
                ok = run_tour(servers[0], args.timeout, args.device_run, args.upnp_gateway)
            except (TimeoutError, ConnectionError) as exc:
                print("tour failed: %s" % exc, flush=True)
                ok = False
            if args.once:
                status = 0 if ok else 1
                # let the agent record the answered ping before the
                # connection goes away with the server
                time.sleep(1.0)
                return status
        while True:
            time.sleep(1)
    except KeyboardInterrupt:
        pass
    finally:
        if console is not None:
            console.stop()
        for server in servers:
            server.stop()
        if store is not None:
            store.close()
        if history is not None:
            history.close()
    return status
