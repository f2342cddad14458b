"""The web console: pages and a JSON API over the Devices and their Store,
served by aiohttp (Debian's python3-aiohttp) from its own thread.

    console = Console(devices, protocol, host="127.0.0.1", port=0, token=None).start()
    console.url          # http://127.0.0.1:PORT/  (with ?token=... when one is needed)
    console.stop()

Access: on a loopback address (the default) no token is needed.  Bound to
any other address, the console needs a token: without one given, it makes
one.  Every page and API call then needs it, as ?token=T (which also sets
a cookie for the pages that follow), the cookie, or "Authorization: Bearer
T"; anything else is refused with 401.  Requests that change something
(POST) also need the header "X-Console: 1", which a page of another site
cannot send without the console's consent.

Pages: / (device list and request history), /device/MAC (charts, events,
system log, wireless networks and clients, request form).  Static files
come from server/console/, the charting library (Chart.js) from Debian's
libjs-chart.js, never from the network.  The protocol document is
/openrpc.json.
"""
import asyncio
import hmac
import ipaddress
import json
import os
import secrets
import threading

from aiohttp import web

_HERE = os.path.dirname(os.path.abspath(__file__))
STATIC = os.path.join(os.path.dirname(_HERE), "console")
CHART_JS = "/usr/share/javascript/chart.js/chart.min.js"
COOKIE = "kc_console_token"


def is_loopback(host):
    if host in ("localhost", "ip6-localhost"):
        return True
    try:
        return ipaddress.ip_address(host).is_loopback
    except ValueError:
        return False


