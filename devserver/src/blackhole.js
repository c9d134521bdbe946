'use strict';
// A TCP port that accepts connections and never answers nor reads: the TCP connect succeeds, and then
// nothing, so a client's connect time-out has to fire.
const net = require('node:net');

async function startBlackhole() {
  const held = new Set();
  const server = net.createServer((socket) => {
    socket.pause();
    socket.on('error', () => {});
    held.add(socket);
    socket.on('close', () => held.delete(socket));
  });
  await new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(0, '127.0.0.1', resolve);
  });
  return { url: `http://127.0.0.1:${server.address().port}`, held };
}

module.exports = { startBlackhole };
