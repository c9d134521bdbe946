'use strict';
// Peer messages of the service model: relayed to every live connection of an online target; for an
// offline target sent with option.offline, kept and delivered, all in one push and in order, right
// after the target's next accepted login.
const wire = require('./wire');

const UNREACHABLE = 3; // target offline without option.offline (or not a valid user id)
const MESSAGE_TOO_BIG = 7;
const EVENT = 'MessageToPeerReceived';

class PeerMessages {
  constructor() {
    this.name = 'peerMessages';
    this.commands = { sendMessageToPeer: { run: this.send.bind(this), invalid: UNREACHABLE } };
  }

  createState() {
    return new Map(); // target userId -> kept messages, oldest first
  }

  dispose() {}

  snapshot(state) {
    return { offlineMessages: Object.fromEntries(state) };
  }

  send({ app, state, userId, push }, p) {
    const target = wire.id(p.targetUserId);
    const content = wire.content(p.content);
    const offline = wire.optionalBool(wire.optionalObject(p.option).offline);
    if (wire.tooBig(content)) return { result: MESSAGE_TOO_BIG };
    const msg = { fromUserId: userId, serverReceivedTs: Date.now(), content };
    if (app.isOnline(target)) {
      push([target], EVENT, { msgs: [msg] });
    } else if (offline) {
      if (!state.has(target)) state.set(target, []);
      state.get(target).push(msg);
    } else {
      return { result: UNREACHABLE };
    }
    return { result: 0 };
  }

  loggedIn(app, state, conn) {
    const kept = state.get(conn.userId);
    if (!kept) return;
    state.delete(conn.userId);
    conn.socket.emit(EVENT, { msgs: kept });
  }
}

module.exports = { PeerMessages };
