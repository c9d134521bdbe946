'use strict';
// The Socket.IO benchmark's server, kept apart from the dev server so the traffic stays fixed: a
// Node Socket.IO server that answers every "command" with [{"result":0}] and floods a connected
// socket with "ChannelMessageReceived" events on request, and a raw WebSocket echo on another port.
// Prints {"ready":true,"socketio":url,"echo":url}, then answers JSON-line requests on stdin:
//   {"id":1,"cmd":"burst","count":N}  ->  {"id":1,"ok":true,"sent":N} once N events have been queued
// node bench/socketio_bench_server.js [--deflate]
const path = require('node:path');
const http = require('node:http');
const readline = require('node:readline');

const modules = path.join(__dirname, '..', 'devserver', 'node_modules');
const { Server } = require(path.join(modules, 'socket.io'));
const { WebSocketServer } = require(path.join(modules, 'ws'));

const deflate = process.argv.includes('--deflate');

// The shape of a channel message as the service sends it: seven keys, two levels, ~100 bytes of text.
const EVENT = 'ChannelMessageReceived';
const message = {
  from: { channelId: 'ch-1', userId: 'u-42' },
  serverReceivedTs: 1718000000123,
  messageId: 'm-1',
  content: { text: 'hello' },
};

function listen(server) {
  return new Promise((resolve) => server.listen(0, '127.0.0.1', () => resolve(server.address().port)));
}

async function main() {
  const sioHttp = http.createServer();
  const io = new Server(sioHttp, { transports: ['websocket'], perMessageDeflate: deflate });
  const sockets = new Set();
  io.on('connection', (socket) => {
    sockets.add(socket);
    socket.on('disconnect', () => sockets.delete(socket));
    socket.on('command', (...args) => {
      const ack = args[args.length - 1];
      if (typeof ack === 'function') ack({ result: 0 });
    });
  });

  const echoHttp = http.createServer();
  const wss = new WebSocketServer({ server: echoHttp, perMessageDeflate: deflate });
  wss.on('connection', (ws) => {
    ws.on('message', (data, isBinary) => ws.send(data, { binary: isBinary }));
    ws.on('error', () => ws.terminate());
  });

  const sioPort = await listen(sioHttp);
  const echoPort = await listen(echoHttp);

  // Every connected socket gets the events, in slices that let the event loop write in between.
  async function burst(count) {
    for (let i = 0; i < count; ) {
      for (const end = Math.min(count, i + 1000); i < end; ++i) {
        for (const s of sockets) s.emit(EVENT, message);
      }
      if (i < count) await new Promise((resolve) => setImmediate(resolve));
    }
    return { sent: count };
  }

  const write = (obj) => process.stdout.write(`${JSON.stringify(obj)}\n`);
  write({ ready: true, socketio: `http://127.0.0.1:${sioPort}`, echo: `ws://127.0.0.1:${echoPort}/` });
  const rl = readline.createInterface({ input: process.stdin, crlfDelay: Infinity });
  rl.on('line', async (line) => {
    let req;
    try {
      req = JSON.parse(line);
    } catch {
      return write({ id: null, ok: false, error: 'bad JSON' });
    }
    if (req.cmd !== 'burst' || !Number.isInteger(req.count) || req.count < 0) {
      return write({ id: req.id, ok: false, error: 'expected {"cmd":"burst","count":N}' });
    }
    write({ id: req.id, ok: true, ...(await burst(req.count)) });
  });
  rl.on('close', () => process.exit(0));
}

main();
