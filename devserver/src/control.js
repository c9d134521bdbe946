'use strict';
// The control interface: one JSON request per line on stdin, one JSON reply per request on stdout,
// {"id":..,"ok":true,...} or {"id":..,"ok":false,"error":".."}. Replies of slow requests (acks, bursts,
// stops) may come after later ones; the id pairs them. Bad input gets an error reply, never a crash.
const readline = require('node:readline');
const log = require('./log');
const binary = require('./binary');
const { checkRunTime } = require('./options');

function write(obj) {
  process.stdout.write(`${JSON.stringify(obj)}\n`);
}

function optionalBool(v, name) {
  if (v !== undefined && typeof v !== 'boolean') throw new Error(`${name} must be a boolean`);
  return Boolean(v);
}

// world: {taverns, commands, sessions, model, options (the start-up ones), discovery, collection, http,
// describe()}.
function handlers(world) {
  // The options that change at run time, as they are now.
  const runTime = () => ({
    memberGraceMs: world.model.options.memberGraceMs,
    rateLimit: world.commands.rateLimit.perSecond,
  });
  const setRunTime = ({ memberGraceMs, rateLimit }) => {
    checkRunTime({ memberGraceMs, rateLimit });
    if (memberGraceMs !== undefined) world.model.options.memberGraceMs = memberGraceMs;
    if (rateLimit !== undefined) world.commands.rateLimit.set(rateLimit);
  };
  const tavern = (req) => {
    const id = req.server === undefined ? 0 : req.server;
    const t = Number.isInteger(id) ? world.taverns[id] : undefined;
    if (!t) throw new Error(`no tavern server ${JSON.stringify(req.server)} (0..${world.taverns.length - 1})`);
    return t;
  };
  const running = (req) => {
    const t = tavern(req);
    if (!t.running) throw new Error(`tavern server ${t.id} is stopped`);
    return t;
  };
  return {
    info: () => world.describe(),
    connections: (req) => ({ connections: tavern(req).list(optionalBool(req.connectedOnly, 'connectedOnly')) }),
    scriptCommand: (req) => world.commands.script(req),
    commands: (req) => {
      const commands = world.commands.received;
      if (optionalBool(req.clear, 'clear')) world.commands.clearRecords();
      return { commands };
    },
    scriptLogin: (req) => {
      if (req.server !== undefined) tavern(req);
      world.sessions.script(req);
    },
    logins: (req) => {
      const logins = world.sessions.logins;
      if (optionalBool(req.clear, 'clear')) world.sessions.clearRecords();
      return { logins };
    },
    onConnect: (req) => {
      const targets = req.server === undefined ? world.taverns : [tavern(req)];
      for (const t of targets) t.setOnConnect(req.steps);
    },
    push: (req) => {
      const timeoutMs = req.timeoutMs === undefined ? 5000 : req.timeoutMs;
      if (!Number.isInteger(timeoutMs) || timeoutMs <= 0) throw new Error('timeoutMs must be a positive integer');
      return running(req).push(req.socket, req.event, req.args || [], { ack: optionalBool(req.ack, 'ack'), timeoutMs });
    },
    raw: (req) => running(req).raw(req.socket, req.frames),
    disconnect: (req) =>
      running(req).disconnect(req.socket, { reason: req.reason, close: optionalBool(req.close, 'close') }),
    dropTransport: (req) => running(req).dropTransport(req.socket),
    stopTavern: async (req) => {
      await tavern(req).stop();
    },
    startTavern: async (req) => {
      const t = tavern(req);
      await t.start();
      return { url: t.url };
    },
    silent: (req) => {
      const mode = req.mode === undefined ? 'connected' : req.mode;
      tavern(req).setSilent(mode);
    },
    burst: (req) => running(req).burst(req.socket, req.event, req.count, req.size, req.args, optionalBool(req.cycle, 'cycle')),
    model: (req) => {
      if (req.app !== undefined && typeof req.app !== 'string') throw new Error('app must be a string');
      return binary.encode(world.model.snapshot(req.app));
    },
    options: (req) => {
      setRunTime(req);
      return runTime();
    },
    scriptDiscovery: (req) => world.discovery.setScript(req),
    scriptCollection: (req) => world.collection.setScript(req),
    requests: (req) => {
      const all = world.http.requests;
      if (optionalBool(req.clear, 'clear')) world.http.clearRecords();
      return { requests: req.path === undefined ? all : all.filter((r) => r.path === req.path) };
    },
    uploads: (req) => {
      const uploads = world.collection.uploads;
      if (optionalBool(req.clear, 'clear')) world.collection.uploads = [];
      return { uploads };
    },
    clear: () => {
      world.commands.clearRecords();
      world.sessions.clearRecords();
      world.http.clearRecords();
      world.collection.uploads = [];
      for (const t of world.taverns) t.clearRecords();
    },
    reset: async (req) => {
      world.commands.resetScripts();
      world.commands.clearRecords();
      world.sessions.resetScripts();
      world.sessions.clearRecords();
      world.discovery.reset();
      world.collection.reset();
      world.http.clearRecords();
      for (const t of world.taverns) t.reset();
      if (req.model === undefined || optionalBool(req.model, 'model')) world.model.reset();
      setRunTime(world.options);
      await Promise.all(world.taverns.map((t) => t.start()));
    },
  };
}

async function answer(table, line) {
  let req;
  try {
    req = JSON.parse(line);
  } catch (err) {
    return { id: null, ok: false, error: `bad JSON: ${err.message}` };
  }
  if (req === null || typeof req !== 'object' || Array.isArray(req)) {
    return { id: null, ok: false, error: 'a request is a JSON object' };
  }
  const id = req.id === undefined ? null : req.id;
  const handler = typeof req.cmd === 'string' && Object.hasOwn(table, req.cmd) ? table[req.cmd] : null;
  if (!handler) return { id, ok: false, error: `unknown cmd ${JSON.stringify(req.cmd)}` };
  try {
    const result = await handler(req);
    return { ...(result || {}), id, ok: true };
  } catch (err) {
    return { id, ok: false, error: err.message };
  }
}

// Serves control requests until stdin closes, then calls onEnd.
function serveControl(world, onEnd) {
  const table = handlers(world);
  const rl = readline.createInterface({ input: process.stdin, crlfDelay: Infinity });
  rl.on('line', (line) => {
    if (line.trim() === '') return;
    answer(table, line).then(write, (err) => {
      log.info(`control: ${err.stack}`);
      write({ id: null, ok: false, error: String(err) });
    });
  });
  rl.on('close', onEnd);
}

module.exports = { serveControl };
