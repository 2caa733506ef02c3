// The soak's side of the host's JSON API, and the bits of JSON reading it needs.
//   add BASE URL            POST /api/downloads; prints "STATUS uniqueId outputFilename" or
//                           "STATUS body"; exit 0 only on 201
//   queue BASE [SAVE]       GET /api/downloads; prints "count sumPosition sumSize", the body
//                           saved to SAVE; exit 3 when the host does not answer
//   smallest-program FILE   from `ffprobe -show_programs -of json` output: the program_id
//                           whose video is the narrowest (the variant the module takes)
import fs from 'node:fs';

async function request(method, url, body, timeoutMs) {
  const headers = body ? { 'Content-Type': 'application/json' } : {};
  const response = await fetch(url, { method, body, headers, signal: AbortSignal.timeout(timeoutMs) });
  return { status: response.status, text: await response.text() };
}

const [command, ...rest] = process.argv.slice(2);
try {
  if (command === 'add') {
    const [base, url] = rest;
    const { status, text } = await request('POST', `${base}api/downloads`, JSON.stringify({ url }), 180_000);
    const added = status === 201 && JSON.parse(text).download;
    console.log(added ? `${status} ${added.uniqueId} ${added.outputFilename}` : `${status} ${text}`);
    process.exit(added ? 0 : 1);
  } else if (command === 'queue') {
    const [base, save] = rest;
    const { status, text } = await request('GET', `${base}api/downloads`, undefined, 30_000);
    if (save) fs.writeFileSync(save, text);
    if (status !== 200) {
      console.log(`status ${status}: ${text}`);
      process.exit(3);
    }
    const list = JSON.parse(text);
    const sum = (key) => list.reduce((n, d) => n + (Number(d[key]) || 0), 0);
    console.log(`${list.length} ${sum('position')} ${sum('size')}`);
  } else if (command === 'smallest-program') {
    // [width, program] of every video stream; the first of the narrowest wins (the sort is stable).
    const videos = (JSON.parse(fs.readFileSync(rest[0], 'utf8')).programs || []).flatMap((program) => (program.streams || [])
      .filter((stream) => stream.codec_type === 'video' && stream.width).map((stream) => [stream.width, program.program_id]));
    if (!videos.length) process.exit(1);
    console.log(videos.sort((a, b) => a[0] - b[0])[0][1]);
  } else {
    console.error('usage: soak_client.mjs add BASE URL | queue BASE [SAVE] | smallest-program FILE');
    process.exit(2);
  }
} catch (e) {
  console.log(`error ${e.message}`);
  process.exit(3);
}
