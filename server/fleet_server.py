#!/usr/bin/python3
"""The device server of a fleet of simulated access points: the bundled
device server with per-device state and the scenarios' hooks, commanded by
the fleet's runner over a Unix socket (devserver/fleet.py, fleet/README.md).

    /usr/bin/python3 server/fleet_server.py --control SOCKET [--host H] [--port N]
                                            [--tls] [--ping-interval S]
"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from devserver.fleet import main  # noqa: E402

if __name__ == "__main__":
    sys.exit(main())
