"""The fleet's report (JSON), its plot (PNG) and the merge of shard reports.

The report holds what the live summary showed last ("summary"), the
timeline behind it (one row a second), every connection the server saw
opening and closing ("connections"), the request rounds with every round
trip, the scenario's figures (for a restart: the reconnection wave and the
replies queued during the outage), CPU by kind per device and minute,
memory, and every device's own record.  Reports of shards (--shard i/n)
merge into one (`fleet merge`): counts add up, the timelines are summed
second by second, and the wave and round-trip figures are computed again
from the per-device figures of all shards.
"""
import json
import math
import os
import platform
import sys
import time

STDOUT_PREFIX = "KORVAT-FLEET-REPORT "
TIMELINE_FIELDS = ["time", "connected", "reconnecting", "answered", "status_updates",
                   "events", "memory_mib", "cpu_pct"]
SUMMED = ("connected", "reconnecting", "answered", "status_updates", "events",
          "memory_mib", "cpu_pct", "devices")


def percentile(values, q):
    """The q-quantile of values, interpolated between neighbours; None
    for no values."""
    if not values:
        return None
    values = sorted(values)
    k = (len(values) - 1) * q
    lo = int(k)
    hi = min(lo + 1, len(values) - 1)
    return values[lo] + (values[hi] - values[lo]) * (k - lo)


def _pct(values, q):
    p = percentile(values, q)
    return None if p is None else round(p, 3)


def _time_to_fraction(delays, n, q):
    """Seconds until q of n devices were back (None when fewer came)."""
    if n == 0:
        return None
    need = max(1, int(math.ceil(q * n - 1e-9)))
    delays = sorted(delays)
    if len(delays) < need:
        return None
    return round(delays[need - 1], 3)


def wave(devices, went, back):
    """The reconnection wave after the server came back at `back` (it went
    at `went`), from the server's per-device records: the devices that
    were connected when it went, how long after its return each was back
    (its first connection since), connections per second, and the time
    until 50, 90, 99 and 100 % were back."""
    delays = []
    for mac, d in devices.items():
        was = any(o < went for o in d["opened"])
        if not was:
            continue
        again = [o for o in d["opened"] if o >= back]
        delays.append(round(again[0] - back, 3) if again else None)
    return wave_from_delays([x for x in delays if x is not None], len(delays))


def wave_from_delays(delays, n):
    per_s = {}
    for x in delays:
        per_s[int(math.floor(x))] = per_s.get(int(math.floor(x)), 0) + 1
    per_100ms = {}
    for x in delays:
        k = int(math.floor(x * 10))
        per_100ms[k] = per_100ms.get(k, 0) + 1
    return {"devices": n, "back": len(delays), "missing": n - len(delays),
            "peak_per_s": max(per_s.values()) if per_s else 0,
            "peak_per_100ms": max(per_100ms.values()) if per_100ms else 0,
            "per_second": [[k, per_s[k]] for k in sorted(per_s)],
            "per_100ms": [[k / 10.0, per_100ms[k]] for k in sorted(per_100ms)],
            "t50_s": _time_to_fraction(delays, n, 0.5),
            "t90_s": _time_to_fraction(delays, n, 0.9),
            "t99_s": _time_to_fraction(delays, n, 0.99),
            "t100_s": _time_to_fraction(delays, n, 1.0),
            "spread_s": round(max(delays) - min(delays), 3) if delays else None,
            "delays_s": sorted(delays)}


def seed_groups(devices, before=None):
    """Devices whose last handshake before `before` sent the same
    Sec-WebSocket-Key: the agent seeds its generator from the clock (whole
    seconds) before every handshake, so equal keys mean equal generator
    states -- the same masks and the same random back-off."""
    groups = {}
    for mac, d in devices.items():
        pairs = list(zip(d["opened"], d["keys"]))
        if before is not None:
            pairs = [p for p in pairs if p[0] < before]
        if not pairs:
            continue
        key = pairs[-1][1]
        groups.setdefault(key, []).append(mac)
    sizes = sorted((len(v) for v in groups.values()), reverse=True)
    hist = {}
    for s in sizes:
        hist[s] = hist.get(s, 0) + 1
    return {"devices": sum(sizes), "distinct_keys": len(sizes),
            "largest_group": sizes[0] if sizes else 0,
            "group_sizes": [[k, hist[k]] for k in sorted(hist, reverse=True)]}


