// What a save over stdio costs: pages of 6 KB, one after the other and with eight in flight on different pages,
// beside the public filesystem server's write_file from the same client, and beside the floor: write, sync,
// rename and sync of the directory, and one synced commit of SQLite. The rounds take turns, so that what else the
// machine does is spread over all. Prints figures and asserts nothing.
//   OSSILAR_PROGRAM=... OSSILAR_FLOOR=build/bench/bench/floor_bench tests/clients/node bench/save_bench.mjs [SAVES]
import { execFileSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import {
  Client,
  makeRepository,
  name,
  numbers,
  pageText,
  peerServer,
  percentile,
  printTable,
  sourceOf,
  timedCalls,
  wikiServer,
} from './support.mjs';

const PAGES = 64;
const ROUNDS = 8;
const saves = Number(process.argv[2] ?? 1600);

const floor = (folder, count) =>
  JSON.parse(execFileSync(process.env.OSSILAR_FLOOR, [folder, String(count)], { encoding: 'utf8' }));

const figures = (what, durations, seconds) => ({
  what,
  p50_ms: percentile(durations, 50),
  p95_ms: percentile(durations, 95),
  p99_ms: percentile(durations, 99),
  per_second: seconds
    ? durations.length / seconds
    : 1000 / (durations.reduce((a, b) => a + b) / durations.length),
});

const folder = mkdtempSync(join(tmpdir(), 'ossilar-bench-'));
try {
  const repository = join(folder, 'repository');
  const files = join(folder, 'files');
  mkdirSync(files);
  makeRepository(repository, PAGES);
  const ways = [
    {
      way: 'save_page',
      client: new Client(wikiServer(repository)),
      call: (i, edition) => ['save_page', { page_id: name(i), content: pageText(sourceOf(i), edition) }],
    },
    {
      way: 'write_file',
      client: new Client(peerServer('server-filesystem/dist/index.js', files)),
      call: (i, edition) => [
        'write_file',
        { path: join(files, `${name(i)}.md`), content: pageText(sourceOf(i), edition) },
      ],
    },
  ];
  let edition = 0;
  for (const { client, call } of ways) {
    await client.begin();
    for (const i of numbers(PAGES)) await client.call(...call(i, edition));
  }
  const one = { save_page: [], write_file: [] };
  const eight = { save_page: [], write_file: [] };
  const seconds = { save_page: 0, write_file: 0 };
  const floors = [];
  for (const round of numbers(ROUNDS)) {
    for (const { way, client, call } of round % 2 ? ways.toReversed() : ways) {
      // The texts are made before, so that the client's own work is the same and small.
      const calls = numbers(saves / ROUNDS).map((k) => call(k % PAGES, ++edition));
      one[way].push(...(await timedCalls(calls.length, 1, (i) => client.call(...calls[i]))));
      const more = numbers(saves / ROUNDS).map((k) => call(k % PAGES, ++edition));
      const start = performance.now();
      eight[way].push(...(await timedCalls(more.length, 8, (i) => client.call(...more[i]))));
      seconds[way] += (performance.now() - start) / 1000;
    }
    floors.push(...floor(folder, saves / ROUNDS).map((each) => each / 1000));
  }
  for (const { client } of ways) await client.end();
  const rows = [
    figures('save_page', one.save_page),
    figures('write_file', one.write_file),
    figures('floor', floors),
    figures('save_page, 8 in flight', eight.save_page, seconds.save_page),
    figures('write_file, 8 in flight', eight.write_file, seconds.write_file),
  ];
  printTable(rows);
  const ratio = (percent) => percentile(one.save_page, percent) / percentile(one.write_file, percent);
  console.log(`save_page / write_file: p50 ${ratio(50).toFixed(2)}, p99 ${ratio(99).toFixed(2)}`);
  console.log(JSON.stringify({ pages: PAGES, saves, rows }));
} finally {
  rmSync(folder, { recursive: true, force: true });
}
