'use strict';
// Diagnostics go to stderr: stdout carries only the ready line and control replies.

let verbose = false;

function setVerbose(on) {
  verbose = Boolean(on);
}

function info(...parts) {
  process.stderr.write(`[devserver] ${parts.join(' ')}\n`);
}

function debug(...parts) {
  if (verbose) info(...parts);
}

module.exports = { setVerbose, info, debug };
