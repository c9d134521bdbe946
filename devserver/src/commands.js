'use strict';
// Answers the "command" requests of every tavern server: by default [{"result":0}], or as scripted per
// command name ("*" scripts every name without a script of its own). Every request is recorded.
const { Script } = require('./script');
const binary = require('./binary');

const defaultAck = () => [{ result: 0 }];

// Turns a control request's answer description into a rule: {ack:[...]} | {result:n} | {noAnswer:true},
// each with an optional delayMs before the answer goes out.
function ruleFrom(req) {
  const rule = { delayMs: 0 };
  if (req.delayMs !== undefined) {
    if (!Number.isInteger(req.delayMs) || req.delayMs < 0) throw new Error('delayMs must be a non-negative integer');
    rule.delayMs = req.delayMs;
  }
  if (Array.isArray(req.ack)) rule.ack = binary.decode(req.ack);
  else if (Number.isInteger(req.result)) rule.ack = [{ result: req.result }];
  else if (req.noAnswer === true) rule.noAnswer = true;
  else throw new Error('give one of ack (array), result (integer) or noAnswer (true)');
  return rule;
}

class Commands {
  constructor({ record }) {
    this.record = record;
    this.scripts = new Map();
    this.received = [];
    this.timers = new Set();
  }

  script(req) {
    if (typeof req.name !== 'string' || req.name === '') throw new Error('name must be a command name or "*"');
    const rule = ruleFrom(req);
    if (!this.scripts.has(req.name)) this.scripts.set(req.name, new Script());
    this.scripts.get(req.name).set(rule, req.times);
  }

  resetScripts() {
    this.scripts.clear();
  }

  clearRecords() {
    this.received = [];
  }

  ruleFor(name) {
    const own = this.scripts.get(name);
    const rule = own && own.next();
    if (rule) return rule;
    const any = this.scripts.get('*');
    return (any && any.next()) || null;
  }

  // origin: {server, socket}; ack: the Socket.IO acknowledgement function, or undefined when none was asked.
  handle(origin, name, payload, ack) {
    if (this.record) {
      this.received.push({ ...origin, name, payload: binary.encode(payload), ack: Boolean(ack), at: Date.now() });
    }
    if (!ack) return;
    const rule = typeof name === 'string' ? this.ruleFor(name) : null;
    if (rule && rule.noAnswer) return;
    const args = rule ? rule.ack : defaultAck();
    if (!rule || rule.delayMs === 0) {
      ack(...args);
      return;
    }
    const timer = setTimeout(() => {
      this.timers.delete(timer);
      ack(...args);
    }, rule.delayMs);
    this.timers.add(timer);
  }

  close() {
    for (const t of this.timers) clearTimeout(t);
    this.timers.clear();
  }
}

module.exports = { Commands };
