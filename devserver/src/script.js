'use strict';
// A scripted answer: one standing rule plus a FIFO of rules that apply only to the next N requests.
// Rules for a limited number of requests take precedence over the standing one.

class Script {
  constructor() {
    this.reset();
  }

  reset() {
    this.standing = null;
    this.limited = [];
  }

  // times > 0: the rule answers the next `times` requests, then falls away; otherwise it stands.
  set(rule, times) {
    if (Number.isInteger(times) && times > 0) this.limited.push({ rule, left: times });
    else this.standing = rule;
  }

  // The rule for the request being answered, or null for the caller's default.
  next() {
    const head = this.limited[0];
    if (head) {
      if (--head.left === 0) this.limited.shift();
      return head.rule;
    }
    return this.standing;
  }
}

module.exports = { Script };
