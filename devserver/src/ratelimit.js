'use strict';
// The service's rate limit, per connection: at most `perSecond` commands in each one-second window
// (a window opens with the first command after the previous one closed). 0 turns it off.

class RateLimit {
  constructor(perSecond) {
    this.perSecond = perSecond;
    this.windows = new WeakMap(); // socket -> {start, count}
  }

  set(perSecond) {
    this.perSecond = perSecond;
    this.windows = new WeakMap();
  }

  // Counts one command of `socket`; true when it is over the limit.
  refuses(socket) {
    if (!this.perSecond || !socket) return false;
    const now = Date.now();
    let w = this.windows.get(socket);
    if (!w || now - w.start >= 1000) {
      w = { start: now, count: 0 };
      this.windows.set(socket, w);
    }
    return ++w.count > this.perSecond;
  }
}

module.exports = { RateLimit };
