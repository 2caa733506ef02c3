// The file server the browser tests and the soak download from, on 127.0.0.1 at a
// free port. `lookup(urlPath)` gives what to serve there, or nothing (404):
//   body or path   the bytes, in memory or in a file
//   type           the Content-Type; by default from the extension, else octet-stream
//   disposition    a Content-Disposition
//   mode           'ranged' (the default) honours "Range: bytes=a-" and "bytes=a-b" with
//                  206 and Content-Range; 'ignore' answers 200 with the whole body whatever
//                  Range says; 'drop' is ranged, but some body requests lose the
//                  connection part-way (`drop` below)
//   rate           bytes per second of each response
//   probeDelayMs   the probe (bytes=1-1, the module's first request) is answered this late
//   failWith       every request but the probe is answered with this status
// Options: rate, bytes per second of all responses together; drop {rate, max, random},
// the share of body requests cut (never a probe), at most `max` per path, `random()`
// deciding which and where; log(line), each request and its answer.
import http from 'node:http';
import fs from 'node:fs';
import path from 'node:path';

const TYPES = { '.m3u8': 'application/vnd.apple.mpegurl', '.ts': 'video/mp2t', '.txt': 'text/plain',
  '.pdf': 'application/pdf', '.zip': 'application/zip' };
// Timers that do not keep the process alive once the server is closed.
const sleep = (ms) => new Promise((r) => setTimeout(r, ms).unref());

export async function startFileServer(lookup, { rate = 0, drop, log = () => {} } = {}) {
  const sockets = new Set(), drops = new Map();
  // The bytes all responses share: a response waits for its turn on one clock.
  let clock = Date.now();
  const reserve = (bytes) => {
    if (!rate) return 0;
    const now = Date.now();
    clock = Math.max(clock, now) + (bytes * 1000) / rate;
    return clock - now;
  };

  async function answer(req, res) {
    const urlPath = decodeURIComponent(new URL(req.url, 'http://x').pathname);
    const entry = lookup(urlPath);
    const stat = entry?.path && fs.statSync(entry.path, { throwIfNoEntry: false });
    const size = entry?.body ? entry.body.length : stat?.isFile() ? stat.size : -1;
    const reply = (status, headers, note = '') => {
      log(`${req.method} ${urlPath} range=${req.headers.range || '-'} ${status}${note}`);
      return res.writeHead(status, { 'content-length': 0, ...headers });
    };
    if (size < 0 || req.method !== 'GET') return reply(404).end();
    const range = entry.mode !== 'ignore' && /^bytes=(\d+)-(\d*)$/.exec(req.headers.range?.trim() ?? '');
    const first = range ? Number(range[1]) : 0;
    const last = range && range[2] !== '' ? Math.min(Number(range[2]), size - 1) : size - 1;
    if (first > last && range) return reply(416, { 'content-range': `bytes */${size}` }).end();
    const probe = range && first === 1 && last === 1;
    if (entry.failWith && !probe) return reply(entry.failWith).end();
    const length = last - first + 1;
    let cut = length;  // bytes sent before the connection goes
    const dropped = drops.get(urlPath) ?? 0;
    if (entry.mode === 'drop' && !probe && length > 1 && dropped < drop.max && drop.random() < drop.rate) {
      drops.set(urlPath, dropped + 1);
      cut = Math.floor(drop.random() * length);
    }
    if (probe && entry.probeDelayMs) await sleep(entry.probeDelayMs);
    reply(range ? 206 : 200, {
      'content-type': entry.type ?? TYPES[path.extname(urlPath)] ?? 'application/octet-stream',
      'content-length': length,
      'accept-ranges': entry.mode === 'ignore' ? 'none' : 'bytes',
      ...(range && { 'content-range': `bytes ${first}-${last}/${size}` }),
      ...(entry.disposition && { 'content-disposition': entry.disposition }),
    }, ` ${length}${cut < length ? ` drop-after=${cut}` : ''}`);

    let closed = req.socket.destroyed;  // while the probe waited, say
    res.on('close', () => { closed = true; });
    const file = entry.body ? null : await fs.promises.open(entry.path, 'r');
    const begun = Date.now();
    try {
      for (let sent = 0; sent < cut && !closed; ) {
        const n = Math.min(16 * 1024, cut - sent);
        const { bytesRead, buffer } = file ? await file.read(Buffer.alloc(n), 0, n, first + sent)
          : { bytesRead: n, buffer: entry.body.subarray(first + sent) };
        if (bytesRead === 0) throw new Error('short file');
        const chunk = buffer.subarray(0, bytesRead);
        // An entry's own rate paces each of its responses on top of the shared one.
        const own = entry.rate ? begun + ((sent + chunk.length) * 1000) / entry.rate - Date.now() : 0;
        const wait = Math.max(reserve(chunk.length), own);
        if (wait > 0) await sleep(wait);
        if (closed) break;
        if (!res.write(chunk)) await new Promise((r) => { res.once('drain', r); res.once('close', r); });
        sent += chunk.length;
      }
    } finally {
      await file?.close();
    }
    if (closed) return;
    if (cut < length) return res.write('', () => setTimeout(() => req.socket.destroy(), 20));
    res.end();
  }

  const server = http.createServer((req, res) => answer(req, res).catch(() => req.socket.destroy()));
  server.on('connection', (s) => { sockets.add(s); s.on('close', () => sockets.delete(s)); });
  await new Promise((r) => server.listen(0, '127.0.0.1', r));
  const base = `http://127.0.0.1:${server.address().port}/`;
  return {
    port: server.address().port,
    url: (name) => base + encodeURIComponent(name),
    close: () => {
      for (const s of sockets) s.destroy();
      return new Promise((r) => server.close(r));
    },
  };
}
