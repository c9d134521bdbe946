'use strict';
// A WebSocket server that answers the Socket.IO connect ("40{sid}") before, and instead of, the
// Engine.IO open packet, then says nothing more: a client must refuse the out-of-order packet and move
// on rather than take the connection as up.
const http = require('node:http');
const { WebSocketServer } = require('ws');

async function startHostile() {
  const server = http.createServer((req, res) => res.writeHead(404).end());
  const wss = new WebSocketServer({ server });
  wss.on('connection', (ws) => {
    ws.on('error', () => ws.terminate());
    ws.send('40{"sid":"out-of-order"}');
  });
  await new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(0, '127.0.0.1', resolve);
  });
  return { url: `http://127.0.0.1:${server.address().port}` };
}

module.exports = { startHostile };