class Console(object):
    def __init__(self, devices, protocol, host="127.0.0.1", port=0, token=None,
                 chart_js=CHART_JS):
        self.devices = devices
        self.store = devices.store
        self.protocol = protocol
        self.host = host
        self.port = port
        if token is None and not is_loopback(host):
            token = secrets.token_urlsafe(18)
        self.token = token
        self.chart_js = chart_js
        self._loop = None
        self._thread = None
        self._runner = None

    # ----- life cycle ---------------------------------------------------------------

    @property
    def url(self):
        host = "[%s]" % self.host if ":" in self.host else self.host
        url = "http://%s:%d/" % (host, self.port)
        return url + ("?token=" + self.token if self.token else "")

    def start(self):
        self._loop = asyncio.new_event_loop()
        ready = threading.Event()
        failed = []

        def run():
            asyncio.set_event_loop(self._loop)
            try:
                self._loop.run_until_complete(self._start())
            except Exception as exc:
                failed.append(exc)
                ready.set()
                return
            ready.set()
            self._loop.run_forever()

        self._thread = threading.Thread(target=run, name="console", daemon=True)
        self._thread.start()
        ready.wait(30)
        if failed:
            raise failed[0]
        return self

    async def _start(self):
        app = web.Application(middlewares=[self._guard], client_max_size=1 << 20)
        r = app.router
        r.add_get("/", self._page("index.html"))
        r.add_get("/device/{mac}", self._page("device.html"))
        r.add_get("/openrpc.json", self._openrpc)
        r.add_get("/static/chart.js", self._chart_js)
        r.add_get("/static/{name}", self._static)
        r.add_get("/api/devices", self._api_devices)
        r.add_get("/api/devices/{mac}", self._api_device)
        r.add_get("/api/devices/{mac}/status", self._api_rows("status"))
        r.add_get("/api/devices/{mac}/events", self._api_rows("events"))
        r.add_get("/api/devices/{mac}/logs", self._api_rows("logs"))
        r.add_get("/api/history", self._api_history)
        r.add_post("/api/devices/{mac}/request", self._api_request)
        r.add_post("/api/devices/{mac}/logstream", self._api_logstream)
        self._runner = web.AppRunner(app, access_log=None)
        await self._runner.setup()
        site = web.TCPSite(self._runner, self.host, self.port)
        await site.start()
        if self.port == 0:
            self.port = site._server.sockets[0].getsockname()[1]

    def stop(self):
        if self._loop is None:
            return
        fut = asyncio.run_coroutine_threadsafe(self._runner.cleanup(), self._loop)
        try:
            fut.result(10)
        except Exception:
            pass
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join(5)
        self._loop.close()
        self._loop = None

    # ----- access -------------------------------------------------------------------

    def _authorised(self, request):
        if not self.token:
            return True, False
        offered = [request.query.get("token"), request.cookies.get(COOKIE)]
        auth = request.headers.get("Authorization", "")
        if auth.startswith("Bearer "):
            offered.append(auth[7:])
        for value in offered:
            if value and hmac.compare_digest(value.encode(), self.token.encode()):
                return True, value == request.query.get("token")
        return False, False

    @web.middleware
    async def _guard(self, request, handler):
        ok, from_query = self._authorised(request)
        if not ok:
            return web.json_response({"error": "this console needs its token "
                                      "(?token=..., or Authorization: Bearer ...)"},
                                     status=401)
        if request.method == "POST" and request.headers.get("X-Console") != "1":
            return web.json_response({"error": "POST needs the header X-Console: 1"},
                                     status=403)
        response = await handler(request)
        if from_query:
            response.set_cookie(COOKIE, self.token, httponly=True, samesite="Strict")
        return response

    # ----- pages and files ------------------------------------------------------------

    def _page(self, name):
        async def handler(request):
            return web.FileResponse(os.path.join(STATIC, name),
                                    headers={"Cache-Control": "no-store"})
        return handler

    async def _static(self, request):
        name = request.match_info["name"]
        if "/" in name or name.startswith(".") or \
                not os.path.isfile(os.path.join(STATIC, name)):
            raise web.HTTPNotFound()
        return web.FileResponse(os.path.join(STATIC, name))

    async def _chart_js(self, request):
        if not os.path.isfile(self.chart_js):
            raise web.HTTPNotFound(text="Chart.js missing: scripts/install-deps.sh "
                                        "installs libjs-chart.js")
        return web.FileResponse(self.chart_js, headers={"Content-Type": "text/javascript"})

    async def _openrpc(self, request):
        return web.json_response(self.protocol.document)

    # ----- the API --------------------------------------------------------------------

    async def _api_devices(self, request):
        return web.json_response({"devices": self.store.devices()})

    async def _api_device(self, request):
        device = self.store.device(request.match_info["mac"])
        if device is None:
            raise web.HTTPNotFound(text=json.dumps({"error": "no such device"}),
                                   content_type="application/json")
        return web.json_response(device)

    def _api_rows(self, kind):
        async def handler(request):
            try:
                after = int(request.query.get("after", "0"))
            except ValueError:
                after = 0
            rows = getattr(self.store, kind)(request.match_info["mac"], after)
            return web.json_response({kind: rows})
        return handler

    async def _api_history(self, request):
        try:
            after = int(request.query.get("after", "0"))
        except ValueError:
            after = 0
        rows = self.store.requests(request.query.get("mac") or None, after)
        return web.json_response({"requests": rows})

    async def _api_request(self, request):
        mac = request.match_info["mac"]
        try:
            body = await request.json()
        except ValueError:
            return web.json_response({"error": "the body is not JSON"}, status=400)
        method = body.get("method") if isinstance(body, dict) else None
        params = body.get("params") if isinstance(body, dict) else None
        if isinstance(params, str):
            try:
                params = json.loads(params)
            except ValueError as exc:
                return web.json_response(
                    {"error": "the parameters are not valid JSON: %s" % exc}, status=400)
        if not isinstance(method, str) or not method:
            return web.json_response({"error": "no method"}, status=400)
        loop = asyncio.get_running_loop()
        out = await loop.run_in_executor(None, lambda: self.devices.request(
            mac, method, params, source=body.get("source") or "console"))
        out.pop("reply_data", None)
        return web.json_response(out)

    async def _api_logstream(self, request):
        mac = request.match_info["mac"]
        try:
            body = await request.json()
        except ValueError:
            body = {}
        enable = bool(body.get("enable")) if isinstance(body, dict) else False
        loop = asyncio.get_running_loop()
        out = await loop.run_in_executor(None, lambda: self.devices.request(
            mac, "dxStreamSystemLogs", {"deviceId": mac, "enable": enable}))
        out.pop("reply_data", None)
        return web.json_response(out)
