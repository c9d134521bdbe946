'use strict';
// Answers the "command" requests of every tavern server. In this order: over the rate limit,
// ["Too Many Requests"]; a script for the command name ("*" scripts every name without a script of its
// own), which leaves the service model untouched; the service model, for connections whose login was
// accepted and commands it knows; else [{"result":0}]. Every request is recorded.
const { Script } = require('./script');
const { RateLimit } = require('./ratelimit');
const binary = require('./binary');

const defaultAck = () => [{ result: 0 }];

// Turns a control request's answer description into a rule: {ack:[...]} | {result:n} | {noAnswer:true},
// each with an optional delayMs before the answer goes out; delayMs alone: the model answers, late.
function ruleFrom(req) {
  const rule = { delayMs: 0 };
  if (req.delayMs !== undefined) {
    if (!Number.isInteger(req.delayMs) || req.delayMs < 0) throw new Error('delayMs must be a non-negative integer');
    rule.delayMs = req.delayMs;
  }
  if (Array.isArray(req.ack)) rule.ack = binary.decode(req.ack);
  else if (Number.isInteger(req.result)) rule.ack = [{ result: req.result }];
  else if (req.noAnswer === true) rule.noAnswer = true;
  else if (rule.delayMs > 0) rule.model = true;
  else throw new Error('give one of ack (array), result (integer), noAnswer (true) or delayMs alone');
  return rule;
}

class Commands {
  // model: the service model (model.js); rateLimit: commands per second per connection, 0 for none.
  constructor({ record, rateLimit }, model) {
    this.record = record;
    this.model = model;
    this.rateLimit = new RateLimit(rateLimit);
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

  // origin: {server, socket}; ack: the Socket.IO acknowledgement function, or undefined when none was
  // asked; socket: the Socket.IO socket the request came on.
  handle(origin, name, payload, ack, socket) {
    if (this.record) {
      this.received.push({ ...origin, name, payload: binary.encode(payload), ack: Boolean(ack), at: Date.now() });
    }
    if (this.rateLimit.refuses(socket)) {
      if (ack) ack('Too Many Requests');
      return;
    }
    const rule = ack && typeof name === 'string' ? this.ruleFor(name) : null;
    if (rule && !rule.model) {
      this.answer(rule, () => ack(...rule.ack));
      return;
    }
    // The model's change is made now; only its answer (and the pushes behind it) may come late.
    const reply = this.model ? this.model.handle(socket, name, payload) : null;
    const respond = () => {
      if (ack) ack(...(reply ? [reply.answer] : defaultAck()));
      if (reply) reply.deliver();
    };
    if (rule) this.answer(rule, respond);
    else respond();
  }

  answer(rule, respond) {
    if (rule.noAnswer) return;
    if (rule.delayMs === 0) {
      respond();
      return;
    }
    const timer = setTimeout(() => {
      this.timers.delete(timer);
      respond();
    }, rule.delayMs);
    this.timers.add(timer);
  }

  close() {
    for (const t of this.timers) clearTimeout(t);
    this.timers.clear();
  }
}

module.exports = { Commands };
