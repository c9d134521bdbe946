'use strict';
// Users of the service model: each user's attributes, and the subscriptions users hold to their peers'
// online status and attributes, with the pushes they bring.
//
// Attributes are the service's state: they outlive the user's connections. Subscriptions belong to the
// subscribing user while it is online: when its last connection goes they are dropped (the service cannot
// tell a logout, which sends nothing, from a lost connection), and the client's replay after its next
// login makes them again. A subscribe to online status pushes the peers' current status at once, so an
// app learns the starting state, and a replay tells the client what changed while it was away.
const wire = require('./wire');

const OK = { result: 0 };
const INVALID = 3;
const OVER_LIMIT = 4; // set and add-or-update: too many attributes, a key or a value too long
const UNKNOWN_USER = 6; // reads: a user neither online nor holding attributes
const TOO_MANY_SUBSCRIPTIONS = 6;

const MAX_ATTRIBUTES = 32;
const MAX_KEY_BYTES = 64;
const MAX_VALUE_BYTES = 8192;
const MAX_SUBSCRIPTIONS = 1000; // peers per kind per subscriber

// The value that marks a deleted key in "PeersUserAttributesChanged"; refused as a value, since a
// subscriber would read it as a deletion.
const DELETED = '!!&@#DELETED#@&!!';
// "PeersOnlineStatusChanged" reads 0 as online; the query's answer reads non-zero as online.
const PUSH_ONLINE = 0;
const PUSH_OFFLINE = 1;
// queryPeersBySubscriptionOption's options.
const OPTION_ONLINE_STATUS = 0;
const OPTION_ATTRIBUTES = 1;

// A non-empty list of valid user ids, without duplicates.
function userIds(v) {
  const ids = wire.strings(v);
  if (ids.length === 0) throw new wire.Invalid();
  return [...new Set(ids.map(wire.id))];
}

const byteLength = (s) => Buffer.byteLength(s, 'utf8');

// One kind of subscription, indexed both ways: a subscriber's peers, and a peer's subscribers.
class Subscriptions {
  constructor() {
    this.bySubscriber = new Map(); // subscriber -> Set of peers
    this.byPeer = new Map(); // peer -> Set of subscribers
  }

  peersOf(subscriber) {
    return [...(this.bySubscriber.get(subscriber) || [])].sort();
  }

  subscribersOf(peer) {
    return [...(this.byPeer.get(peer) || [])];
  }

  // False, changing nothing, when the subscriber would hold more than MAX_SUBSCRIPTIONS peers.
  add(subscriber, peers) {
    const mine = this.bySubscriber.get(subscriber) || new Set();
    if (new Set([...mine, ...peers]).size > MAX_SUBSCRIPTIONS) return false;
    this.bySubscriber.set(subscriber, mine);
    for (const peer of peers) {
      mine.add(peer);
      if (!this.byPeer.has(peer)) this.byPeer.set(peer, new Set());
      this.byPeer.get(peer).add(subscriber);
    }
    return true;
  }

  remove(subscriber, peers) {
    const mine = this.bySubscriber.get(subscriber);
    if (!mine) return;
    for (const peer of peers) {
      if (!mine.delete(peer)) continue;
      const theirs = this.byPeer.get(peer);
      theirs.delete(subscriber);
      if (theirs.size === 0) this.byPeer.delete(peer);
    }
    if (mine.size === 0) this.bySubscriber.delete(subscriber);
  }

  drop(subscriber) {
    this.remove(subscriber, [...(this.bySubscriber.get(subscriber) || [])]);
  }
}

class Users {
  constructor() {
    this.name = 'users';
    const cmd = (run) => ({ run: run.bind(this), invalid: INVALID });
    this.commands = {
      setLocalUserAttributes: cmd((ctx, p) => {
        const given = this.given(p);
        return this.write(ctx, given, () => given);
      }),
      addOrUpdateLocalUserAttributes: cmd((ctx, p) => {
        const given = this.given(p);
        return this.write(ctx, given, (old) => new Map([...old, ...given]));
      }),
      deleteLocalUserAttributesByKeys: cmd((ctx, p) => {
        const keys = new Set(wire.strings(p.attributeKeys));
        return this.write(ctx, new Map(), (old) => new Map([...old].filter(([k]) => !keys.has(k))));
      }),
      clearLocalUserAttributes: cmd((ctx) => this.write(ctx, new Map(), () => new Map())),
      getUserAttributes: cmd((ctx, p) => this.read(ctx, wire.id(p.userId), null)),
      getUserAttributesByKeys: cmd((ctx, p) =>
        this.read(ctx, wire.id(p.userId), new Set(wire.strings(p.attributeKeys))),
      ),
      getPeersUserAttributes: cmd((ctx, p) => this.readPeers(ctx, userIds(p.userIds), null)),
      getPeersUserAttributesByKeys: cmd((ctx, p) =>
        this.readPeers(ctx, userIds(p.userIds), new Set(wire.strings(p.attributeKeys))),
      ),
      subscribePeersUserAttributes: cmd(({ state, userId }, p) =>
        state.attributeSubs.add(userId, userIds(p.userIds)) ? OK : { result: TOO_MANY_SUBSCRIPTIONS },
      ),
      unsubscribePeersUserAttributes: cmd(({ state, userId }, p) => {
        state.attributeSubs.remove(userId, userIds(p.userIds));
        return OK;
      }),
      subscribePeersOnlineStatus: cmd(({ app, state, userId, push }, p) => {
        const peers = userIds(p.userIds);
        if (!state.statusSubs.add(userId, peers)) return { result: TOO_MANY_SUBSCRIPTIONS };
        const status = {};
        for (const peer of peers) status[peer] = app.isOnline(peer) ? PUSH_ONLINE : PUSH_OFFLINE;
        push([userId], 'PeersOnlineStatusChanged', { status });
        return OK;
      }),
      unsubscribePeersOnlineStatus: cmd(({ state, userId }, p) => {
        state.statusSubs.remove(userId, userIds(p.userIds));
        return OK;
      }),
      queryPeersOnlineStatus: cmd(({ app }, p) => {
        const status = {};
        for (const peer of userIds(p.userIds)) status[peer] = app.isOnline(peer) ? 1 : 0;
        return { result: 0, status };
      }),
      queryPeersBySubscriptionOption: cmd(({ state, userId }, p) => {
        if (!Number.isInteger(p.option)) throw new wire.Invalid();
        const subs = { [OPTION_ONLINE_STATUS]: state.statusSubs, [OPTION_ATTRIBUTES]: state.attributeSubs }[p.option];
        if (!subs) throw new wire.Invalid();
        return { result: 0, userIds: subs.peersOf(userId) };
      }),
    };
  }

