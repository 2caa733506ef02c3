// File server for the soak: serves the files listed in a manifest on 127.0.0.1
// at a free port, printing "port N" once it listens. Each file has a behaviour:
//   ranged  honours "Range: bytes=a-b" (206 + Content-Range), 200 without Range
//   ignore  always 200 with the whole body, whatever Range says
//   drop    like ranged, but some body requests lose the connection part-way
// Probes (bytes=1-1) are never dropped. --rate caps the bytes per second of all
// responses together, so transfers last long enough to be interrupted. Ends by itself when the parent process
// is gone or after --ttl seconds.
//
// Usage: node soak_server.mjs --manifest FILE --log FILE --parent PID --ttl SECONDS [--seed N]
//        [--drop-rate 0.3] [--max-drops 4] [--rate BYTES_PER_SECOND]
// Manifest: {"files": {"/a.zip": {"path": "/abs/a.zip", "mode": "ranged"}, …},
//            "dirs": {"/hls/": {"path": "/abs/hls", "mode": "ranged", "rate": 100000}}}
// ("rate": bytes per second of each response to that entry, optional)
import http from 'node:http';
import fs from 'node:fs';
import path from 'node:path';

const args = {};
for (let i = 2; i < process.argv.length; i += 2) args[process.argv[i].replace(/^--/, '')] = process.argv[i + 1];
const manifest = JSON.parse(fs.readFileSync(args.manifest, 'utf8'));
const log = fs.openSync(args.log || '/dev/null', 'a');
const parent = Number(args.parent || 0);
const ttl = Number(args.ttl || 3600);
const dropRate = Number(args['drop-rate'] ?? 0.3);
const maxDrops = Number(args['max-drops'] ?? 4);
const rate = Number(args.rate || 0);  // bytes per second over all responses; 0: no limit

// mulberry32: a seeded generator so a run's drops can be replayed.
let seed = (Number(args.seed || Date.now()) >>> 0) || 1;
function random() {
  seed = (seed + 0x6d2b79f5) >>> 0;
  let t = seed;
  t = Math.imul(t ^ (t >>> 15), t | 1);
  t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
  return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
}

const drops = new Map();  // url path → connections dropped so far
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

const TYPES = { '.m3u8': 'application/vnd.apple.mpegurl', '.ts': 'video/mp2t', '.txt': 'text/plain',
  '.pdf': 'application/pdf', '.zip': 'application/zip' };

// [first, last] of a "bytes=a-" or "bytes=a-b" range against `size`; null: no usable Range; 'bad': unsatisfiable.
// (Neither the module nor ffmpeg asks for a suffix range.)
function parseRange(header, size) {
  const m = /^bytes=(\d+)-(\d*)$/.exec(header?.trim() ?? '');
  if (!m) return null;
  const first = Number(m[1]), last = m[2] === '' ? size - 1 : Math.min(Number(m[2]), size - 1);
  return first >= size || first > last ? 'bad' : [first, last];
}

const server = http.createServer((req, res) => {
  const urlPath = decodeURIComponent(new URL(req.url, 'http://x').pathname);
  const entry = lookup(urlPath);
  const stat = entry && fs.statSync(entry.path, { throwIfNoEntry: false });
  if (!entry || !stat?.isFile() || req.method !== 'GET') {
    note(`${req.method} ${urlPath} range=${req.headers.range || '-'} 404`);
    res.writeHead(404, { 'Content-Length': 0 });
    return res.end();
  }
  const size = stat.size;
  const range = entry.mode === 'ignore' ? null : parseRange(req.headers.range, size);
  if (range === 'bad') {
    note(`${req.method} ${urlPath} range=${req.headers.range} 416`);
    res.writeHead(416, { 'Content-Range': `bytes */${size}`, 'Content-Length': 0 });
    return res.end();
  }
  const [first, last] = range || [0, size - 1];
  const length = size === 0 ? 0 : last - first + 1;
  const headers = {
    'Content-Type': TYPES[path.extname(urlPath)] ?? 'application/octet-stream',
    'Content-Length': length,
    'Accept-Ranges': entry.mode === 'ignore' ? 'none' : 'bytes',
  };
  if (range) headers['Content-Range'] = `bytes ${first}-${last}/${size}`;
  const status = range ? 206 : 200;
  res.writeHead(status, headers);
  if (length === 0) {
    note(`${req.method} ${urlPath} range=${req.headers.range || '-'} ${status} ${length}`);
    return res.end();
  }

  const probe = range && first === 1 && last === 1;
  const dropped = drops.get(urlPath) || 0;
  let cut = length;  // bytes sent before the connection goes
  if (entry.mode === 'drop' && !probe && length > 1 && dropped < maxDrops && random() < dropRate) {
    drops.set(urlPath, dropped + 1);
    cut = Math.floor(random() * length);
  }
  note(`${req.method} ${urlPath} range=${req.headers.range || '-'} ${status} ${length}` +
       (cut < length ? ` drop-after=${cut}` : ''));
  send(req, res, entry, first, length, cut).catch(() => req.socket.destroy());
});

// The bytes all responses share: a response waits for its turn on one clock.
let clock = Date.now();
function reserve(bytes) {
  if (!rate) return 0;
  const now = Date.now();
  clock = Math.max(clock, now) + (bytes * 1000) / rate;
  return clock - now;
}
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

// Sends `cut` of the `length` bytes at `first`; the connection is cut when cut < length.
// An entry's own rate paces each of its responses on top of the shared one.
async function send(req, res, entry, first, length, cut) {
  let closed = false;
  res.on('close', () => { closed = true; });
  const handle = await fs.promises.open(entry.path, 'r');
  const begun = Date.now();
  try {
    const buffer = Buffer.alloc(16 * 1024);
    for (let sent = 0; sent < cut && !closed; ) {
      const { bytesRead } = await handle.read(buffer, 0, Math.min(buffer.length, cut - sent), first + sent);
      if (bytesRead === 0) throw new Error('short file');
      const own = entry.rate ? begun + ((sent + bytesRead) * 1000) / entry.rate - Date.now() : 0;
      const wait = Math.max(reserve(bytesRead), own);
      if (wait > 0) await sleep(wait);
      if (closed) break;
      if (!res.write(Buffer.from(buffer.subarray(0, bytesRead)))) {
        await new Promise((r) => { res.once('drain', r); res.once('close', r); });
      }
      sent += bytesRead;
    }
  } finally {
    await handle.close();
  }
  if (closed) return;
  if (cut < length) {
    res.write('', () => setTimeout(() => req.socket.destroy(), 20));
    return;
  }
  res.end();
}

server.listen(0, '127.0.0.1', () => {
  process.stdout.write(`port ${server.address().port}\n`);
});

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
