"""The web console in a real browser (headless Chromium driven by Selenium):
two simulated access points, each running the agent, connected to device
servers whose console lists them; a device page whose charts gain a point
with each status update; a request sent from the form and its reply;
parameters that are not JSON refused before anything is sent; a change
that asks for confirmation; a streamed log line in the log view.
Screenshots go to KC_ARTIFACT_DIR (the build's test-artifacts/)."""
import json
import os
import pty
import re
import select
import shutil
import signal
import tempfile
import time
import urllib.request

import pytest

from conftest import AGENT, MAC, ROOT, Agent, Deadline, device_server, scaled, settings, wait_for
from simdevice import Device

webdriver = pytest.importorskip("selenium.webdriver")
from selenium.webdriver.chrome.service import Service  # noqa: E402
from selenium.common.exceptions import StaleElementReferenceException  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.support.ui import Select, WebDriverWait  # noqa: E402

from devserver.console import Console  # noqa: E402
from devserver.devices import Devices  # noqa: E402
from devserver.protocol import Protocol  # noqa: E402
from devserver.store import Store  # noqa: E402

MAC2 = "02:4b:56:31:30:02"
# status updates every 2 s, so that the charts move while the test looks
STATUS_PERIOD = 2
ARTIFACTS = os.environ.get("KC_ARTIFACT_DIR") or os.path.join(tempfile.gettempdir(),
                                                               "korvat-test-artifacts")
CHROMIUM_FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                  "--no-first-run", "--disable-background-networking",
                  "--disable-component-update", "--disable-sync",
                  "--window-size=1400,1300"]


@pytest.fixture
def second_device():
    with Device() as dev:
        dev.timeout_scale = scaled(1)
        yield dev


@pytest.fixture
def browser():
    if not (shutil.which("chromium") and shutil.which("chromedriver")):
        pytest.skip("chromium and chromium-driver are not installed "
                    "(scripts/install-deps.sh installs them)")
    profile = tempfile.mkdtemp(prefix="kc-chromium-")
    options = webdriver.ChromeOptions()
    options.binary_location = shutil.which("chromium")
    for flag in CHROMIUM_FLAGS + ["--user-data-dir=" + profile]:
        options.add_argument(flag)
    driver = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
    try:
        yield driver
    finally:
        driver.quit()
        shutil.rmtree(profile, ignore_errors=True)


def shot(driver, name):
    os.makedirs(ARTIFACTS, exist_ok=True)
    path = os.path.join(ARTIFACTS, name)
    driver.save_screenshot(path)
    return path


def until(driver, condition, timeout=30, what=""):
    # the pages re-render their lists as data arrives: an element found a
    # moment ago may be gone when read, and the condition is asked again
    return WebDriverWait(driver, scaled(timeout), 0.1,
                         ignored_exceptions=(StaleElementReferenceException,)).until(
        lambda d: condition(d), message=what)


def sent_texts(server):
    return [f for f in server.frames if f.direction == "send" and f.kind == "TEXT"]


def test_console_in_a_browser(device, second_device, start_agent, browser, tmp_path):
    # two access points, each in its own network with its own device server
    servers = []
    for dev in (device, second_device):
        settings(dev, auto_update=STATUS_PERIOD)
        srv = device_server(dev, ping_interval=15)
        srv.start()
        servers.append(srv)
    agents = []
    try:
        protocol = Protocol()
        store = Store(str(tmp_path / "console.sqlite"))
        devices = Devices(servers, store, protocol)
        console = Console(devices, protocol, port=0).start()
        agents.append(start_agent(servers[0].url))
        agents.append(Agent(second_device, second_device.start_agent(AGENT, servers[1].url,
                                                                     mac=MAC2)))
        for srv in servers:
            srv.wait_for_connection(15)
        _check_console(browser, console, servers, device, store)
    finally:
        for agent in agents[1:]:
            second_device.stop()
            agent.out._thread.join(5)
        try:
            console.stop()
        except NameError:
            pass
        for srv in servers:
            srv.stop()