def seed_groups_after(devices, back):
    """The same as seed_groups for each device's first handshake after
    the server's return at `back`: devices back within the same second
    of the clock send the same key."""
    groups = {}
    for mac, d in devices.items():
        pairs = [p for p in zip(d["opened"], d["keys"]) if p[0] >= back]
        if pairs:
            groups.setdefault(pairs[0][1], []).append(mac)
    sizes = sorted((len(v) for v in groups.values()), reverse=True)
    return {"devices": sum(sizes), "distinct_keys": len(sizes),
            "largest_group": sizes[0] if sizes else 0}


def backoff_groups(sleeps):
    """From each device's sleeps (mac -> [seconds]): the random
    back-off (60 to 119 s, drawn once the fixed interval has run out)
    each device drew, and how many devices drew the same sequence.
    Independent generators would give every device its own."""
    drawn = {mac: [x for x in xs if 60 <= x <= 119] for mac, xs in sleeps.items()}
    drawn = {mac: xs for mac, xs in drawn.items() if xs}
    draws = [len(xs) for xs in drawn.values()]
    # compared over the draws every device made (one that got in earlier
    # drew fewer)
    m = min(draws) if draws else 0
    seqs = {}
    for mac, xs in drawn.items():
        seqs.setdefault(tuple(xs[:m]), []).append(mac)
    sizes = sorted((len(v) for v in seqs.values()), reverse=True)
    hist = {}
    for n in sizes:
        hist[n] = hist.get(n, 0) + 1
    biggest = max(seqs.items(), key=lambda kv: len(kv[1]))[0] if seqs else ()
    return {"devices": sum(sizes), "distinct_sequences": len(sizes),
            "largest_group": sizes[0] if sizes else 0,
            "group_sizes": [[k, hist[k]] for k in sorted(hist, reverse=True)],
            "draws_per_device": {"min": m or None, "max": max(draws) if draws else None},
            "compared_draws": m,
            "largest_group_sequence": list(biggest)}


def problems_of(doc):
    out = []
    s = doc["summary"]
    n = doc["fleet"]["devices"]
    if doc.get("interrupted"):
        out.append("interrupted")
    for e in doc.get("errors") or []:
        out.append("error: " + e.strip().splitlines()[-1])
    if s.get("connected") is not None and s["connected"] < n:
        out.append("%d of %d devices connected at the end" % (s["connected"], n))
    for r in doc.get("requests") or []:
        if r["missing"]:
            out.append("%s: %d devices did not answer" % (r["id"], len(r["missing"])))
        if r["duplicated"]:
            out.append("%s: %d devices answered twice" % (r["id"], len(r["duplicated"])))
        if r["wrong"]:
            out.append("%s: %d devices answered with another MAC" % (r["id"], len(r["wrong"])))
    q = (doc["scenario"].get("result") or {}).get("queued")
    if q:
        if q["lost"]:
            out.append("%d queued replies lost" % len(q["lost"]))
        if q["duplicated"]:
            out.append("%d queued replies duplicated" % len(q["duplicated"]))
    exits = sum(len(d["exits"]) for d in doc["devices"])
    if exits:
        out.append("%d agent processes ended unexpectedly" % exits)
    return out


