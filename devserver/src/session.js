'use strict';
// The login every tavern connection makes with its handshake query: "app" = "tavern", "roomId" = the
// app id, "token" = {"token","userId","timestamp","connectTimeStamp"} as JSON text. An accepted login is
// answered with "loginSuccess" [{"userId"}] after every older connection of the same room and user, on
// any tavern server, has been kicked off; a refused one with "disconnectReason" [text] and a server-side
// disconnect. Scripts can refuse, delay or ignore logins; every decision is recorded. The service model
// learns of every accepted connection, of its end, and of the "loginSuccess" sent on it.

// Validates the handshake query; the credentials it carries, plus the refusal text when it is not valid.
function credentialsOf(query) {
  const roomId = typeof query.roomId === 'string' ? query.roomId : null;
  const login = { roomId, userId: null, token: null, timestamp: null, connectTimeStamp: null };
  if (query.app !== 'tavern') return { login, refusal: 'loginFail: InvalidArgument' };
  if (!login.roomId) return { login, refusal: 'loginFail: InvalidAppId' };
  let token;
  try {
    token = typeof query.token === 'string' ? JSON.parse(query.token) : null;
  } catch {
    token = null;
  }
  const valid =
    token !== null &&
    typeof token === 'object' &&
    !Array.isArray(token) &&
    typeof token.token === 'string' &&
    typeof token.userId === 'string' &&
    Number.isInteger(token.timestamp) &&
    Number.isInteger(token.connectTimeStamp);
  if (!valid) return { login, refusal: 'loginFail: InvalidArgument' };
  Object.assign(login, {
    userId: token.userId,
    token: token.token,
    timestamp: token.timestamp,
    connectTimeStamp: token.connectTimeStamp,
  });
  return { login, refusal: token.token === '' ? 'loginFail: InvalidToken' : null };
}

// A control request's script: {server?, fail: text | silent: true | delayMs: n, times?}.
function scriptFrom(req) {
  if (req.times !== undefined && (!Number.isInteger(req.times) || req.times <= 0)) {
    throw new Error('times must be a positive integer');
  }
  const kinds = ['fail', 'silent', 'delayMs'].filter((k) => req[k] !== undefined);
  if (kinds.length !== 1) throw new Error('give one of fail (text), silent (true) or delayMs (ms)');
  if (req.fail !== undefined && typeof req.fail !== 'string') throw new Error('fail must be a string');
  if (req.silent !== undefined && req.silent !== true) throw new Error('silent must be true');
  if (req.delayMs !== undefined && (!Number.isInteger(req.delayMs) || req.delayMs < 0)) {
    throw new Error('delayMs must be a non-negative integer');
  }
  return { server: req.server, fail: req.fail, silent: req.silent === true, delayMs: req.delayMs, left: req.times };
}

function refuse(socket, text) {
  socket.emit('disconnectReason', text);
  socket.disconnect();
}

class Sessions {
  constructor({ session, record }, model) {
    this.enabled = session;
    this.record = record;
    this.model = model;
    this.scripts = [];
    this.logins = [];
    // "roomId\nuserId" -> Set of live accepted sockets.
    this.accepted = new Map();
  }

  script(req) {
    if (!this.enabled) throw new Error('the session option is off');
    this.scripts.push(scriptFrom(req));
  }

  // The first script that applies to `server`; one with a count falls away once used up.
  scriptFor(server) {
    const i = this.scripts.findIndex((s) => s.server === undefined || s.server === server);
    if (i < 0) return null;
    const s = this.scripts[i];
    if (s.left !== undefined && --s.left === 0) this.scripts.splice(i, 1);
    return s;
  }

  resetScripts() {
    this.scripts = [];
  }

  clearRecords() {
    this.logins = [];
  }

  note(server, socket, login, result) {
    if (this.record) this.logins.push({ server, socket: socket.id, ...login, result });
  }

  // Decides the login of a new connection of tavern server `server`.
  login(server, socket) {
    const { login, refusal } = credentialsOf(socket.handshake.query);
    const script = refusal ? null : this.scriptFor(server);
    const text = refusal || (script && script.fail);
    if (text) {
      this.note(server, socket, login, text);
      refuse(socket, text);
    } else if (script && script.silent) {
      this.note(server, socket, login, 'silent');
    } else if (script && script.delayMs > 0) {
      setTimeout(() => {
        // A client that left while waiting has nothing left to accept.
        if (socket.connected) this.accept(server, socket, login);
      }, script.delayMs);
    } else {
      this.accept(server, socket, login);
    }
  }

  accept(server, socket, login) {
    const key = `${login.roomId}\n${login.userId}`;
    const peers = this.accepted.get(key) || new Set();
    // Live in the model before the old connections go, so the user never looks offline in between.
    if (this.model) this.model.connected(server, socket, login);
    for (const old of peers) refuse(old, 'KickOff');
    peers.clear();
    peers.add(socket);
    this.accepted.set(key, peers);
    socket.on('disconnect', () => {
      peers.delete(socket);
      if (peers.size === 0 && this.accepted.get(key) === peers) this.accepted.delete(key);
      if (this.model) this.model.disconnected(socket);
    });
    this.note(server, socket, login, 'loginSuccess');
    socket.emit('loginSuccess', { userId: login.userId });
    if (this.model) this.model.loggedIn(socket);
  }
}

module.exports = { Sessions };
