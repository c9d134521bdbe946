'use strict';
// One tavern server: its own HTTP(S) listener and Socket.IO server, so that it can be stopped, restarted
// or silenced alone. It records each connection (handshake, negotiated compression, traffic, events) and
// lets the control interface act on connections: push events, disconnect, drop the transport, flood.
const http = require('node:http');
const https = require('node:https');
const { Server } = require('socket.io');
const binary = require('./binary');
const log = require('./log');

// Makes an Engine.IO connection go quiet: no more heartbeats, nothing sent, nothing received is acted
// upon; the TCP connection stays open, so only the client's own ping time-out can end it.
function silence(conn) {
  if (conn.silenced) return;
  conn.silenced = true;
  clearTimeout(conn.pingIntervalTimer);
  clearTimeout(conn.pingTimeoutTimer);
  conn.pingIntervalTimer = null;
  conn.pingTimeoutTimer = null;
  conn.schedulePing = () => {};
  conn.resetPingTimeout = () => {};
  conn.sendPacket = () => {};
  conn.transport.removeAllListeners('packet');
}

// The `ws` WebSocket under a Socket.IO socket (test-only access to private fields).
function webSocketOf(socket) {
  const transport = socket.conn && socket.conn.transport;
  return transport && transport.name === 'websocket' ? transport.socket : null;
}

function traffic(ws) {
  const tcp = ws && ws._socket;
  return tcp ? { bytesRead: tcp.bytesRead, bytesWritten: tcp.bytesWritten } : { bytesRead: 0, bytesWritten: 0 };
}

function withoutAck(args) {
  const ack = typeof args[args.length - 1] === 'function' ? args.pop() : undefined;
  return { args, ack };
}

const SILENT_MODES = ['connected', 'open'];
const RESERVED_EVENTS = ['connect', 'connect_error', 'disconnect', 'disconnecting', 'newListener', 'removeListener'];

class TavernServer {
  // id: the number the control interface uses; credentials: {cert, key} for a TLS server, else null;
  // silent: a server that is silent from the start and stays so.
  // sessions: the login of every new connection, or null when logins are not checked.
  constructor({ id, credentials, silent, options, commands, sessions }) {
    this.id = id;
    this.credentials = credentials;
    this.alwaysSilent = Boolean(silent);
    this.silentMode = silent ? 'connected' : null;
    this.options = options;
    this.commands = commands;
    this.sessions = sessions;
    this.port = 0;
    this.server = null;
    this.io = null;
    this.tcp = new Set();
    this.records = new Map();
    this.onConnect = [];
    this.lifecycle = Promise.resolve();
  }

  // Starts and stops run one after the other, so a restart finds the port released.
  serialize(op) {
    const done = this.lifecycle.then(op);
    this.lifecycle = done.catch(() => {});
    return done;
  }

  get url() {
    return `${this.credentials ? 'https' : 'http'}://127.0.0.1:${this.port}`;
  }

  get running() {
    return this.server !== null;
  }

  // Listens on the previous port when there was one (restart), else on an ephemeral port; falls back to an
  // ephemeral port when the old one is taken.
  start() {
    return this.serialize(() => this.open());
  }

  async open() {
    if (this.running) return;
    try {
      await this.listen(this.port);
    } catch (err) {
      if (err.code !== 'EADDRINUSE' || this.port === 0) throw err;
      log.info(`tavern ${this.id}: port ${this.port} taken, using a new one`);
      await this.listen(0);
    }
  }

  async listen(port) {
    const server = this.credentials ? https.createServer(this.credentials) : http.createServer();
    server.on('connection', (s) => {
      this.tcp.add(s);
      s.on('close', () => this.tcp.delete(s));
    });
    server.on('tlsClientError', (err) => log.debug(`tavern ${this.id}: TLS client error: ${err.message}`));
    const { pingInterval, pingTimeout, perMessageDeflate, maxHttpBufferSize } = this.options;
    const io = new Server(server, { pingInterval, pingTimeout, perMessageDeflate, maxHttpBufferSize, serveClient: false });
    io.engine.on('connection', (conn) => {
      if (this.silentMode === 'open') silence(conn);
    });
    io.on('connection', (socket) => this.accept(socket));
    await new Promise((resolve, reject) => {
      server.once('error', reject);
      server.listen(port, '127.0.0.1', () => {
        server.removeListener('error', reject);
        resolve();
      });
    }).catch((err) => {
      io.close();
      throw err;
    });
    server.on('error', (err) => log.info(`tavern ${this.id}: ${err.message}`));
    this.server = server;
    this.io = io;
    this.port = server.address().port;
  }

