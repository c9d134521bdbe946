'use strict';
// Channels of the service model: membership by user, the pushes members see, channel messages, member
// lists and counts, and the channel attribute map. A channel exists while it has members or attributes.
//
// A member whose last connection is gone keeps its membership for the grace period (memberGraceMs);
// a "join" or "channelHeartbeat" of the user within it keeps the membership silently, otherwise the
// member leaves with reason "Disconnect".
const wire = require('./wire');

const OK = { result: 0 };
const NOT_MEMBER = 5;
const MESSAGE_TOO_BIG = 4;
const MAX_COUNT_IDS = 32;

class Channel {
  constructor() {
    this.members = new Map(); // userId -> {graceTimer}
    this.attributes = new Map();
  }

  get empty() {
    return this.members.size === 0 && this.attributes.size === 0;
  }

  others(userId) {
    return [...this.members.keys()].filter((u) => u !== userId);
  }
}

class Channels {
  constructor(model) {
    this.model = model;
    this.name = 'channels';
    const cmd = (run, invalid = 3) => ({ run: run.bind(this), invalid });
    this.commands = {
      join: cmd(this.join),
      leave: cmd(this.leave),
      channelHeartbeat: cmd(this.heartbeat),
      sendChannelMessage: cmd(this.sendMessage),
      getChannelMembers: cmd(this.members),
      getChannelMemberCount: cmd(this.memberCount, 2),
      setChannelAttributes: cmd((ctx, p) => {
        const given = wire.stringMap(p.attributes);
        return this.writeAttributes(ctx, p, () => given);
      }),
      addOrUpdateChannelAttributes: cmd((ctx, p) => {
        const given = wire.stringMap(p.attributes);
        return this.writeAttributes(ctx, p, (old) => new Map([...old, ...given]));
      }),
      deleteChannelAttributesByKeys: cmd((ctx, p) => {
        const keys = new Set(wire.strings(p.attributeKeys));
        return this.writeAttributes(ctx, p, (old) => new Map([...old].filter(([k]) => !keys.has(k))));
      }),
      clearChannelAttributes: cmd((ctx, p) => this.writeAttributes(ctx, p, () => new Map())),
      getChannelAttributes: cmd((ctx, p) => this.readAttributes(ctx, p, null)),
      getChannelAttributesByKeys: cmd((ctx, p) =>
        this.readAttributes(ctx, p, new Set(wire.strings(p.attributeKeys))),
      ),
    };
  }

  createState() {
    const state = new Map(); // channelId -> Channel
    // userId -> Set of channelIds it is a member of, so that a user going offline costs its own
    // memberships, not a scan of every channel (thousands of users drop at once in a storm).
    state.byUser = new Map();
    return state;
  }

  dispose(state) {
    for (const channel of state.values()) {
      for (const m of channel.members.values()) clearTimeout(m.graceTimer);
    }
  }

  snapshot(state) {
    const channels = {};
    for (const [id, channel] of state) {
      const members = [...channel.members.keys()];
      channels[id] = {
        members,
        away: members.filter((u) => channel.members.get(u).graceTimer),
        attributes: wire.mapObject(channel.attributes),
      };
    }
    return { channels };
  }

  // The grace period of every membership of a user that has gone offline starts now.
  userOffline(app, state, userId) {
    for (const id of state.byUser.get(userId) ?? []) {
      const channel = state.get(id);
      const member = channel.members.get(userId);
      // A grace period already running (offline, back, offline again without a re-join) goes on.
      if (!member || member.graceTimer) continue;
      member.graceTimer = setTimeout(() => {
        if (channel.members.get(userId) !== member) return;
        this.removeMember(state, id, userId, 'Disconnect', app.send.bind(app));
      }, this.model.options.memberGraceMs);
    }
  }

  channel(state, id) {
    let channel = state.get(id);
    if (!channel) {
      channel = new Channel();
      state.set(id, channel);
    }
    return channel;
  }

  forget(state, id) {
    if (state.get(id)?.empty) state.delete(id);
  }

