"""The fleet's parts that need no device: the description file, MAC ranges
and shards, the agent-output counts, the report's figures (the wave, the
generator groups), merging shard reports, the plot, and the Kubernetes
manifest rendered and checked."""
import json
import os
import subprocess

import pytest

from conftest import FLEET, ROOT
from fleetlib import agentlog, k8s, profiles, report


def test_description_file_profiles_interleave_by_weight(tmp_path):
    spec = profiles.FleetSpec.load(os.path.join(ROOT, "fleet", "examples", "fleet.yaml"))
    assert spec.devices == 200 and spec.mac_base == "02:4b:56:00:00:00"
    names = [spec.profile_of(i).name for i in range(20)]
    assert names.count("office-dual") == 12 and names.count("lobby-single") == 6 \
        and names.count("beta") == 2
    # the mix repeats: every run of ten devices holds the weights
    for start in (0, 10, 37):
        window = [spec.profile_of(i).name for i in range(start, start + 10)]
        assert (window.count("office-dual"), window.count("lobby-single"),
                window.count("beta")) == (6, 3, 1)
    beta = [p for p in spec.profiles if p.name == "beta"][0]
    assert beta.settings() == {"korvatCloud.korvatCloud.beta_mode": "1",
                               "korvatCloud.korvatCloud.auto_update": "30"}
    bad = tmp_path / "bad.yaml"
    for text in ("devices: 5\nprofiles: [{name: a, bands: tri-band}]\n",
                 "devices: 5\nmac_base: '03:00:00:00:00:00'\n",
                 "devices: 5\nsurprise: 1\n",
                 "devices: 0\n",
                 "profiles: [{name: a, uci: {'not a path': 1}}]\n"):
        bad.write_text(text)
        with pytest.raises(profiles.SpecError):
            profiles.FleetSpec.load(str(bad))


def test_shards_split_the_mac_range():
    spec = profiles.FleetSpec(devices=1003)
    seen = []
    for i in range(4):
        first, count = spec.shard(i, 4)
        seen += list(range(first, first + count))
    assert seen == list(range(1003))
    assert profiles.mac_at("02:4b:56:00:00:ff", 1) == "02:4b:56:00:01:00"
    assert profiles.parse_shard("3/8") == (3, 8)
    for text in ("8/8", "1", "a/b", "-1/2"):
        with pytest.raises(profiles.SpecError):
            profiles.parse_shard(text)
    with pytest.raises(profiles.SpecError):
        profiles.FleetSpec(devices=10, mac_base="02:ff:ff:ff:ff:fa")


AGENT_OUTPUT = """-----------------------------------------------------------------------------
[2026-11-25T16:13:00+00:00][Thread][Func queueReader]
Sending text frame:
{
\t"jsonrpc":\t"2.0",
\t"id":\t"probe-1",
\t"result":\t{
\t\t"deviceId":\t"02:4b:56:00:00:00"
\t}
}
-----------------------------------------------------------------------------
-----------------------------------------------------------------------------
[2026-11-25T16:13:01+00:00][Thread][Func queueReader]
Sending text frame:
{
\t"jsonrpc":\t"2.0",
\t"method":\t"\x1b[1;36mdsLogStatusUpdates\x1b[m",
\t"params":\t{
\t\t"method":\t"not this one"
\t}
}
-----------------------------------------------------------------------------
-----------------------------------------------------------------------------
[2026-11-25T16:13:02+00:00][Thread][Func queueWriter]
Recieved text frame: 105
{"jsonrpc":"2.0","id":"x","method":"\x1b[1;33mdxGetAbout\x1b[m","params":{}}
-----------------------------------------------------------------------------
-----------------------------------------------------------------------------
[2026-11-25T16:13:03+00:00][Thread][Func queueReader]
Sending text frame:
{
\t"jsonrpc":\t"2.0",
\t"method":\t"\x1b[1;36mdsEventNotifications\x1b[m",
\t"params":\t{
\t}
}
-----------------------------------------------------------------------------
"""


def test_agent_output_counts_what_was_sent(tmp_path):
    path = tmp_path / "agent.log"
    counts = agentlog.SentCounts()
    data = AGENT_OUTPUT.encode()
    # the file grows in pieces, a dump cut in the middle
    cut = data.index(b"dsEventNotifications") - 30
    path.write_bytes(data[:cut])
    agentlog.read_new(str(path), counts)
    assert (counts.frames, counts.replies, counts.status_updates, counts.events) == (2, 1, 1, 0)
    with open(path, "ab") as f:
        f.write(data[cut:])
    agentlog.read_new(str(path), counts)
    assert (counts.frames, counts.replies, counts.status_updates, counts.events) == (3, 1, 1, 1)


def device(opened, keys=None):
    return {"opened": opened, "closed": [], "keys": keys or ["k"] * len(opened)}