def _check_console(driver, console, servers, device, store):
    server = servers[0]
    # ---- the device list: both access points, with what dxGetAbout told
    driver.get(console.url)

    def listed(d):
        rows = {r.get_attribute("data-mac"): r.text
                for r in d.find_elements(By.CSS_SELECTOR, "#devices tr.device")}
        return rows if all(m in rows and "VK310" in rows[m] and "connected since" in rows[m]
                           for m in (MAC, MAC2)) else None
    rows = until(driver, listed, what="both devices listed with their model")
    assert "192.168.1.2" in rows[MAC]       # the LAN address from dxGetAbout
    shot(driver, "console-devices.png")

    # ---- the device page: a chart gains a point with each status update
    driver.find_element(By.LINK_TEXT, MAC).click()
    until(driver, lambda d: d.find_element(By.ID, "method").get_attribute("value"),
          what="the request form filled from the OpenRPC document")
    points = lambda d: int(d.find_element(By.ID, "chart-cpu").get_attribute("data-points"))
    until(driver, lambda d: points(d) >= 1, 40, "a first point in the CPU chart")
    before = points(driver)
    server.clear_messages()
    update = server.next_message(scaled(STATUS_PERIOD * 5), method="dsLogStatusUpdates")
    until(driver, lambda d: points(d) > before, 20, "a point for the status update")
    cpu = update.data["params"]["updates"][0]["system"]["cpu"]
    last = driver.execute_script("var d = window.kcCharts.cpu.data.datasets[0].data;"
                                 "return d[d.length - 1];")
    assert last == store.status(MAC)[-1]["cpu"]
    assert isinstance(cpu, int)

    # ---- a request from the form and its exact reply
    Select(driver.find_element(By.ID, "method")).select_by_value("dxGetTimeSettings")
    params = driver.find_element(By.ID, "params")
    assert json.loads(params.get_attribute("value")) == {"deviceId": MAC}
    driver.find_element(By.ID, "send").click()
    until(driver, lambda d: d.find_element(By.ID, "outcome").text == "result", 30,
          "the reply of dxGetTimeSettings")
    reply = driver.find_element(By.ID, "reply").text
    assert reply in server.received_texts
    assert json.loads(reply)["result"]["deviceId"] == MAC
    assert driver.find_element(By.ID, "rtt").text.endswith(" ms")
    history = store.requests(MAC)
    assert history[0]["method"] == "dxGetTimeSettings" and history[0]["reply"] == reply
    until(driver, lambda d: "dxGetTimeSettings" in d.find_element(By.CSS_SELECTOR,
                                                                 "#history tbody").text,
          what="the request in the page's history")
    shot(driver, "console-device.png")

    # ---- parameters that are not JSON: refused in the form, nothing sent
    frames, kept = len(sent_texts(server)), len(store.requests(MAC))
    params.clear()
    params.send_keys('{"deviceId": ')
    driver.find_element(By.ID, "send").click()
    message = driver.find_element(By.ID, "form-message").text
    assert "not valid JSON" in message and "nothing was sent" in message
    assert len(sent_texts(server)) == frames and len(store.requests(MAC)) == kept

    # ---- a change asks first: cancelled, nothing sent; confirmed, sent
    Select(driver.find_element(By.ID, "method")).select_by_value("dxSetStatusUpdateFrequency")
    driver.find_element(By.ID, "send").click()
    dialog = driver.find_element(By.ID, "confirm")
    until(driver, lambda d: dialog.is_displayed(), what="the confirmation")
    assert "dxSetStatusUpdateFrequency" in driver.find_element(By.ID, "confirm-text").text
    driver.find_element(By.ID, "confirm-no").click()
    assert driver.find_element(By.ID, "form-message").text == "Not sent."
    assert len(sent_texts(server)) == frames
    params.clear()
    params.send_keys(json.dumps({"deviceId": MAC, "frequency": STATUS_PERIOD}))
    driver.find_element(By.ID, "send").click()
    until(driver, lambda d: dialog.is_displayed(), what="the confirmation")
    driver.find_element(By.ID, "confirm-yes").click()
    until(driver, lambda d: d.find_element(By.ID, "outcome").text == "result", 30,
          "the reply of dxSetStatusUpdateFrequency")

    # ---- the system log, streamed while it is on
    driver.find_element(By.ID, "log-start").click()
    until(driver, lambda d: d.find_element(By.ID, "log-state").text == "streaming",
          what="streaming switched on")
    assert wait_for(lambda: (device.read_file("/tmp/cloud_logread_pid") or "").strip(), 20)
    # the follower has taken its starting point: a line logged now is streamed
    assert device.wait_journal("logread -f", timeout=20)
    marker = "console-stream-marker-42"
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: %s" % marker)
    until(driver, lambda d: marker in d.find_element(By.ID, "log-view").text, 40,
          "the streamed log line in the log view")
    shot(driver, "console-device-log.png")
    driver.find_element(By.ID, "log-stop").click()
    until(driver, lambda d: d.find_element(By.ID, "log-state").text == "stopped",
          what="streaming switched off")
    # the agent stopped its capture and removed it
    assert wait_for(lambda: not device.exists("/tmp/cloud_log_file"), 20)