def build(runner, final, devices, timeline, cpu):
    o = runner.o
    n = len(runner.devices)
    recs = []
    for d in runner.devices:
        srv = devices.get(d.mac, {})
        sent = runner.sent.get(d.mac)
        recs.append({
            "mac": d.mac, "index": d.index, "profile": d.profile.name, "state": d.state,
            "starts": d.starts, "exits": [[round(t, 3), st] for t, st in d.exits],
            "error": d.error,
            "connections": srv.get("connections"), "opened": srv.get("opened", []),
            "closed": srv.get("closed", []), "keys": srv.get("keys", []),
            "server_status_updates": srv.get("status_updates"),
            "server_events": srv.get("events"),
            "sent": None if sent is None else {"frames": sent.frames,
                                               "status_updates": sent.status_updates,
                                               "events": sent.events,
                                               "replies": sent.replies}})
    mem = runner.mem
    doc = {
        "kind": "korvat-fleet-report", "version": 1,
        "created": time.strftime("%Y-%m-%dT%H:%M:%S%z"),
        "command": sys.argv,
        "host": {"node": platform.node(), "cpus": os.cpu_count(), "kernel": platform.release(),
                 "loadavg": _loadavg()},
        "fleet": {"spec": runner.spec.to_json(), "shard": list(o.shard) if o.shard else None,
                  "first_index": runner.first, "devices": n,
                  "first_mac": recs[0]["mac"] if recs else None,
                  "last_mac": recs[-1]["mac"] if recs else None,
                  "shared": runner.shared.describe() if runner.shared else None,
                  "start_rate": o.start_rate},
        "server": {"kind": "bundled" if runner.bundled else "own",
                   "server_url": o.server_url, "agent_url": runner.agent_url(),
                   "tls": bool(o.tls), "ping_interval_s": o.ping_interval},
        "scenario": {"name": o.scenario, "options": scenario_options(o),
                     "result": runner.scenario_result},
        "started": runner.t0, "ended": time.time(),
        "steady_from": runner.steady_from, "steady_until": runner.steady_until,
        "interrupted": runner.interrupted, "errors": runner.errors,
        "summary": final,
        "timeline_fields": TIMELINE_FIELDS, "timeline": runner.samples,
        "connections": timeline,
        "events": [[round(t, 3), what] for t, what in runner.events],
        "requests": runner.probes,
        "cpu": cpu,
        "memory": {"last": mem, "peak": runner.mem_peak,
                   "per_device_kib": None if not mem or not n else round(mem["total_kib"] / n)},
        "devices": recs,
    }
    doc["problems"] = problems_of(doc)
    return doc


def scenario_options(o):
    keys = {"steady": ("duration", "probe_every", "probe_spread"),
            "restart": ("outage", "outage_mode", "settle"),
            "rolling-reboot": ("reboot_batch", "reboot_interval"),
            "net-loss": ("net_loss", "net_loss_fraction")}.get(o.scenario, ())
    out = {k: getattr(o, k) for k in keys}
    if o.fastsleep:
        out["fastsleep"] = o.fastsleep
    return out


def _loadavg():
    try:
        with open("/proc/loadavg") as f:
            return [float(x) for x in f.read().split()[:3]]
    except OSError:
        return None


def write(doc, report_path, plot_path):
    written = []
    if report_path:
        tmp = report_path + ".tmp"
        with open(tmp, "w") as f:
            json.dump(doc, f, indent=1)
            f.write("\n")
        os.replace(tmp, report_path)
        written.append(report_path)
    if plot_path:
        try:
            plot(doc, plot_path)
            written.append(plot_path)
        except ImportError as exc:
            doc["problems"].append("no plot: %s (install python3-matplotlib)" % exc)
    return written


# ---- the plot --------------------------------------------------------------------

def connected_series(doc):
    """(times relative to the start, connected counts) from the server's
    connection events when there are any, else from the timeline."""
    t0 = doc["started"]
    events = doc.get("connections") or []
    if events:
        xs, ys = [0.0], [0]
        n = 0
        for t, _, step in sorted(events, key=lambda e: e[0]):
            n += step
            xs.append(t - t0)
            ys.append(n)
        xs.append(doc["ended"] - t0)
        ys.append(n)
        return xs, ys
    rows = doc.get("timeline") or []
    return [r[0] - t0 for r in rows], [r[1] for r in rows]