def test_wave_and_generator_groups():
    devices = {"a": device([1.0, 110.2], ["K1", "K9"]), "b": device([1.2, 110.4], ["K1", "K8"]),
               "c": device([2.0, 111.9], ["K2", "K8"]), "d": device([2.1], ["K2"]),
               "late": device([105.0])}
    w = report.wave(devices, went=50.0, back=100.0)
    # "late" connected during the outage? no: after it went, so not counted
    assert (w["devices"], w["back"], w["missing"]) == (4, 3, 1)
    assert w["per_second"] == [[10, 2], [11, 1]]
    assert w["peak_per_s"] == 2
    assert (w["t50_s"], w["t99_s"], w["t100_s"]) == (10.4, None, None)
    g = report.seed_groups(devices, before=50.0)
    assert (g["devices"], g["distinct_keys"], g["largest_group"]) == (4, 2, 2)
    g = report.seed_groups(devices)
    assert g["largest_group"] == 2 and g["distinct_keys"] == 4
    # the handshakes after the return: b and c came back with the same key
    g = report.seed_groups_after(devices, back=100.0)
    assert (g["devices"], g["distinct_keys"], g["largest_group"]) == (4, 3, 2)
    assert w["per_100ms"] == [[10.2, 1], [10.4, 1], [11.9, 1]]


def test_random_back_off_groups_from_the_agents_sleeps():
    # the fixed interval (10) first, then draws of 60..119; a and b drew the
    # same, c its own; b got in one draw later than a; d never drew
    sleeps = {"a": [10] * 61 + [77, 101], "b": [10] * 61 + [77, 101, 64],
              "c": [10] * 61 + [90, 60], "d": [10, 10]}
    b = report.backoff_groups(sleeps)
    assert (b["devices"], b["distinct_sequences"], b["largest_group"]) == (3, 2, 2)
    assert b["group_sizes"] == [[2, 1], [1, 1]]
    assert b["compared_draws"] == 2 and b["largest_group_sequence"] == [77, 101]
    assert report.backoff_groups({"d": [10]})["devices"] == 0