def test_demo_console_lists_its_access_points_and_ends_with_ctrl_c(tmp_path):
    """scripts/demo.sh --console: the simulated access points connect, the
    console it prints lists them with what they reported, Ctrl-C ends every
    process it started and leaves the history in its SQLite file."""
    work = tmp_path / "work"
    work.mkdir()
    db = tmp_path / "console.sqlite"
    env = dict(os.environ, KC_AGENT=AGENT, TMPDIR=str(work), KC_DEMO_DEVICES="2",
               KC_CONSOLE_PORT="0", KC_CONSOLE_DB=str(db))
    pid, fd = pty.fork()
    if pid == 0:
        try:
            signal.signal(signal.SIGINT, signal.SIG_DFL)
            os.execve(os.path.join(ROOT, "scripts", "demo.sh"), ["demo.sh", "--console"], env)
        finally:
            os._exit(127)
    buf = bytearray()

    def read(timeout):
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            r, _, _ = select.select([fd], [], [], 0.2)
            if r:
                try:
                    data = os.read(fd, 65536)
                except OSError:
                    return False
                if not data:
                    return False
                buf.extend(data)
                return True
        return True

    try:
        deadline = Deadline(120)
        while b"console: http" not in buf and not deadline.passed():
            if not read(1):
                break
        text = buf.decode("utf-8", "replace")
        m = re.search(r"console: (http://127\.0\.0\.1:\d+/)", text)
        assert m, text[-3000:]
        url = m.group(1)

        def both_listed():
            with urllib.request.urlopen(url + "api/devices", timeout=10) as r:
                devices = json.loads(r.read())["devices"]
            return sorted(d["mac"] for d in devices if d["connected"] and d["model"] == "VK310")
        assert wait_for(lambda: both_listed() == ["02:4b:56:31:30:01", "02:4b:56:31:30:02"], 60)
        os.write(fd, b"\x03")
        while read(1):
            pass

        def reaped():
            done, status = os.waitpid(pid, os.WNOHANG)
            return (done, status) if done else None
        done, status = wait_for(reaped, 20, interval=0.1) or (0, 0)
        assert done == pid, "demo still running after Ctrl-C"
        pid = 0
        assert os.WIFEXITED(status) and os.WEXITSTATUS(status) == 130, status
        assert not [p for p in os.listdir("/proc") if p.isdigit() and _mentions(p, str(work))]
        assert os.listdir(work) == []
    finally:
        if pid:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
        os.close(fd)
    # what the console saw is still in its file
    store = Store(str(db))
    try:
        assert [(d["mac"], d["connected"]) for d in store.devices()] == [
            ("02:4b:56:31:30:01", False), ("02:4b:56:31:30:02", False)]
        assert all(h["method"] == "dxGetAbout" for h in store.requests())
    finally:
        store.close()


def _mentions(pid, text):
    try:
        with open("/proc/%s/cmdline" % pid, "rb") as f:
            return text.encode() in f.read()
    except OSError:
        return False
