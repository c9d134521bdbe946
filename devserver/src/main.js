'use strict';
// The development server: tavern Socket.IO servers (ws, wss and one silent), the discovery and collection
// HTTP(S) endpoints, a raw WebSocket echo, a black-hole port and a server that answers out of order, all
// on 127.0.0.1 ephemeral ports.
// Prints one JSON line describing them on stdout, then serves the control interface on stdin/stdout.
//   node devserver/src/main.js [--tavern 2 --tavernTls 1 ...] | ['{"tavern":2,...}']
const options = require('./options');
const log = require('./log');
const tls = require('./tls');
const { Commands } = require('./commands');
const { Sessions } = require('./session');
const { Model } = require('./model');
const { TavernServer } = require('./tavern');
const { Discovery } = require('./discovery');
const { Collection } = require('./collection');
const { HttpEndpoints } = require('./http');
const { startBlackhole } = require('./blackhole');
const { startHostile } = require('./hostile');
const { serveControl } = require('./control');

async function main() {
  let opts;
  try {
    opts = options.parse(process.argv.slice(2));
  } catch (err) {
    log.info(`bad options: ${err.message}`);
    process.exit(2);
  }
  log.setVerbose(opts.verbose);
  const credentials = tls.credentials(opts.cert);
  // The service model's options change at run time (control "options"); opts keeps the start-up values.
  const model = new Model({ memberGraceMs: opts.memberGraceMs });
  const commands = new Commands(opts, model);
  const sessions = new Sessions(opts, model);

  // Ids are positions in one list: ws servers, then wss servers, then the silent server.
  const taverns = [];
  const add = (extra) => taverns.push(new TavernServer({ id: taverns.length, options: opts, commands, ...extra }));
  const checked = opts.session ? sessions : null;
  for (let i = 0; i < opts.tavern; ++i) add({ credentials: null, sessions: checked });
  for (let i = 0; i < opts.tavernTls; ++i) add({ credentials, sessions: checked });
  add({ credentials: null, silent: true });
  await Promise.all(taverns.map((t) => t.start()));

  const plainTaverns = taverns.slice(0, opts.tavern);
  const tlsTaverns = taverns.slice(opts.tavern, opts.tavern + opts.tavernTls);
  const silent = taverns[taverns.length - 1];
  const discovery = new Discovery({ tavernUrls: () => plainTaverns.map((t) => t.url) });
  const collection = new Collection();
  const http = new HttpEndpoints({ routes: [discovery, collection], credentials, options: opts });
  await http.start();
  const blackhole = await startBlackhole();
  const hostile = await startHostile();

  const describe = () => ({
    pid: process.pid,
    tavern: plainTaverns.map((t) => t.url),
    tavernTls: tlsTaverns.map((t) => t.url),
    silent: silent.url,
    silentId: silent.id,
    ...http.urls,
    blackhole: blackhole.url,
    hostile: hostile.url,
    cert: opts.cert,
  });
  process.stdout.write(`${JSON.stringify({ ready: true, ...describe() })}\n`);

  serveControl({ taverns, commands, sessions, model, options: opts, discovery, collection, http, describe }, () => {
    log.debug('control input closed, exiting');
    process.exit(0);
  });
}

process.on('SIGTERM', () => process.exit(0));
process.on('uncaughtException', (err) => log.info(`uncaught: ${err.stack}`));
process.on('unhandledRejection', (err) => log.info(`unhandled rejection: ${err && err.stack}`));
main().catch((err) => {
  log.info(`start-up failed: ${err.stack}`);
  process.exit(1);
});