  // Closes every connection (a WebSocket close, no "41") and the listener. Peers that do not close in
  // return within a second are cut off, so a stop is bounded.
  stop() {
    return this.serialize(() => this.close());
  }

  async close() {
    if (!this.running) return;
    const { io } = this;
    this.server = null;
    this.io = null;
    await new Promise((resolve) => {
      const cutOff = setTimeout(() => {
        for (const s of this.tcp) s.destroy();
      }, 1000);
      io.close(() => {
        clearTimeout(cutOff);
        resolve();
      });
    });
    log.debug(`tavern ${this.id} stopped`);
  }

  accept(socket) {
    const ws = webSocketOf(socket);
    const rec = {
      id: socket.id,
      sid: socket.conn.id,
      connected: true,
      disconnectReason: null,
      query: socket.handshake.query,
      headers: socket.handshake.headers,
      transport: socket.conn.transport.name,
      connectedAt: Date.now(),
      events: [],
      socket,
      ws,
      traffic: null,
    };
    this.records.set(socket.id, rec);
    log.debug(`tavern ${this.id}: connection ${socket.id} ${JSON.stringify(rec.query)}`);
    socket.on('disconnect', (reason) => {
      rec.connected = false;
      rec.disconnectReason = reason;
      rec.traffic = traffic(rec.ws);
      rec.socket = null;
      rec.ws = null;
      if (!this.options.record) this.records.delete(socket.id);
      log.debug(`tavern ${this.id}: ${socket.id} disconnected: ${reason}`);
    });
    if (this.silentMode) {
      silence(socket.conn);
      return;
    }
    if (this.options.record) {
      socket.onAny((name, ...rest) => {
        const { args, ack } = withoutAck(rest);
        rec.events.push({ name, args: binary.encode(args), ack: Boolean(ack), at: Date.now() });
      });
    }
    socket.on('command', (...rest) => {
      const { args, ack } = withoutAck(rest);
      this.commands.handle({ server: this.id, socket: socket.id }, args[0], args[1], ack, socket);
    });
    socket.on('echo', (...rest) => {
      const { args, ack } = withoutAck(rest);
      if (ack) ack(...args);
    });
    for (const step of this.onConnect) this.runStep(socket, step);
    if (this.sessions && socket.connected) this.sessions.login(this.id, socket);
  }

  runStep(socket, step) {
    if (step.emit !== undefined) socket.emit(step.emit, ...binary.decode(step.args || []));
    else this.disconnectOne(socket, step);
  }

  // Steps run on every new connection, in order: {emit:name, args:[...]} or {disconnect:true, reason?, close?}.
  setOnConnect(steps) {
    if (!Array.isArray(steps)) throw new Error('steps must be an array');
    for (const s of steps) {
      const isEmit = s && typeof s.emit === 'string' && (s.args === undefined || Array.isArray(s.args));
      const isDisconnect = s && s.disconnect === true;
      if (!isEmit && !isDisconnect) throw new Error('a step is {emit:name, args:[...]} or {disconnect:true, reason?, close?}');
    }
    this.onConnect = steps;
  }

  list(connectedOnly) {
    const out = [];
    for (const rec of this.records.values()) {
      if (connectedOnly && !rec.connected) continue;
      const ws = rec.ws;
      out.push({
        id: rec.id,
        sid: rec.sid,
        connected: rec.connected,
        disconnectReason: rec.disconnectReason,
        transport: rec.transport,
        query: rec.query,
        headers: rec.headers,
        extensions: ws ? ws.extensions : '',
        deflate: Boolean(ws && ws._extensions && ws._extensions['permessage-deflate']),
        ...(rec.traffic || traffic(ws)),
        connectedAt: rec.connectedAt,
        events: rec.events,
      });
    }
    return out;
  }

  clearRecords() {
    for (const [id, rec] of this.records) {
      if (rec.connected) rec.events = [];
      else this.records.delete(id);
    }
  }

  // The live sockets a request names: one by Socket.IO id, or all when the id is omitted.
  targets(socketId) {
    if (socketId === undefined || socketId === null) {
      return [...this.records.values()].filter((r) => r.connected).map((r) => r.socket);
    }
    const rec = this.records.get(socketId);
    if (!rec || !rec.connected) throw new Error(`no live connection ${socketId} on tavern ${this.id}`);
    return [rec.socket];
  }

