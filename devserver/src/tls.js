'use strict';
const fs = require('node:fs');
const path = require('node:path');

const dir = path.resolve(__dirname, '../../tests/data/tls');

// The committed test certificates: "trusted" is signed by tests/data/tls/ca.pem, "untrusted" by a CA
// that no test trusts, so a client can be shown refusing it.
function credentials(which) {
  const prefix = which === 'untrusted' ? 'untrusted-server' : 'server';
  return {
    cert: fs.readFileSync(path.join(dir, `${prefix}.pem`)),
    key: fs.readFileSync(path.join(dir, `${prefix}-key.pem`)),
  };
}

module.exports = { credentials };
