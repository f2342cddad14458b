#!/usr/bin/python3
"""Test device-management server for the korvat-cloud agent.

A WebSocket server (ws:// or wss://, subprotocol "nimb-protocol") that the
agent connects to, with a synchronous API for pytest and a command line for
demonstrations.  The code lives in the devserver package beside this file
(devserver/__init__.py lists its modules); this module keeps the names the
suites import and the command line:

    /usr/bin/python3 server/device_server.py [--port N] [--tls] [--ping-interval S]
                                             [--tour] [--once] [--timeout S]
                                             [--device-run RUNDIR] [--upnp-gateway URL]
"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from devserver.api import (DEFAULT_PING_INTERVAL, DeviceServer, Message,  # noqa: E402,F401
                           Reply)
from devserver.cli import main  # noqa: E402,F401
from devserver.tour import TourFailed, run_tour  # noqa: E402,F401
from devserver.wire import (OP_PING, OP_PONG, OP_TEXT, SUBPROTOCOL,  # noqa: E402,F401
                            Connection, FrameLog)

if __name__ == "__main__":
    sys.exit(main())
