"""The device server's command line (server/device_server.py runs it)."""
import argparse
import time

from .api import DEFAULT_PING_INTERVAL, DeviceServer
from .tour import run_tour


def main(argv=None):
    ap = argparse.ArgumentParser(description="Test device server for the korvat-cloud agent")
    ap.add_argument("--port", type=int, default=0, help="TCP port (default: ephemeral)")
    ap.add_argument("--host", default="127.0.0.1")
    ap.add_argument("--path", default="", help="path shown in the URL")
    ap.add_argument("--tls", action="store_true", help="serve wss:// with a self-signed certificate")
    ap.add_argument("--ping-interval", type=float, default=None,
                    help="seconds between pings (default 20, or 2 with --tour)")
    ap.add_argument("--tour", action="store_true", help="send the demonstration requests")
    ap.add_argument("--once", action="store_true", help="exit after the tour")
    ap.add_argument("--timeout", type=float, default=60.0, help="time limit of the tour")
    ap.add_argument("--log-file", default=None, help="also write the frame log here")
    ap.add_argument("--url-file", default=None, help="write the server URL into this file")
    ap.add_argument("--device-run", default=None, metavar="RUNDIR",
                    help="run directory of the simulated device the agent runs in: the "
                         "tour then also shows every request family, the device's UCI "
                         "changes, the agent's messages and a reboot")
    ap.add_argument("--upnp-gateway", default=None, metavar="URL",
                    help="root description URL of the device's UPnP gateway: the tour "
                         "then also opens and closes remote access")
    args = ap.parse_args(argv)

    interval = args.ping_interval
    if interval is None:
        interval = 2.0 if args.tour else DEFAULT_PING_INTERVAL
    server = DeviceServer(port=args.port, host=args.host, tls=args.tls,
                          ping_interval=interval, url_path=args.path,
                          log_file=args.log_file, echo=True)
    server.start()
    print("device server URL: %s" % server.url, flush=True)
    if args.url_file:
        with open(args.url_file, "w") as fh:
            fh.write(server.url + "\n")
    status = 0
    try:
        if args.tour:
            try:
                ok = run_tour(server, args.timeout, args.device_run, args.upnp_gateway)
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
        server.stop()
    return status
