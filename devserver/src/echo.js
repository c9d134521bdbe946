'use strict';
// Raw WebSocket echo on /echo: every message goes back as it came (text or binary). A baseline for
// benchmarks that measures the WebSocket path without Socket.IO.
const { WebSocketServer } = require('ws');

const PATH = '/echo';

function attachEcho(server, { perMessageDeflate, maxHttpBufferSize }) {
  const wss = new WebSocketServer({ noServer: true, perMessageDeflate, maxPayload: maxHttpBufferSize });
  wss.on('connection', (ws) => {
    ws.on('message', (data, isBinary) => ws.send(data, { binary: isBinary }));
    ws.on('error', () => ws.terminate());
  });
  server.on('upgrade', (req, socket, head) => {
    if (!URL.canParse(req.url, 'http://x') || new URL(req.url, 'http://x').pathname !== PATH) {
      socket.destroy();
      return;
    }
    wss.handleUpgrade(req, socket, head, (ws) => wss.emit('connection', ws, req));
  });
  return wss;
}

module.exports = { attachEcho, PATH };
