#!/usr/bin/env node
'use strict';
/*
 * Device server on Node's "ws" library, driven over standard input and
 * output with one JSON object per line (the control protocol of
 * tests/interop/README.md).
 *
 *   node tests/interop/ws_server.js [--host H] [--port N] [--tls --cert-dir D]
 *
 * Debian installs the library under /usr/share/nodejs; a Node whose module
 * search path lacks that folder still finds it through the fallback below.
 */
const fs = require('fs');
const http = require('http');
const https = require('https');
const path = require('path');
const readline = require('readline');

function loadWs() {
  try {
    return require('ws');
  } catch (err) {
    if (err.code !== 'MODULE_NOT_FOUND') throw err;
    return require('/usr/share/nodejs/ws');
  }
}
const { WebSocketServer } = loadWs();

const SUBPROTOCOL = 'nimb-protocol';

function parseArgs(argv) {
  const opts = { host: '127.0.0.1', port: 0, tls: false, certDir: null };
  for (let i = 0; i < argv.length; i++) {
    const a = argv[i];
    if (a === '--host') opts.host = argv[++i];
    else if (a === '--port') opts.port = Number(argv[++i]);
    else if (a === '--tls') opts.tls = true;
    else if (a === '--cert-dir') opts.certDir = argv[++i];
    else throw new Error('unknown argument ' + a);
  }
  if (opts.tls && !opts.certDir) throw new Error('--tls needs --cert-dir');
  return opts;
}

function emit(obj) {
  process.stdout.write(JSON.stringify(obj) + '\n');
}

const opts = parseArgs(process.argv.slice(2));
const connections = new Map();   // index -> WebSocket, open ones only
let nextIndex = 1;

const httpServer = opts.tls
  ? https.createServer({
      cert: fs.readFileSync(path.join(opts.certDir, 'server.crt')),
      key: fs.readFileSync(path.join(opts.certDir, 'server.key')),
    })
  : http.createServer();

const wss = new WebSocketServer({
  server: httpServer,
  perMessageDeflate: false,
  maxPayload: 0,
  handleProtocols: (protocols) => (protocols.has(SUBPROTOCOL) ? SUBPROTOCOL : false),
});

wss.on('connection', (ws, req) => {
  const index = nextIndex++;
  connections.set(index, ws);
  const headers = [];
  for (let i = 0; i + 1 < req.rawHeaders.length; i += 2) {
    headers.push([req.rawHeaders[i], req.rawHeaders[i + 1]]);
  }
  const sock = req.socket;
  emit({
    event: 'open', conn: index, method: req.method, path: req.url,
    version: req.httpVersion, protocol: ws.protocol || null, headers,
    tls: Boolean(sock.encrypted),
    resumed: sock.encrypted ? sock.isSessionReused() : null,
  });
  ws.on('message', (data) => {
    emit({ event: 'text', conn: index, text: data.toString('utf8') });
  });
  ws.on('pong', (data) => {
    emit({ event: 'pong', conn: index, payload: data.toString('hex') });
  });
  ws.on('error', (err) => {
    emit({ event: 'error', conn: index, message: String(err.message || err) });
  });
  ws.on('close', (code, reason) => {
    connections.delete(index);
    emit({ event: 'closed', conn: index, code, reason: reason.toString('utf8') });
  });
});

/* The connection a command names, or the newest open one. */
function target(cmd) {
  if (cmd.conn !== undefined && cmd.conn !== null) {
    const ws = connections.get(cmd.conn);
    if (!ws) throw new Error('connection ' + cmd.conn + ' is not open');
    return ws;
  }
  let newest = null;
  for (const [index, ws] of connections) {
    if (newest === null || index > newest[0]) newest = [index, ws];
  }
  if (newest === null) throw new Error('no open connection');
  return newest[1];
}

function quit() {
  for (const ws of connections.values()) ws.terminate();
  wss.close();
  httpServer.close();
  process.exit(0);
}

function run(cmd) {
  switch (cmd.cmd) {
    case 'send':
      target(cmd).send(String(cmd.text));
      break;
    case 'ping':
      target(cmd).ping(Buffer.from(cmd.payload || '', 'hex'));
      break;
    case 'close':
      target(cmd).close(cmd.code === undefined ? 1000 : cmd.code, cmd.reason || '');
      break;
    case 'quit':
      quit();
      break;
    default:
      throw new Error('unknown command ' + cmd.cmd);
  }
}

const input = readline.createInterface({ input: process.stdin, terminal: false });
input.on('line', (line) => {
  if (!line.trim()) return;
  let cmd = {};
  try {
    cmd = JSON.parse(line);
    run(cmd);
    emit({ event: 'ack', cmd: cmd.cmd, seq: cmd.seq === undefined ? null : cmd.seq, ok: true });
  } catch (err) {
    emit({ event: 'ack', cmd: cmd.cmd || null, seq: cmd.seq === undefined ? null : cmd.seq,
           ok: false, error: String(err.message || err) });
  }
});
input.on('close', quit);

httpServer.listen(opts.port, opts.host, () => {
  emit({ event: 'listening', server: 'ws', port: httpServer.address().port, tls: opts.tls });
});
