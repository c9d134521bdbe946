'use strict';
// POST /brl/v1/collect-logan: the telemetry collection endpoint. Keeps every body as received and answers
// 204 by default; scriptable: another status, a delay, or no answer at all (stall).
const { Script } = require('./script');

const PATH = '/brl/v1/collect-logan';
const MAX_BODY = 64 * 1024 * 1024;

function ruleFrom(req) {
  const { status, delayMs, stall } = req;
  if (status !== undefined && (!Number.isInteger(status) || status < 100 || status > 599)) {
    throw new Error('status must be an HTTP status code');
  }
  if (delayMs !== undefined && (!Number.isInteger(delayMs) || delayMs < 0)) throw new Error('delayMs must be >= 0');
  if (stall !== undefined && typeof stall !== 'boolean') throw new Error('stall must be a boolean');
  return { status, delayMs, stall };
}

class Collection {
  constructor() {
    this.script = new Script();
    this.uploads = [];
  }

  matches(req, url) {
    return req.method === 'POST' && url.pathname === PATH;
  }

  setScript(req) {
    this.script.set(ruleFrom(req), req.times);
  }

  reset() {
    this.script.reset();
    this.uploads = [];
  }

  // record: the request's description from the HTTP layer; the body is added once complete.
  handle(req, res, record) {
    const chunks = [];
    let size = 0;
    req.on('data', (chunk) => {
      size += chunk.length;
      if (size <= MAX_BODY) chunks.push(chunk);
    });
    req.on('end', () => {
      if (size > MAX_BODY) {
        res.writeHead(413).end();
        return;
      }
      const body = Buffer.concat(chunks);
      this.uploads.push({ ...record, size: body.length, body: body.toString('base64') });
      const rule = this.script.next() || {};
      if (rule.stall) return;
      const answer = () => res.writeHead(rule.status || 204).end();
      if (rule.delayMs) setTimeout(answer, rule.delayMs);
      else answer();
    });
  }
}

module.exports = { Collection };
