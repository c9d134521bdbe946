'use strict';
// One model of the service, shared by every tavern server, so that users logged in on different
// servers see each other. State is kept per app (the login's roomId). The model answers the commands
// of connections whose login was accepted; the features it is made of (channels, peer messages) each
// bring their commands, their per-app state and their reactions to users coming and going.
//
// A feature is an object with:
//   name                    key of its state in each app and of its part of the snapshot
//   commands                {commandName: {invalid: code, run(ctx, payload) -> answer}}
//   createState()           a fresh per-app state
//   dispose(state)          cancels its timers (reset)
//   snapshot(state)         {key: JSON value, ...} merged into the app's snapshot
//   userOnline(app, state, userId), userOffline(app, state, userId), loggedIn(app, state, conn)
//                           optional hooks: first live connection, last one gone, accepted login
// A command's run() reads the payload through wire.js (which throws Invalid on a bad field) and returns
// the answer object; pushes it makes with ctx.push go out after the answer.
const { Invalid, isPlainObject } = require('./wire');
const { Channels } = require('./channels');
const { PeerMessages } = require('./peers');
const { Users } = require('./users');
const { Invitations } = require('./invitations');
const log = require('./log');

class App {
  constructor(roomId, features) {
    this.roomId = roomId;
    // userId -> Set of live connections ({server, socket, userId}) whose login was accepted.
    this.online = new Map();
    this.parts = {};
    for (const f of features) this.parts[f.name] = f.createState();
  }

  isOnline(userId) {
    return this.online.has(userId);
  }

  // Emits to every live connection of each user named.
  send(userIds, event, payload) {
    for (const userId of userIds) {
      for (const conn of this.online.get(userId) || []) conn.socket.emit(event, payload);
    }
  }
}

class Model {
  // options: {memberGraceMs}, read when used so that the control interface can change them.
  constructor(options) {
    this.options = options;
    this.features = [new Channels(this), new PeerMessages(), new Users(), new Invitations()];
    this.commands = new Map();
    for (const f of this.features) {
      for (const [name, command] of Object.entries(f.commands)) this.commands.set(name, { ...command, feature: f });
    }
    this.apps = new Map();
    this.conns = new Map(); // socket -> connection
  }

  app(roomId) {
    let app = this.apps.get(roomId);
    if (!app) {
      app = new App(roomId, this.features);
      this.apps.set(roomId, app);
    }
    return app;
  }

  hook(name, app, ...args) {
    for (const f of this.features) if (f[name]) f[name](app, app.parts[f.name], ...args);
  }

  // An accepted login's connection is live: called before older connections of the user are kicked,
  // so that a login replacing another never shows the user offline in between.
  connected(server, socket, { roomId, userId }) {
    const app = this.app(roomId);
    const conn = { server, socket, userId, app };
    this.conns.set(socket, conn);
    const live = app.online.get(userId) || new Set();
    live.add(conn);
    app.online.set(userId, live);
    if (live.size === 1) this.hook('userOnline', app, userId);
  }

  disconnected(socket) {
    const conn = this.conns.get(socket);
    if (!conn) return;
    this.conns.delete(socket);
    const { app, userId } = conn;
    const live = app.online.get(userId);
    live.delete(conn);
    if (live.size > 0) return;
    app.online.delete(userId);
    this.hook('userOffline', app, userId);
  }

  // Right after "loginSuccess" went out on the connection.
  loggedIn(socket) {
    const conn = this.conns.get(socket);
    if (conn) this.hook('loggedIn', conn.app, conn);
  }

  // The answer to a "command" of `socket`, with deliver() sending the pushes it caused; null when the
  // model does not serve the connection or the command.
  handle(socket, name, payload) {
    const conn = this.conns.get(socket);
    const command = conn && typeof name === 'string' ? this.commands.get(name) : undefined;
    if (!command) return null;
    const { app, userId } = conn;
    const pushes = [];
    const ctx = {
      app,
      conn,
      userId,
      state: app.parts[command.feature.name],
      push: (userIds, event, body) => pushes.push(() => app.send(userIds, event, body)),
    };
    let answer;
    try {
      if (!isPlainObject(payload)) throw new Invalid();
      answer = command.run(ctx, payload);
    } catch (err) {
      if (!(err instanceof Invalid)) log.info(`model: ${name}: ${err.stack}`);
      answer = { result: err instanceof Invalid ? command.invalid : 1 };
      pushes.length = 0;
    }
    return { answer, deliver: () => pushes.forEach((p) => p()) };
  }

  // Per app: online users and every feature's part. Binary values stay Buffers (the control
  // interface encodes them).
  snapshot(roomId) {
    const apps = {};
    for (const app of this.apps.values()) {
      if (roomId !== undefined && app.roomId !== roomId) continue;
      apps[app.roomId] = { online: [...app.online.keys()] };
      for (const f of this.features) Object.assign(apps[app.roomId], f.snapshot(app.parts[f.name]));
    }
    return { apps };
  }

  // Empties every feature's state; presence stays, as it follows the live connections.
  reset() {
    for (const app of this.apps.values()) {
      for (const f of this.features) {
        f.dispose(app.parts[f.name]);
        app.parts[f.name] = f.createState();
      }
    }
  }
}

module.exports = { Model };
