'use strict';
// GET /config/api/v1/brl-server?appId=<id>: the list of tavern servers for an app. By default the plain
// ws tavern servers in order; scriptable per test (another list, another code, raw body, delay, refusal).
const { Script } = require('./script');

const PATH = '/config/api/v1/brl-server';

function optionalInt(v, name, min) {
  if (v !== undefined && (!Number.isInteger(v) || v < min)) throw new Error(`${name} must be an integer >= ${min}`);
}

// {servers:[...]} | {code:n} | {data:any} | {body:"raw text"} | {refuse:true}, with status (HTTP) and delayMs.
function ruleFrom(req) {
  const { servers, code, data, body, status, delayMs, refuse } = req;
  if (servers !== undefined && !(Array.isArray(servers) && servers.every((s) => typeof s === 'string'))) {
    throw new Error('servers must be an array of strings');
  }
  optionalInt(code, 'code', -2147483648);
  optionalInt(status, 'status', 100);
  optionalInt(delayMs, 'delayMs', 0);
  if (body !== undefined && typeof body !== 'string') throw new Error('body must be a string');
  if (refuse !== undefined && typeof refuse !== 'boolean') throw new Error('refuse must be a boolean');
  return { servers, code, data, body, status, delayMs, refuse };
}

class Discovery {
  // tavernUrls: () => the default list, read at answer time so restarted servers are current.
  constructor({ tavernUrls }) {
    this.tavernUrls = tavernUrls;
    this.script = new Script();
  }

  matches(req, url) {
    return req.method === 'GET' && url.pathname === PATH;
  }

  setScript(req) {
    this.script.set(ruleFrom(req), req.times);
  }

  reset() {
    this.script.reset();
  }

  handle(req, res) {
    const rule = this.script.next() || {};
    if (rule.refuse) {
      req.socket.destroy();
      return;
    }
    const text =
      rule.body !== undefined
        ? rule.body
        : JSON.stringify({
            code: rule.code !== undefined ? rule.code : 200,
            data: rule.data !== undefined ? rule.data : { tavernServers: rule.servers || this.tavernUrls() },
          });
    const answer = () => {
      res.writeHead(rule.status || 200, { 'Content-Type': 'application/json' });
      res.end(text);
    };
    if (rule.delayMs) setTimeout(answer, rule.delayMs);
    else answer();
  }
}

module.exports = { Discovery };