  async push(socketId, event, args, { ack, timeoutMs }) {
    if (typeof event !== 'string' || RESERVED_EVENTS.includes(event)) throw new Error('event must be a non-reserved name');
    if (!Array.isArray(args)) throw new Error('args must be an array');
    const sockets = this.targets(socketId);
    const values = binary.decode(args);
    if (!ack) {
      for (const s of sockets) s.emit(event, ...values);
      return { sent: sockets.length };
    }
    const acks = await Promise.all(
      sockets.map(
        (s) =>
          new Promise((resolve) => {
            s.timeout(timeoutMs).emit(event, ...values, (err, ...resp) => {
              resolve(err ? { socket: s.id, error: 'timeout' } : { socket: s.id, args: binary.encode(resp) });
            });
          }),
      ),
    );
    return { sent: sockets.length, acks };
  }

  // Raw frames on the WebSocket, bypassing Socket.IO: text as strings, binary as {"$base64": ...}.
  raw(socketId, frames) {
    if (!Array.isArray(frames)) throw new Error('frames must be an array');
    const sockets = this.targets(socketId);
    for (const s of sockets) {
      const ws = webSocketOf(s);
      if (!ws) throw new Error(`connection ${s.id} is not on a WebSocket`);
      for (const f of frames) {
        const data = binary.decode(f);
        if (typeof data !== 'string' && !Buffer.isBuffer(data)) throw new Error('a frame is a string or {"$base64": ...}');
        ws.send(data, { binary: Buffer.isBuffer(data) });
      }
    }
    return { sent: sockets.length };
  }

  disconnectOne(socket, { reason, close }) {
    if (reason !== undefined) socket.emit('disconnectReason', reason);
    socket.disconnect(Boolean(close));
  }

  // Server-side disconnect ("41"), optionally preceded by "disconnectReason" with the given text;
  // close: true also closes the underlying connection.
  disconnect(socketId, opts) {
    if (opts.reason !== undefined && typeof opts.reason !== 'string') throw new Error('reason must be a string');
    const sockets = this.targets(socketId);
    for (const s of sockets) this.disconnectOne(s, opts);
    return { disconnected: sockets.length };
  }

  // Cuts the TCP connection without a WebSocket close frame.
  dropTransport(socketId) {
    const sockets = this.targets(socketId);
    for (const s of sockets) {
      const ws = webSocketOf(s);
      if (ws && ws._socket) ws._socket.destroy();
      else s.conn.close();
    }
    return { dropped: sockets.length };
  }

  // mode: 'connected' (after the Socket.IO connect reply), 'open' (after the Engine.IO open packet: the
  // connect reply never comes), or null to serve new connections normally again. Live connections are
  // silenced at once when a mode is set; a silenced connection stays so.
  setSilent(mode) {
    if (mode !== null && !SILENT_MODES.includes(mode)) throw new Error(`silent mode must be one of ${SILENT_MODES}`);
    if (this.alwaysSilent && mode === null) throw new Error('the silent server cannot be made to talk');
    this.silentMode = mode;
    if (mode) for (const s of this.targets()) silence(s.conn);
  }

  // Emits `count` events of `size` characters each to one connection as fast as the event loop allows,
  // yielding between chunks so the sends make progress; resolves when every emit is handed over.
  // args: the event's argument list (binary values as in push); without it, one string of `size` bytes.
  // With `cycle`, args is a list of argument lists that the events carry in turn.
  async burst(socketId, event, count, size, args, cycle) {
    if (socketId === undefined || socketId === null) throw new Error('burst needs a socket');
    if (typeof event !== 'string') throw new Error('event must be a string');
    if (!Number.isInteger(count) || count < 0 || !Number.isInteger(size) || size < 0) {
      throw new Error('count and size must be non-negative integers');
    }
    if (args !== undefined && !Array.isArray(args)) throw new Error('args must be an array');
    const [socket] = this.targets(socketId);
    const payloads = args === undefined ? [['x'.repeat(size)]] : cycle ? binary.decode(args) : [binary.decode(args)];
    if (payloads.length === 0 || !payloads.every(Array.isArray)) throw new Error('cycle needs argument lists');
    const started = process.hrtime.bigint();
    for (let i = 0; i < count; ) {
      for (const end = Math.min(count, i + 1000); i < end; ++i) socket.emit(event, ...payloads[i % payloads.length]);
      if (i < count) await new Promise((resolve) => setImmediate(resolve));
    }
    return { sent: count, ms: Number(process.hrtime.bigint() - started) / 1e6 };
  }

  // Back to the start-up state, except for live connections: scripts gone, silence off, records cleared.
  reset() {
    this.onConnect = [];
    if (!this.alwaysSilent) this.silentMode = null;
    this.clearRecords();
  }
}

module.exports = { TavernServer };
