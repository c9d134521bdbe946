'use strict';
// Call invitations of the service model, relayed between inviter and invitee on any tavern server as
// "InvitationNotify" [{invitation}] carrying the new state: an arrival (2) to the invitee, a cancel
// (3), an acceptance (4) or a refusal (5) to both users. An invitation is pending from its send until
// it is answered or cancelled, one of the two users goes offline, or a minute passes; nothing of it is
// kept after that.
const wire = require('./wire');

const OFFLINE = 3; // a send to an invitee who is offline
const REFUSED = 4; // a bad payload, a request not the caller's to make, or no such invitation pending
const MAX_INFO = 8192;
const PENDING_MS = 60000;
const EVENT = 'InvitationNotify';
const STATES = { send: 2, cancel: 3, accept: 4, refuse: 5 };

// An optional text: absent or null reads as absent.
function info(v) {
  if (v === undefined || v === null) return undefined;
  if (typeof v !== 'string' || Buffer.byteLength(v, 'utf8') > MAX_INFO) throw new wire.Invalid();
  return v;
}

// The invitation as relayed: the two users and the texts given, without the client's state.
function invitation(v) {
  const i = wire.object(v);
  const out = { inviter: wire.id(i.inviter), invitee: wire.id(i.invitee) };
  for (const key of ['requestInfo', 'responseInfo']) {
    const text = info(i[key]);
    if (text !== undefined) out[key] = text;
  }
  return out;
}

class Invitations {
  constructor() {
    this.name = 'invitations';
    this.commands = { invitationOp: { run: this.op.bind(this), invalid: REFUSED } };
  }

  createState() {
    return new Map(); // "[invitee,inviter]" -> {invitation, timer}
  }

  dispose(state) {
    for (const key of [...state.keys()]) this.forget(state, key);
  }

  snapshot(state) {
    return { invitations: [...state.keys()] };
  }

  op({ app, state, userId, push }, p) {
    const next = STATES[p.type];
    const inv = invitation(p.invitation);
    if (next === undefined) throw new wire.Invalid();
    const byInviter = p.type === 'send' || p.type === 'cancel';
    if (userId !== (byInviter ? inv.inviter : inv.invitee)) return { result: REFUSED };
    const key = `[${inv.invitee},${inv.inviter}]`;
    if (p.type === 'send') {
      if (!app.isOnline(inv.invitee)) return { result: OFFLINE };
      this.forget(state, key);
      const timer = setTimeout(() => state.delete(key), PENDING_MS);
      timer.unref();
      state.set(key, { invitation: inv, timer });
      push([inv.invitee], EVENT, { invitation: { ...inv, state: next } });
      return { result: 0 };
    }
    const pending = state.get(key);
    if (!pending) return { result: REFUSED };
    this.forget(state, key);
    const relayed = { ...pending.invitation };
    if (p.type !== 'cancel' && inv.responseInfo !== undefined) relayed.responseInfo = inv.responseInfo;
    relayed.state = next;
    push([inv.inviter, inv.invitee], EVENT, { invitation: relayed });
    return { result: 0 };
  }

  forget(state, key) {
    const pending = state.get(key);
    if (!pending) return;
    clearTimeout(pending.timer);
    state.delete(key);
  }

  userOffline(app, state, userId) {
    for (const [key, { invitation: inv }] of state) {
      if (inv.inviter === userId || inv.invitee === userId) this.forget(state, key);
    }
  }
}

module.exports = { Invitations };