def openings_per_second(doc):
    t0 = doc["started"]
    per = {}
    for t, _, step in doc.get("connections") or []:
        if step > 0:
            k = int(t - t0)
            per[k] = per.get(k, 0) + 1
    return per


def plot(doc, path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    res = doc["scenario"].get("result") or {}
    w = res.get("wave")
    if w and w.get("delays_s"):
        fig, (ax, hx) = plt.subplots(2, 1, figsize=(10, 7.5), dpi=100,
                                     gridspec_kw={"height_ratios": [2, 1]})
        _wave_histogram(hx, w, res)
    else:
        fig, ax = plt.subplots(figsize=(10, 5), dpi=100)
    xs, ys = connected_series(doc)
    ax.step(xs, ys, where="post", color="tab:blue", label="connected")
    ax.set_xlabel("seconds since the fleet started")
    ax.set_ylabel("devices connected", color="tab:blue")
    ax.set_ylim(0, max([doc["fleet"]["devices"]] + ys) * 1.08 + 1)
    per = openings_per_second(doc)
    if per:
        ax2 = ax.twinx()
        ax2.bar(list(per), list(per.values()), width=1.0, align="edge", alpha=0.35,
                color="tab:orange", label="connections opened per second")
        ax2.set_ylabel("connections opened per second", color="tab:orange")
        ax2.set_ylim(0, max(per.values()) * 1.25 + 1)
    t0 = doc["started"]
    for went, back, label in _spans(res):
        ax.axvspan(went - t0, back - t0, color="grey", alpha=0.2, label=label)
    s = doc["summary"]
    title = "korvat-cloud fleet: %d devices, %s" % (doc["fleet"]["devices"], doc["scenario"]["name"])
    if doc["fleet"].get("shards"):
        title += " (%d shards merged)" % len(doc["fleet"]["shards"])
    if w:
        title += "\npeak %s connections/s, 99 %% back %s s after the server's return" % (
            w["peak_per_s"], w["t99_s"])
    ax.set_title(title)
    handles, labels = ax.get_legend_handles_labels()
    ax.legend(handles, labels, loc="lower right")
    ax.grid(True, alpha=0.3)
    fig.text(0.01, 0.01, "final: connected %s, answered %s, status updates %s, events %s, "
             "memory %s MiB" % (s.get("connected"), s.get("answered"), s.get("status_updates"),
                                s.get("events"), s.get("memory_mib")), fontsize=8)
    fig.tight_layout(rect=(0, 0.03, 1, 1))
    fig.savefig(path)
    plt.close(fig)


def _wave_histogram(ax, w, res):
    """Devices back per 100 ms after the server's return."""
    delays = w["delays_s"]
    top = max(delays) if delays else 1.0
    bins = [i / 10.0 for i in range(int(top * 10) + 2)]
    ax.hist(delays, bins=bins, color="tab:green")
    ax.set_xlabel("seconds after the server's return (100 ms bins)")
    ax.set_ylabel("devices back")
    text = "%d devices back, peak %s in 100 ms" % (w["back"], w.get("peak_per_100ms"))
    after = res.get("seed_groups_after")
    if after:
        text += "; their handshakes: %d distinct keys (clock-seeded generator)" % (
            after["distinct_keys"])
    b = res.get("backoff")
    if b and b.get("devices"):
        text += "\nrandom back-off: %d devices, %d distinct sequences, largest group %d" % (
            b["devices"], b["distinct_sequences"], b["largest_group"])
    ax.set_title(text, fontsize=9)
    ax.grid(True, alpha=0.3)


def _spans(res):
    out = []
    if res.get("went") and res.get("back"):
        label = "server away" if "outage_s" in res else "network lost"
        out.append((res["went"], res["back"], label))
    for shard in res.get("shards") or []:
        if shard.get("went") and shard.get("back"):
            out.append((shard["went"], shard["back"], None))
    return out


# ---- merging shards -------------------------------------------------------------------

def read_reports(paths):
    """Reports from files; "-" reads standard input, which may also be
    logs holding report lines (STDOUT_PREFIX, as --report-stdout prints
    them and `kubectl logs` collects them)."""
    docs = []
    for p in paths:
        text = sys.stdin.read() if p == "-" else open(p).read()
        found = [json.loads(line[line.index(STDOUT_PREFIX) + len(STDOUT_PREFIX):])
                 for line in text.splitlines() if STDOUT_PREFIX in line]
        if found:
            docs += found
        elif text.strip():
            docs.append(json.loads(text))
    return docs


def merge(docs):
    if not docs:
        raise ValueError("no report to merge")
    for d in docs:
        if d.get("kind") != "korvat-fleet-report":
            raise ValueError("not a fleet report")
    names = {d["scenario"]["name"] for d in docs}
    if len(names) != 1:
        raise ValueError("reports of different scenarios: %s" % ", ".join(sorted(names)))
    docs = sorted(docs, key=lambda d: d["fleet"]["first_index"])
    first = docs[0]
    out = {
        "kind": "korvat-fleet-report", "version": 1, "merged": len(docs),
        "created": time.strftime("%Y-%m-%dT%H:%M:%S%z"), "command": sys.argv,
        "host": [d["host"] for d in docs],
        "fleet": {"spec": first["fleet"]["spec"], "shard": None,
                  "shards": [d["fleet"]["shard"] for d in docs],
                  "first_index": first["fleet"]["first_index"],
                  "devices": sum(d["fleet"]["devices"] for d in docs),
                  "first_mac": first["fleet"]["first_mac"],
                  "last_mac": docs[-1]["fleet"]["last_mac"],
                  "shared": first["fleet"].get("shared")},
        "server": first["server"],
        "started": min(d["started"] for d in docs), "ended": max(d["ended"] for d in docs),
        "steady_from": max((d.get("steady_from") or 0) for d in docs) or None,
        "steady_until": min((d.get("steady_until") or float("inf")) for d in docs),
        "interrupted": any(d.get("interrupted") for d in docs),
        "errors": sum((d.get("errors") or [] for d in docs), []),
        "summary": _sum_summaries([d["summary"] for d in docs]),
        "timeline_fields": TIMELINE_FIELDS,
        "timeline": _sum_timelines([d["timeline"] for d in docs]),
        "connections": sorted(sum((d.get("connections") or [] for d in docs), []),
                              key=lambda e: e[0]),
        "events": sorted(sum((d.get("events") or [] for d in docs), []), key=lambda e: e[0]),
        "requests": _merge_requests(docs),
        "cpu": _merge_cpu([d.get("cpu") for d in docs]),
        "memory": _merge_memory([d.get("memory") or {} for d in docs]),
        "devices": sum((d["devices"] for d in docs), []),
    }
    if out["steady_until"] == float("inf"):
        out["steady_until"] = None
    out["scenario"] = {"name": first["scenario"]["name"], "options": first["scenario"]["options"],
                       "result": _merge_scenario(first["scenario"]["name"],
                                                 [d["scenario"].get("result") or {} for d in docs])}
    out["problems"] = problems_of(out)
    return out


def _sum_summaries(items):
    out = {"phase": "merged", "elapsed": max(s.get("elapsed", 0) for s in items)}
    for k in SUMMED:
        vals = [s.get(k) for s in items if s.get(k) is not None]
        out[k] = sum(vals) if vals else None
    return out


def _sum_timelines(lists):
    """Rows summed per whole second of wall-clock time; a shard without a
    row in a second counts with its latest row before it."""
    seconds = sorted({int(r[0]) for rows in lists for r in rows})
    out = []
    idx = [0] * len(lists)
    last = [None] * len(lists)
    for sec in seconds:
        row = [sec] + [0] * (len(TIMELINE_FIELDS) - 1)
        for i, rows in enumerate(lists):
            while idx[i] < len(rows) and int(rows[idx[i]][0]) <= sec:
                last[i] = rows[idx[i]]
                idx[i] += 1
            if last[i] is not None:
                for j in range(1, len(TIMELINE_FIELDS)):
                    if last[i][j] is not None:
                        row[j] += last[i][j]
        out.append(row)
    return out


def _merge_requests(docs):
    by_label = {}
    for d in docs:
        for r in d.get("requests") or []:
            label = r["id"].rsplit("-", 1)[0]
            m = by_label.setdefault(label, {"id": label, "method": r["method"], "sent": 0,
                                            "skipped": 0, "answered": 0, "missing": [],
                                            "duplicated": [], "wrong": [], "rtts_ms": [],
                                            "send_took_s": 0})
            for k in ("sent", "skipped", "answered"):
                m[k] += r[k]
            for k in ("missing", "duplicated", "wrong", "rtts_ms"):
                m[k] += r[k]
            m["send_took_s"] = max(m["send_took_s"], r.get("send_took_s") or 0)
    for m in by_label.values():
        x = m["rtts_ms"]
        m["rtt_ms"] = {"median": _pct(x, 0.5), "p90": _pct(x, 0.9), "p99": _pct(x, 0.99),
                       "max": max(x) if x else None}
    return list(by_label.values())


def _merge_cpu(items):
    items = [c for c in items if c]
    if not items:
        return None
    devices = sum(c["devices"] for c in items)
    kinds = set()
    for c in items:
        kinds |= set(c["per_device_per_minute_s"])
    per = {k: round(sum(c["per_device_per_minute_s"].get(k, 0) * c["devices"] for c in items)
                    / devices, 4) for k in kinds}
    return {"window_s": min(c["window_s"] for c in items), "devices": devices,
            "total_cpu_s": round(sum(c["total_cpu_s"] for c in items), 2),
            "cores_busy": round(sum(c["cores_busy"] for c in items), 3),
            "per_device_per_minute_s": per,
            "per_device_per_minute_total_s": round(sum(per.values()), 4),
            "shards": items}


def _merge_memory(items):
    last = [m.get("last") for m in items if m.get("last")]
    if not last:
        return {"last": None, "peak": None, "per_device_kib": None}
    total = sum(m["total_kib"] for m in last)
    return {"last": {"total_kib": total}, "peak": None, "shards": items,
            "per_device_kib": None}


def _merge_scenario(name, results):
    if name != "restart":
        return {"shards": results}
    delays = []
    n = 0
    for r in results:
        w = r.get("wave") or {}
        delays += w.get("delays_s") or []
        n += w.get("devices") or 0
    queued = {"sent": 0, "after_reconnection": 0, "before_outage": 0, "lost": [],
              "duplicated": [], "wrong": []}
    for r in results:
        q = r.get("queued") or {}
        for k in ("sent", "after_reconnection", "before_outage"):
            queued[k] += q.get(k, 0)
        for k in ("lost", "duplicated", "wrong"):
            queued[k] += q.get(k, [])
    seeds = [r.get("seed_groups") for r in results if r.get("seed_groups")]
    return {"outage_s": results[0].get("outage_s"),
            "wave": wave_from_delays(delays, n), "queued": queued,
            "seed_groups": {"devices": sum(s["devices"] for s in seeds),
                            "distinct_keys": sum(s["distinct_keys"] for s in seeds),
                            "largest_group": max([s["largest_group"] for s in seeds] or [0])},
            "seed_groups_after": {
                "devices": sum(r["seed_groups_after"]["devices"] for r in results
                               if r.get("seed_groups_after")),
                "distinct_keys": sum(r["seed_groups_after"]["distinct_keys"] for r in results
                                     if r.get("seed_groups_after"))},
            "shards": [{"went": r.get("went"), "back": r.get("back")} for r in results]}
