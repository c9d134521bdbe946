'use strict';
// The API and data-center endpoints on one plain HTTP server and one HTTPS server (the same routes on
// both), plus the raw WebSocket echo. Every request is recorded for the control interface.
const http = require('node:http');
const https = require('node:https');
const log = require('./log');
const { attachEcho } = require('./echo');

function listen(server) {
  return new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(0, '127.0.0.1', () => {
      server.removeListener('error', reject);
      server.on('error', (err) => log.info(`http: ${err.message}`));
      resolve(server.address().port);
    });
  });
}

class HttpEndpoints {
  // routes: objects with matches(req, url) and handle(req, res, record).
  constructor({ routes, credentials, options }) {
    this.routes = routes;
    this.credentials = credentials;
    this.options = options;
    this.requests = [];
    this.urls = {};
  }

  async start() {
    const plain = http.createServer((req, res) => this.dispatch(req, res, false));
    const secure = https.createServer(this.credentials, (req, res) => this.dispatch(req, res, true));
    secure.on('tlsClientError', (err) => log.debug(`https: TLS client error: ${err.message}`));
    for (const s of [plain, secure]) attachEcho(s, this.options);
    const [port, tlsPort] = await Promise.all([listen(plain), listen(secure)]);
    this.urls = {
      http: `http://127.0.0.1:${port}`,
      https: `https://127.0.0.1:${tlsPort}`,
      echo: `ws://127.0.0.1:${port}/echo`,
      echoTls: `wss://127.0.0.1:${tlsPort}/echo`,
    };
  }

  dispatch(req, res, tls) {
    let url;
    try {
      url = new URL(req.url, 'http://127.0.0.1');
    } catch {
      res.writeHead(400, { 'Content-Type': 'text/plain' }).end('bad request target');
      return;
    }
    const record = {
      method: req.method,
      path: url.pathname,
      rawQuery: url.search.replace(/^\?/, ''),
      query: Object.fromEntries(url.searchParams),
      headers: req.headers,
      tls,
      at: Date.now(),
    };
    if (this.options.record) this.requests.push(record);
    log.debug(`http: ${req.method} ${req.url}`);
    const route = this.routes.find((r) => r.matches(req, url));
    if (!route) {
      res.writeHead(404, { 'Content-Type': 'text/plain' }).end('not found');
      return;
    }
    route.handle(req, res, record);
  }

  clearRecords() {
    this.requests = [];
  }
}

module.exports = { HttpEndpoints };