  pushCount(channel, channelId, push) {
    push([...channel.members.keys()], 'ChannelMemberCount', { counts: { [channelId]: channel.members.size } });
  }

  removeMember(state, channelId, userId, reason, push) {
    const channel = state.get(channelId);
    clearTimeout(channel.members.get(userId).graceTimer);
    channel.members.delete(userId);
    const joined = state.byUser.get(userId);
    joined.delete(channelId);
    if (joined.size === 0) state.byUser.delete(userId);
    push(channel.others(userId), 'MemberLeft', { channelId, userId, reason });
    this.pushCount(channel, channelId, push);
    this.forget(state, channelId);
  }

  // Keeps an existing membership silently (a new connection of the user re-joining or still beating).
  keep(channel, userId) {
    const member = channel.members.get(userId);
    if (!member) return false;
    clearTimeout(member.graceTimer);
    member.graceTimer = null;
    return true;
  }

  join({ state, userId, push }, p) {
    const channelId = wire.id(p.channelId);
    const channel = this.channel(state, channelId);
    if (this.keep(channel, userId)) return OK;
    channel.members.set(userId, { graceTimer: null });
    if (!state.byUser.has(userId)) state.byUser.set(userId, new Set());
    state.byUser.get(userId).add(channelId);
    push(channel.others(userId), 'MemberJoined', { channelId, userId });
    this.pushCount(channel, channelId, push);
    return OK;
  }

  // Leaving a channel one is not a member of changes nothing and still succeeds.
  leave({ state, userId, push }, p) {
    const channelId = wire.id(p.channelId);
    if (state.get(channelId)?.members.has(userId)) this.removeMember(state, channelId, userId, 'Quit', push);
    return OK;
  }

  heartbeat({ state, userId }, p) {
    const channel = state.get(wire.id(p.channelId));
    return channel && this.keep(channel, userId) ? OK : { result: NOT_MEMBER };
  }

  sendMessage({ state, userId, push }, p) {
    const channelId = wire.id(p.channelId);
    const content = wire.content(p.content);
    wire.optionalObject(p.option);
    const channel = state.get(channelId);
    if (!channel || !channel.members.has(userId)) return { result: NOT_MEMBER };
    if (wire.tooBig(content)) return { result: MESSAGE_TOO_BIG };
    push(channel.others(userId), 'ChannelMessageReceived', {
      from: { channelId, userId },
      serverReceivedTs: Date.now(),
      content,
    });
    return OK;
  }

  members({ state, userId }, p) {
    const channel = state.get(wire.id(p.channelId));
    if (!channel || !channel.members.has(userId)) return { result: NOT_MEMBER };
    return { result: 0, members: [...channel.members.keys()] };
  }

  memberCount({ state }, p) {
    const ids = wire.strings(p.channelIds);
    if (ids.length > MAX_COUNT_IDS) return { result: 5 };
    if (ids.length === 0) throw new wire.Invalid();
    const counts = {};
    for (const id of ids) counts[wire.id(id)] = state.get(id)?.members.size || 0;
    return { result: 0, counts };
  }

  // A write replaces the map by change(old map); with option.notify the channel's members are sent the
  // whole map as it now is. Callers read their own fields first: nothing changes on a bad payload.
  writeAttributes({ state, push }, p, change) {
    const channelId = wire.id(p.channelId);
    const notify = wire.optionalBool(wire.optionalObject(p.option).notify);
    const channel = this.channel(state, channelId);
    channel.attributes = change(channel.attributes);
    if (notify) {
      push([...channel.members.keys()], 'ChannelAttributesUpdated', {
        channelId,
        attributes: wire.mapObject(channel.attributes),
      });
    }
    this.forget(state, channelId);
    return OK;
  }

  // The whole map, or only the keys of `keys` that it holds.
  readAttributes({ state }, p, keys) {
    const all = state.get(wire.id(p.channelId))?.attributes || new Map();
    return { result: 0, attributes: wire.mapObject(keys ? [...all].filter(([k]) => keys.has(k)) : all) };
  }
}

module.exports = { Channels };
