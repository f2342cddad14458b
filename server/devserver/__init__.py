"""The bundled device-management server, split by concern:

    wire.py   WebSocket connections on the websockets library's Sans-I/O
              layer, and the log of every frame (FrameLog, Connection, Link)
    api.py    DeviceServer: the request API tests and tools use (Reply,
              Message), its loop in a background thread
    tour.py   the demonstration tour (run_tour) that scripts/demo.sh shows
    cli.py    the command line (main)

server/device_server.py re-exports the public names and runs the command
line, as it always has.
"""
