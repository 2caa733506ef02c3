// File server for the soak: serves the files listed in a manifest on 127.0.0.1
// at a free port, printing "port N" once it listens. Each file has a behaviour:
//   ranged  honours "Range: bytes=a-b" (206 + Content-Range), 200 without Range
//   ignore  always 200 with the whole body, whatever Range says
//   drop    like ranged, but some body requests lose the connection part-way
// Probes (bytes=1-1) are never dropped. --rate caps the bytes per second of all
// responses together, so transfers last long enough to be interrupted. Ends by itself when the parent process
// is gone or after --ttl seconds. The serving is tests/support/file_server.mjs.
//
// Usage: node soak_server.mjs --manifest FILE --log FILE --parent PID --ttl SECONDS [--seed N]
//        [--drop-rate 0.3] [--max-drops 4] [--rate BYTES_PER_SECOND]
// Manifest: {"files": {"/a.zip": {"path": "/abs/a.zip", "mode": "ranged"}, …},
//            "dirs": {"/hls/": {"path": "/abs/hls", "mode": "ranged", "rate": 100000}}}
// ("rate": bytes per second of each response to that entry, optional)
import fs from 'node:fs';
import path from 'node:path';
import { startFileServer } from '../support/file_server.mjs';

const args = {};
for (let i = 2; i < process.argv.length; i += 2) args[process.argv[i].replace(/^--/, '')] = process.argv[i + 1];
const manifest = JSON.parse(fs.readFileSync(args.manifest, 'utf8'));
const log = fs.openSync(args.log || '/dev/null', 'a');
const parent = Number(args.parent || 0);
const ttl = Number(args.ttl || 3600);

// mulberry32: a seeded generator so a run's drops can be replayed.
let seed = (Number(args.seed || Date.now()) >>> 0) || 1;
function random() {
  seed = (seed + 0x6d2b79f5) >>> 0;
  let t = seed;
  t = Math.imul(t ^ (t >>> 15), t | 1);
  t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
  return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
}

const started = Date.now();
function note(line) {
  fs.writeSync(log, `${((Date.now() - started) / 1000).toFixed(3)} ${line}\n`);
}

function lookup(urlPath) {
  if (manifest.files?.[urlPath]) return manifest.files[urlPath];
  for (const [prefix, entry] of Object.entries(manifest.dirs || {})) {
    if (!urlPath.startsWith(prefix)) continue;
    const rest = urlPath.slice(prefix.length);
    if (!rest || rest.split('/').some((p) => p === '..' || p === '')) return null;
    return { path: path.join(entry.path, rest), mode: entry.mode, rate: entry.rate };
  }
  return null;
}

const server = await startFileServer(lookup, {
  rate: Number(args.rate || 0),  // bytes per second over all responses; 0: no limit
  drop: { rate: Number(args['drop-rate'] ?? 0.3), max: Number(args['max-drops'] ?? 4), random },
  log: note,
});
process.stdout.write(`port ${server.port}\n`);

function alive(pid) {
  try {
    return process.kill(pid, 0);
  } catch (e) {
    return e.code === 'EPERM';
  }
}
setInterval(() => {
  if ((parent && !alive(parent)) || Date.now() - started > ttl * 1000) {
    note('exit');
    process.exit(0);
  }
}, 1000).unref();
for (const signal of ['SIGTERM', 'SIGINT']) process.on(signal, () => process.exit(0));