def shard_doc(first, n, went, back, connected):
    devices = [{"mac": profiles.mac_at("02:00:00:00:00:00", first + i), "index": first + i,
                "profile": "p", "state": "running", "starts": 1, "exits": [], "error": None,
                "opened": [went - 10, back + 1 + i], "closed": [went], "keys": ["k", "k"],
                "connections": 2} for i in range(n)]
    return {"kind": "korvat-fleet-report", "version": 1, "host": {},
            "fleet": {"spec": {}, "shard": [first // n, 2], "first_index": first, "devices": n,
                      "first_mac": devices[0]["mac"], "last_mac": devices[-1]["mac"]},
            "server": {"kind": "bundled"}, "started": went - 20, "ended": back + 30,
            "interrupted": False, "errors": [],
            "summary": {"phase": "done", "elapsed": 50, "devices": n, "connected": connected,
                        "reconnecting": n - connected, "answered": 3 * n,
                        "status_updates": n, "events": 0, "memory_mib": 100, "cpu_pct": 10},
            "timeline": [[went - 20 + s, connected, 0, 0, 0, 0, 100, 10] for s in range(50)],
            "connections": [[o, d["mac"], 1] for d in devices for o in d["opened"]],
            "events": [], "cpu": None, "memory": {},
            "requests": [{"id": "after-%d" % first, "method": "dxGetAbout", "sent": n,
                          "skipped": 0, "answered": n, "missing": [], "duplicated": [],
                          "wrong": [], "rtts_ms": [100.0 + i for i in range(n)],
                          "send_took_s": 0.01}],
            "scenario": {"name": "restart", "options": {"outage": 30},
                         "result": {"outage_s": 30, "went": went, "back": back,
                                    "wave": report.wave({d["mac"]: d for d in devices},
                                                        went, back),
                                    "queued": {"sent": n, "after_reconnection": n,
                                               "before_outage": 0, "lost": [],
                                               "duplicated": [], "wrong": []},
                                    "seed_groups": {"devices": n, "distinct_keys": 1,
                                                    "largest_group": n}}},
            "devices": devices, "problems": []}


def test_merge_of_shard_reports(tmp_path):
    a = shard_doc(0, 3, went=1000.0, back=1030.0, connected=3)
    b = shard_doc(3, 4, went=1005.0, back=1035.0, connected=2)
    # as `kubectl logs` gives them: report lines among other output
    logs = tmp_path / "logs.txt"
    logs.write_text("starting 3/3\n%s%s\nsomething else\n%s%s\n" % (
        report.STDOUT_PREFIX, json.dumps(b), report.STDOUT_PREFIX, json.dumps(a)))
    docs = report.read_reports([str(logs)])
    m = report.merge(docs)
    assert m["fleet"]["devices"] == 7 and m["fleet"]["first_mac"] == "02:00:00:00:00:00"
    assert [d["index"] for d in m["devices"]] == list(range(7))
    assert m["summary"]["connected"] == 5 and m["summary"]["answered"] == 21
    # each shard's wave is taken from its own server's return, then joined
    w = m["scenario"]["result"]["wave"]
    assert (w["devices"], w["back"]) == (7, 7)
    assert w["per_second"] == [[1, 2], [2, 2], [3, 2], [4, 1]]
    assert m["scenario"]["result"]["queued"]["sent"] == 7
    r = m["requests"][0]
    assert (r["id"], r["sent"], r["answered"]) == ("after", 7, 7)
    assert r["rtt_ms"]["median"] == 101.0
    # the timelines add up second by second (shard b's rows are later)
    rows = {row[0]: row for row in m["timeline"]}
    assert rows[1000][1] == 5 and rows[980][1] == 3
    assert "2 of 7 devices connected at the end" not in m["problems"]
    assert "5 of 7 devices connected at the end" in m["problems"]
    # the command does the same and draws the plot
    out = tmp_path / "merged.json"
    png = tmp_path / "merged.png"
    r = subprocess.run(["/usr/bin/python3", FLEET, "merge", str(logs), "-o", str(out),
                        "--plot", str(png)], stdout=subprocess.PIPE, text=True, timeout=120)
    assert r.returncode == 0
    assert "merged 2 reports: 7 devices" in r.stdout
    assert json.loads(out.read_text())["fleet"]["devices"] == 7
    assert png.read_bytes()[:4] == b"\x89PNG"
    with pytest.raises(ValueError):
        other = shard_doc(0, 1, 10.0, 20.0, 1)
        other["scenario"]["name"] = "steady"
        report.merge([a, other])


def test_kubernetes_indexed_job_manifest():
    yaml = pytest.importorskip("yaml")
    text = subprocess.run(
        ["/usr/bin/python3", FLEET, "k8s-manifest", "--shards", "4", "--devices", "1000",
         "--image", "registry.example/korvat-fleet:1", "--scenario", "restart",
         "--server-url", "wss://staging.example.com/dev", "--extra", "--outage 30"],
        stdout=subprocess.PIPE, text=True, check=True, timeout=60).stdout
    job = yaml.safe_load(text)
    assert (job["apiVersion"], job["kind"]) == ("batch/v1", "Job")
    spec = job["spec"]
    assert spec["completionMode"] == "Indexed"
    assert spec["completions"] == spec["parallelism"] == 4
    pod = spec["template"]["spec"]
    assert pod["restartPolicy"] == "Never"
    (c,) = pod["containers"]
    assert c["image"] == "registry.example/korvat-fleet:1"
    assert c["securityContext"]["privileged"] is True
    env = {e["name"]: e for e in c["env"]}
    assert env["SHARDS"]["value"] == "4" and env["DEVICES"]["value"] == "1000"
    assert env["SHARD_INDEX"]["valueFrom"]["fieldRef"]["fieldPath"] == \
        "metadata.annotations['batch.kubernetes.io/job-completion-index']"
    cmd = c["command"]
    assert all(isinstance(a, str) for a in cmd)
    assert cmd[:2] == ["/korvat-cloud/fleet/fleet", "run"]

    def opt(name):
        return cmd[cmd.index(name) + 1]
    assert opt("--shard") == "$(SHARD_INDEX)/$(SHARDS)"
    assert opt("--devices") == "$(DEVICES)"
    assert opt("--scenario") == "restart" and opt("--outage") == "30"
    assert opt("--server-url") == "wss://staging.example.com/dev"
    assert "--report-stdout" in cmd
    # every pod's command line, with Kubernetes' $(VAR) expanded, is one
    # `fleet run` accepts, and the four shards cover the fleet once
    import argparse
    import importlib.machinery
    import importlib.util
    loader = importlib.machinery.SourceFileLoader("fleet_cli", FLEET)
    spec_ = importlib.util.spec_from_loader("fleet_cli", loader)
    cli = importlib.util.module_from_spec(spec_)
    loader.exec_module(cli)
    ap = argparse.ArgumentParser()
    cli.run_parser(ap.add_subparsers(dest="cmd"))
    covered = []
    for index in range(4):
        values = {"SHARD_INDEX": str(index), "SHARDS": env["SHARDS"]["value"],
                  "DEVICES": env["DEVICES"]["value"]}
        argv = [a.replace("$(SHARD_INDEX)", values["SHARD_INDEX"])
                 .replace("$(SHARDS)", values["SHARDS"]).replace("$(DEVICES)", values["DEVICES"])
                for a in cmd[1:]]
        a = ap.parse_args(argv)
        first, count = profiles.FleetSpec(devices=a.devices).shard(*profiles.parse_shard(a.shard))
        covered += list(range(first, first + count))
    assert covered == list(range(1000))
    assert k8s.render(1, 10, "x").count("$(SHARD_INDEX)") == 1
    with pytest.raises(ValueError):
        k8s.render(0, 10, "x")