  createState() {
    return {
      attributes: new Map(), // userId -> Map key -> value; users without attributes are absent
      statusSubs: new Subscriptions(),
      attributeSubs: new Subscriptions(),
    };
  }

  dispose() {}

  // The users the service knows something of: attributes or subscriptions.
  snapshot(state) {
    const ids = new Set([
      ...state.attributes.keys(),
      ...state.statusSubs.bySubscriber.keys(),
      ...state.attributeSubs.bySubscriber.keys(),
    ]);
    const users = {};
    for (const id of ids) {
      users[id] = {
        attributes: wire.mapObject(state.attributes.get(id) || new Map()),
        onlineStatusSubscriptions: state.statusSubs.peersOf(id),
        attributeSubscriptions: state.attributeSubs.peersOf(id),
      };
    }
    return { users };
  }

  userOnline(app, state, userId) {
    app.send(state.statusSubs.subscribersOf(userId), 'PeersOnlineStatusChanged', {
      status: { [userId]: PUSH_ONLINE },
    });
  }

  userOffline(app, state, userId) {
    state.statusSubs.drop(userId);
    state.attributeSubs.drop(userId);
    app.send(state.statusSubs.subscribersOf(userId), 'PeersOnlineStatusChanged', {
      status: { [userId]: PUSH_OFFLINE },
    });
  }

  // The attributes of a set or add-or-update; a value equal to the deleted marker is invalid.
  given(p) {
    const given = wire.stringMap(p.attributes);
    for (const value of given.values()) if (value === DELETED) throw new wire.Invalid();
    return given;
  }

  // Replaces the writer's attributes by change(old) unless `given` or the result is over a limit, and
  // pushes the keys that changed (deleted ones carrying DELETED) to the writer's subscribers.
  write({ state, userId, push }, given, change) {
    for (const [k, v] of given) {
      if (byteLength(k) > MAX_KEY_BYTES || byteLength(v) > MAX_VALUE_BYTES) return { result: OVER_LIMIT };
    }
    const old = state.attributes.get(userId) || new Map();
    const next = change(old);
    if (next.size > MAX_ATTRIBUTES) return { result: OVER_LIMIT };
    if (next.size > 0) state.attributes.set(userId, next);
    else state.attributes.delete(userId);

    const changed = {};
    for (const [k, v] of next) if (old.get(k) !== v) changed[k] = v;
    for (const k of old.keys()) if (!next.has(k)) changed[k] = DELETED;
    if (Object.keys(changed).length > 0) {
      push(state.attributeSubs.subscribersOf(userId), 'PeersUserAttributesChanged', {
        attributes: { [userId]: { attributes: changed } },
      });
    }
    return OK;
  }

  knows(app, state, userId) {
    return app.isOnline(userId) || state.attributes.has(userId);
  }

  // A user's attributes, all or only the keys of `keys` it holds; null for a user the service does
  // not know.
  attributesOf(app, state, userId, keys) {
    if (!this.knows(app, state, userId)) return null;
    const all = state.attributes.get(userId) || new Map();
    return wire.mapObject(keys ? [...all].filter(([k]) => keys.has(k)) : all);
  }

  read({ app, state }, userId, keys) {
    const attributes = this.attributesOf(app, state, userId, keys);
    return attributes ? { result: 0, attributes } : { result: UNKNOWN_USER };
  }

  // Per user: {result: 0, attributes} or {result: UNKNOWN_USER}; the call itself succeeds.
  readPeers({ app, state }, ids, keys) {
    const attributes = {};
    for (const id of ids) {
      const a = this.attributesOf(app, state, id, keys);
      attributes[id] = a ? { result: 0, attributes: a } : { result: UNKNOWN_USER };
    }
    return { result: 0, attributes };
  }
}

module.exports = { Users, DELETED };
