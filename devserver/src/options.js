'use strict';
const { certificates } = require('./tls');
// Start-up options, given either as one JSON object argument or as --name value flags
// (`--perMessageDeflate` alone means true). Unknown names and bad values are refused.

const defaults = {
  tavern: 2, // plain ws tavern servers
  tavernTls: 1, // wss tavern servers
  pingInterval: 25000, // ms, Engine.IO heartbeat
  pingTimeout: 20000, // ms
  perMessageDeflate: false,
  maxHttpBufferSize: 1000000, // bytes, also the open packet's maxPayload
  cert: 'trusted', // 'trusted' | 'untrusted' | 'wronghost': certificate of every TLS listener
  session: false, // check the login of every tavern connection, answer loginSuccess or refuse
  memberGraceMs: 30000, // how long a channel member whose connections are gone stays a member
  rateLimit: 0, // commands per second per connection answered normally; 0: no limit
  record: true, // keep events, commands and HTTP requests for the control interface
  verbose: false, // log connections and events to stderr
};

function check(opts) {
  const count = (n) => Number.isInteger(n) && n >= 0 && n <= 64;
  const ms = (n) => Number.isInteger(n) && n > 0;
  if (!count(opts.tavern) || !count(opts.tavernTls)) throw new Error('tavern counts must be integers 0..64');
  if (!ms(opts.pingInterval) || !ms(opts.pingTimeout)) throw new Error('ping times must be positive integers (ms)');
  if (!ms(opts.maxHttpBufferSize)) throw new Error('maxHttpBufferSize must be a positive integer');
  checkRunTime(opts);
  if (!certificates.includes(opts.cert)) throw new Error(`cert must be one of ${certificates.join(', ')}`);
  for (const k of ['perMessageDeflate', 'session', 'record', 'verbose']) {
    if (typeof opts[k] !== 'boolean') throw new Error(`${k} must be a boolean`);
  }
  return opts;
}

// The options the control interface may also change while the server runs.
function checkRunTime({ memberGraceMs, rateLimit }) {
  const nonNegative = (n) => Number.isInteger(n) && n >= 0;
  if (memberGraceMs !== undefined && !nonNegative(memberGraceMs)) {
    throw new Error('memberGraceMs must be an integer >= 0');
  }
  if (rateLimit !== undefined && !nonNegative(rateLimit)) throw new Error('rateLimit must be an integer >= 0');
}

function fromFlags(argv) {
  const out = {};
  for (let i = 0; i < argv.length; ++i) {
    const m = /^--([A-Za-z]+)(?:=(.*))?$/.exec(argv[i]);
    if (!m) throw new Error(`unexpected argument: ${argv[i]}`);
    let text = m[2];
    if (text === undefined) text = i + 1 < argv.length && !argv[i + 1].startsWith('--') ? argv[++i] : 'true';
    let value;
    try {
      value = JSON.parse(text);
    } catch {
      value = text;
    }
    out[m[1]] = value;
  }
  return out;
}

function parse(argv) {
  const given = argv.length === 1 && argv[0].trim().startsWith('{') ? JSON.parse(argv[0]) : fromFlags(argv);
  if (given === null || typeof given !== 'object' || Array.isArray(given)) throw new Error('options must be an object');
  for (const k of Object.keys(given)) {
    if (!(k in defaults)) throw new Error(`unknown option: ${k}`);
  }
  return check({ ...defaults, ...given });
}

module.exports = { parse, defaults, checkRunTime };
