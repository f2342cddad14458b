// The console's pages: plain JavaScript, data from the console's JSON API.
// Everything a device sends is put into the page as text (textContent),
// never as markup.
"use strict";
var kc = (function () {
  var POLL_MS = 1500;

  function api(path, body) {
    var opts = {credentials: "same-origin", headers: {}};
    if (body !== undefined) {
      opts.method = "POST";
      opts.headers["Content-Type"] = "application/json";
      opts.headers["X-Console"] = "1";
      opts.body = JSON.stringify(body);
    }
    return fetch(path, opts).then(function (r) {
      return r.json().then(function (data) {
        if (!r.ok) { throw new Error(data.error || ("HTTP " + r.status)); }
        return data;
      });
    });
  }

  function el(tag, text, cls) {
    var e = document.createElement(tag);
    if (text !== undefined && text !== null) { e.textContent = String(text); }
    if (cls) { e.className = cls; }
    return e;
  }

  function row(cells) {
    var tr = document.createElement("tr");
    cells.forEach(function (c) {
      if (c instanceof Node) { var td = document.createElement("td"); td.appendChild(c); tr.appendChild(td); }
      else { tr.appendChild(el("td", c)); }
    });
    return tr;
  }

  function when(t) {
    if (!t) { return ""; }
    var d = new Date(t * 1000);
    return d.toLocaleDateString() + " " + d.toLocaleTimeString();
  }
  function clock(t) { return t ? new Date(t * 1000).toLocaleTimeString() : ""; }

  function connection(d) {
    if (d.connected) { return el("span", "connected since " + when(d.connected_since), "on"); }
    return el("span", "disconnected" + (d.disconnected_at ? " since " + when(d.disconnected_at) : ""), "off");
  }

  function lastStatus(d) {
    var s = d.last_status;
    if (!s) { return "none yet"; }
    var sys = s.system || {};
    return clock(d.last_status_at) + ": CPU " + sys.cpu + " %, memory used " +
      Math.round((sys.memUsed || 0) / 1048576) + " MiB, free " + Math.round((sys.memFree || 0) / 1048576) + " MiB";
  }

  function historyRows(tbody, rows, withDevice) {
    tbody.textContent = "";
    rows.forEach(function (h) {
      var cells = [h.id, when(h.at)];
      if (withDevice) { cells.push(h.mac); }
      cells.push(h.source, h.method, h.outcome, h.rtt_ms === null ? "" : h.rtt_ms + " ms");
      if (!withDevice) { cells.push(el("span", h.request, "mono history-reply")); }
      cells.push(el("span", h.reply === null ? "" : h.reply, "mono history-reply"));
      var tr = row(cells);
      tr.dataset.historyId = h.id;
      tbody.appendChild(tr);
    });
  }

  // ----- device list -------------------------------------------------------------------------

  function indexPage() {
    var body = document.querySelector("#devices tbody");
    var hist = document.querySelector("#history tbody");
    function refresh() {
      api("/api/devices").then(function (data) {
        body.textContent = "";
        data.devices.forEach(function (d) {
          var a = el("a", d.mac);
          a.href = "/device/" + encodeURIComponent(d.mac);
          var tr = row([a, d.model || "", d.firmware || "", d.lan_address || "", connection(d), lastStatus(d)]);
          tr.dataset.mac = d.mac;
          tr.className = "device";
          body.appendChild(tr);
        });
        document.getElementById("devices-note").textContent =
          data.devices.length ? "" : "No device has connected yet.";
      }).catch(function () {});
      api("/api/history").then(function (data) { historyRows(hist, data.requests, true); }).catch(function () {});
    }
    refresh();
    setInterval(refresh, POLL_MS);
  }

  // ----- device page -------------------------------------------------------------------------

  function lineChart(id, title, series, yTitle) {
    var colours = ["#1d6fb8", "#d2691e", "#2e8b57", "#8b3a8b"];
    var chart = new Chart(document.getElementById(id), {
      type: "line",
      data: {labels: [], datasets: series.map(function (s, i) {
        return {label: s, data: [], borderColor: colours[i], backgroundColor: colours[i],
                pointRadius: 2, tension: 0.2, spanGaps: true};
      })},
      options: {animation: false, maintainAspectRatio: false, responsive: true,
                plugins: {title: {display: true, text: title}},
                scales: {y: {beginAtZero: true, title: {display: true, text: yTitle}}}}
    });
    return chart;
  }

  function devicePage(mac) {
    var charts = {
      cpu: lineChart("chart-cpu", "CPU", ["CPU %"], "%"),
      mem: lineChart("chart-mem", "Memory", ["used MiB", "free MiB"], "MiB"),
      traffic: lineChart("chart-traffic", "Traffic", ["LAN rx", "LAN tx", "radio rx", "radio tx"], "kB/s")
    };
    window.kcCharts = charts;
    var last = {status: 0, events: 0, logs: 0, prev: null};
    document.getElementById("device-title").textContent = mac;

    function addStatus(s) {
      var label = clock(s.at);
      var rate = function (key) {
        if (!last.prev || s[key] === null || last.prev[key] === null) { return null; }
        var dt = s.at - last.prev.at;
        return dt > 0 ? Math.max(0, (s[key] - last.prev[key]) / dt / 1000) : null;
      };
      charts.cpu.data.labels.push(label);
      charts.cpu.data.datasets[0].data.push(s.cpu);
      charts.mem.data.labels.push(label);
      charts.mem.data.datasets[0].data.push((s.mem_used || 0) / 1048576);
      charts.mem.data.datasets[1].data.push((s.mem_free || 0) / 1048576);
      charts.traffic.data.labels.push(label);
      ["lan_rx", "lan_tx", "radio_rx", "radio_tx"].forEach(function (k, i) {
        charts.traffic.data.datasets[i].data.push(rate(k));
      });
      last.prev = s;
    }

    function pollStatus() {
      return api("/api/devices/" + encodeURIComponent(mac) + "/status?after=" + last.status).then(function (data) {
        if (!data.status.length) { return; }
        data.status.forEach(function (s) { addStatus(s); last.status = s.id; });
        Object.keys(charts).forEach(function (k) {
          var c = charts[k];
          while (c.data.labels.length > 120) { c.data.labels.shift(); c.data.datasets.forEach(function (d) { d.data.shift(); }); }
          c.update();
          c.canvas.dataset.points = c.data.labels.length;
        });
        document.getElementById("status-note").textContent = "Status updates shown: " + charts.cpu.data.labels.length;
      });
    }

    function pollDevice() {
      return api("/api/devices/" + encodeURIComponent(mac)).then(function (d) {
        document.getElementById("device-title").textContent =
          d.mac + "  " + (d.model || "") + "  firmware " + (d.firmware || "?") + "  LAN " + (d.lan_address || "?");
        var st = document.getElementById("device-state");
        st.textContent = "";
        st.appendChild(connection(d));
      }).catch(function () {
        document.getElementById("device-state").textContent = "unknown device";
      });
    }

    function pollEvents() {
      return api("/api/devices/" + encodeURIComponent(mac) + "/events?after=" + last.events).then(function (data) {
        var body = document.querySelector("#events tbody");
        data.events.forEach(function (e) {
          body.insertBefore(row([e.number, e.date_time, e.type, e.event]), body.firstChild);
          last.events = e.id;
        });
      });
    }

    function pollLogs() {
      return api("/api/devices/" + encodeURIComponent(mac) + "/logs?after=" + last.logs).then(function (data) {
        var view = document.getElementById("log-view");
        data.logs.forEach(function (l) {
          var line = el("div", (l.date_time || "") + "  " + l.message, "log-line");
          view.appendChild(line);
          last.logs = l.id;
        });
        if (data.logs.length) { view.scrollTop = view.scrollHeight; }
      });
    }

    function pollHistory() {
      return api("/api/history?mac=" + encodeURIComponent(mac)).then(function (data) {
        historyRows(document.querySelector("#history tbody"), data.requests, false);
      });
    }

    function poll() {
      Promise.all([pollDevice(), pollStatus(), pollEvents(), pollLogs(), pollHistory()]).catch(function () {});
    }
    poll();
    setInterval(poll, POLL_MS);

    // the request form, from the protocol document
    var doc = null;
    var select = document.getElementById("method");
    var params = document.getElementById("params");
    var message = document.getElementById("form-message");
    function method(name) {
      return doc.methods.filter(function (m) { return m.name === name; })[0];
    }
    function template(m) {
      var ex = (m.examples || [])[0];
      var p = {};
      (ex ? ex.params : []).forEach(function (x) { p[x.name] = x.value; });
      if ("deviceId" in p || !ex) { p.deviceId = mac; }
      return JSON.stringify(p, null, 2);
    }
    function chosen() {
      var m = method(select.value);
      params.value = template(m);
      document.getElementById("method-summary").textContent = m.summary + (m["x-changes-device"] ? " (changes the device)" : "");
      document.getElementById("method-params").textContent = "Parameters: " + m.params.map(function (p) {
        return p.name + (p.required ? " (required)" : "");
      }).join(", ");
      message.textContent = "";
    }
    api("/openrpc.json").then(function (d) {
      doc = d;
      d.methods.filter(function (m) { return !m["x-notification"]; }).forEach(function (m) {
        var o = el("option", m.name);
        o.value = m.name;
        select.appendChild(o);
      });
      select.addEventListener("change", chosen);
      chosen();
      refreshWireless();
    });

    function send(name, p) {
      message.textContent = "";
      document.getElementById("outcome").textContent = "waiting...";
      document.getElementById("reply").textContent = "";
      document.getElementById("rtt").textContent = "-";
      api("/api/devices/" + encodeURIComponent(mac) + "/request", {method: name, params: p}).then(function (out) {
        document.getElementById("outcome").textContent = out.outcome;
        document.getElementById("rtt").textContent = out.rtt_ms === null ? "-" : out.rtt_ms + " ms";
        document.getElementById("reply").textContent = out.reply === null ?
          (out.outcome === "sent" ? "(no reply of its own: streamed results follow)" : "(no reply)") : out.reply;
        pollHistory();
      }).catch(function (e) {
        document.getElementById("outcome").textContent = "refused";
        message.textContent = e.message;
      });
    }

    var dialog = document.getElementById("confirm");
    var pending = null;
    document.getElementById("send").addEventListener("click", function () {
      var p;
      try {
        p = JSON.parse(params.value);
      } catch (e) {
        message.textContent = "The parameters are not valid JSON (" + e.message + "): nothing was sent.";
        return;
      }
      var m = method(select.value);
      if (m && m["x-changes-device"]) {
        pending = {name: m.name, params: p};
        document.getElementById("confirm-text").textContent =
          m.name + " changes the device (" + m.summary + "). Send it to " + mac + "?";
        dialog.showModal();
        return;
      }
      send(select.value, p);
    });
    document.getElementById("confirm-yes").addEventListener("click", function () {
      dialog.close();
      if (pending) { send(pending.name, pending.params); pending = null; }
    });
    document.getElementById("confirm-no").addEventListener("click", function () {
      dialog.close();
      pending = null;
      message.textContent = "Not sent.";
    });

    // system log streaming
    function stream(enable) {
      api("/api/devices/" + encodeURIComponent(mac) + "/logstream", {enable: enable}).then(function (out) {
        document.getElementById("log-state").textContent = enable ?
          (out.outcome === "sent" ? "streaming" : out.outcome) : "stopped";
      }).catch(function (e) { document.getElementById("log-state").textContent = e.message; });
    }
    document.getElementById("log-start").addEventListener("click", function () { stream(true); });
    document.getElementById("log-stop").addEventListener("click", function () { stream(false); });

    // wireless networks and clients
    function refreshWireless() {
      var base = "/api/devices/" + encodeURIComponent(mac) + "/request";
      api(base, {method: "vekGetNetworkStatus", params: {deviceId: mac}, source: "console"}).then(function (out) {
        var body = document.querySelector("#networks tbody");
        body.textContent = "";
        var r = out.reply ? JSON.parse(out.reply).result || {} : {};
        (r.networks || []).concat((r.guestNetworks || []).map(function (g) {
          return {networkIndex: "guest", ssid: g.ssid, interface: g.interface, enabled: g.enabled};
        })).forEach(function (n) {
          body.appendChild(row([n.networkIndex, n.ssid, n.interface, n.enabled ? "yes" : "no",
                                n.clients === undefined ? "" : n.clients, n.rx === undefined ? "" : n.rx,
                                n.tx === undefined ? "" : n.tx]));
        });
      }).catch(function () {});
      api(base, {method: "vekGetClientStatus", params: {deviceId: mac}, source: "console"}).then(function (out) {
        var body = document.querySelector("#clients tbody");
        body.textContent = "";
        var r = out.reply ? JSON.parse(out.reply).result || {} : {};
        (r.clients || []).forEach(function (c) {
          body.appendChild(row([c.cmac, c.name, c.ssid, c.interface, c.signal, c.rx, c.tx]));
        });
      }).catch(function () {});
    }
    document.getElementById("wireless-refresh").addEventListener("click", refreshWireless);
  }

  return {indexPage: indexPage, devicePage: devicePage};
})();
