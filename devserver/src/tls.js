'use strict';
const fs = require('node:fs');
const path = require('node:path');

const dir = path.resolve(__dirname, '../../tests/data/tls');

// The committed test certificates: "trusted" is signed by tests/data/tls/ca.pem, "untrusted" by a CA
// that no test trusts, and "wronghost" by the trusted CA for another host name, so a client can be
// shown refusing either.
const prefixes = { trusted: 'server', untrusted: 'untrusted-server', wronghost: 'wronghost-server' };

function credentials(which) {
  const prefix = prefixes[which];
  return {
    cert: fs.readFileSync(path.join(dir, `${prefix}.pem`)),
    key: fs.readFileSync(path.join(dir, `${prefix}-key.pem`)),
  };
}

module.exports = { credentials, certificates: Object.keys(prefixes) };
