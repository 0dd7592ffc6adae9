// The embedded store and PostgreSQL, over the same wiki in one run: what a save takes alone and beside others, for how
// long it holds the write lock, what a search takes, and what a save sends to the server and gets from it. The server is
// this run's own, on the same disk, and syncs as it does by default. Over the embedded store four processes work in one
// checkout; over PostgreSQL each has a checkout of its own, as machines have. Prints figures and asserts nothing.
//   OSSILAR_PROGRAM=... tests/clients/node bench/store_bench.mjs [MOST-PAGES [SAVES]]
import { execFileSync } from 'node:child_process';
import { cpSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { beginSession, post, serveHttp } from '../tests/clients/http.mjs';
import { PostgresServer } from '../tests/clients/postgres.mjs';
import { LATEST_WITH_INITIALIZE, program } from '../tests/clients/wiki.mjs';
import { Meter } from './meter.mjs';
import { median, name, numbers, pageText, percentile, printTable, sourceOf, timedCalls, write } from './support.mjs';

const SIZES = [100, 10_000];
const PROCESSES = 4;
const ROUNDS = 4;
const WARM_UP = 20;
const most = Number(process.argv[2] ?? Infinity);
const saves = Number(process.argv[3] ?? 160); // of each way in each round

const run = (root, ...args) =>
  execFileSync(program, ['--repo', root, ...args], { stdio: ['ignore', 'ignore', 'inherit'] });

function makeWiki(root, pages) {
  const lines = (i) => numbers(20).map((line) => `int ${name(i)}_${line}();\n`);
  const entry = (i) => `[[page]]\nid = "${name(i)}"\ntype = "module"\nsources = ["${sourceOf(i)}"]\n`;
  for (const i of numbers(pages)) {
    write(join(root, sourceOf(i)), lines(i).join(''));
    write(join(root, `wiki/pages/${name(i)}.md`), `# ${name(i)}\n\n${pageText(sourceOf(i))}`);
  }
  write(join(root, 'ossilar.toml'), numbers(pages).map(entry).join(''));
  run(root, 'init');
  return root;
}

// A copy of the checkout that works over the database.
function checkoutOver(url, from, root) {
  cpSync(from, root, { recursive: true, preserveTimestamps: true });
  const config = join(root, 'ossilar.toml');
  writeFileSync(config, `[store]\nurl = "${url}"\n${readFileSync(config, 'utf8')}`);
  return root;
}

// A server on a checkout, as a client sees it.
class Process {
  static async over(root, cleanups) {
    const { url } = await serveHttp({ after: (work) => cleanups.push(work) }, { root });
    return Object.assign(new Process(), { url, nextId: 1, session: await beginSession(url, LATEST_WITH_INITIALIZE) });
  }

  async call(tool, args) {
    const message = { id: ++this.nextId, method: 'tools/call', params: { name: tool, arguments: args } };
    const reply = await (await post(this.url, message, this.session)).json();
    if (reply.error || reply.result.isError) throw new Error(`${tool}: ${JSON.stringify(reply).slice(0, 400)}`);
    return reply.result;
  }

  // Since the server's start: how often the write lock was held, and for how long together, in seconds.
  async holds() {
    const metrics = await (await fetch(this.url.replace(/\/mcp$/, '/metrics'))).text();
    const number = (what) => Number(new RegExp(`^ossilar_lock_hold_seconds_${what} (.*)$`, 'm').exec(metrics)[1]);
    return { count: number('count'), sum: number('sum') };
  }
}

let edition = 0;

// The k-th save of a run over `pages`, by one of the processes in turn.
function saveOf(processes, pages, k) {
  const i = (k * 7919) % pages;
  return processes[k % processes.length].call('save_page', { page_id: name(i), content: pageText(sourceOf(i), ++edition) });
}

const WAYS = [
  { way: 'alone', processes: 1, writers: 1 },
  { way: '1 writer, by turns', processes: PROCESSES, writers: 1 },
  { way: '8 writers', processes: PROCESSES, writers: 8 },
  { way: '32 writers', processes: PROCESSES, writers: 32 },
];

async function heldBy(processes) {
  const all = await Promise.all(processes.map((each) => each.holds()));
  return { count: all.reduce((sum, { count }) => sum + count, 0), sum: all.reduce((sum, each) => sum + each.sum, 0) };
}

async function measureWay(store, pages, { way, processes, writers }) {
  const working = store.processes.slice(0, processes);
  const figures = store.figures[way];
  const before = await heldBy(working);
  const begun = performance.now();
  figures.durations.push(...(await timedCalls(saves, writers, (k) => saveOf(working, pages, k + figures.durations.length))));
  figures.seconds += (performance.now() - begun) / 1000;
  const after = await heldBy(working);
  figures.holds += after.count - before.count;
  figures.held += after.sum - before.sum;
}

const rowOf = (store, pages, way, { durations, seconds, holds, held }) => ({
  'save': `${store.kind}, ${pages} pages, ${way}`,
  p50_ms: median(durations),
  p99_ms: percentile(durations, 99),
  per_second: durations.length / seconds,
  held_mean_ms: (1000 * held) / holds,
});

const QUESTION = (k) => ({ query: `what does the parser keep ${k}` });

async function searchRow(store, pages) {
  const [process] = store.processes;
  const search = (k) => process.call('search_wiki', QUESTION(k));
  const first = (await timedCalls(1, 1, search))[0];
  const alone = await timedCalls(20, 1, search);
  const together = await timedCalls(40, 8, search);
  return { search: `${store.kind}, ${pages} pages`, first_ms: first, p50_ms: median(alone), p99_ms: percentile(alone, 99), of_8_p50_ms: median(together) };
}

// What each of some calls sends, gets and asks, one after the other.
async function trafficRow(meter, what, count, call) {
  const each = [];
  for (const k of numbers(count)) {
    meter.reset();
    await call(k);
    each.push(meter.counts);
  }
  const of = (field) => each.map((counts) => counts[field]);
  return {
    traffic: what,
    round_trips: median(of('roundTrips')),
    most: Math.max(...of('roundTrips')),
    sent_kb: median(of('sent')) / 1000,
    received_kb: median(of('received')) / 1000,
  };
}

async function traffic(root, meter, pages, cleanups) {
  const metered = await Process.over(root, cleanups);
  const save = (k) => saveOf([metered], pages, k);
  for (const k of numbers(WARM_UP)) await save(k);
  const rows = [await trafficRow(meter, `a save, ${pages} pages`, 40, save)];
  rows.push(await trafficRow(meter, `the first search, ${pages} pages`, 1, () => metered.call('search_wiki', QUESTION(0))));
  rows.push(await trafficRow(meter, `a search, ${pages} pages`, 5, (k) => metered.call('search_wiki', QUESTION(k))));
  rows.push(
    await trafficRow(meter, `a search after a save, ${pages} pages`, 5, async (k) => {
      await save(k);
      meter.reset();
      await metered.call('search_wiki', QUESTION(k));
    }),
  );
  return rows;
}

async function measure(pages, server, folder) {
  const cleanups = [];
  const meter = await new Meter(server.folder).start();
  try {
    const embedded = makeWiki(join(folder, 'embedded'), pages);
    const url = server.createDatabase(`pages${pages}`);
    const checkouts = numbers(PROCESSES).map((i) => checkoutOver(url, embedded, join(folder, `checkout${i}`)));
    const metered = checkoutOver(server.url(`pages${pages}`, meter.folder), embedded, join(folder, 'metered'));
    run(embedded, 'store', 'copy', 'local', url);
    const figures = () => Object.fromEntries(WAYS.map(({ way }) => [way, { durations: [], seconds: 0, holds: 0, held: 0 }]));
    const over = (roots) => Promise.all(roots.map((root) => Process.over(root, cleanups)));
    const stores = [
      { kind: 'sqlite', figures: figures(), processes: await over(numbers(PROCESSES).map(() => embedded)) },
      { kind: 'postgresql', figures: figures(), processes: await over(checkouts) },
    ];
    for (const { processes } of stores)
      for (const k of numbers(WARM_UP * PROCESSES)) await saveOf(processes, pages, k);
    for (const round of numbers(ROUNDS))
      for (const store of round % 2 ? stores.toReversed() : stores)
        for (const way of WAYS) await measureWay(store, pages, way);
    const searches = [];
    for (const store of stores) searches.push(await searchRow(store, pages));
    return {
      saves: stores.flatMap((store) => WAYS.map(({ way }) => rowOf(store, pages, way, store.figures[way]))),
      searches,
      traffic: await traffic(metered, meter, pages, cleanups),
    };
  } finally {
    for (const work of cleanups) await work();
    meter.remove();
  }
}

const server = await new PostgresServer({ syncs: true }).start();
const folder = mkdtempSync(join(tmpdir(), 'ossilar-bench-'));
try {
  const results = [];
  for (const pages of SIZES.filter((size) => size <= most)) {
    results.push(await measure(pages, server, mkdtempSync(join(folder, 'wiki-'))));
    console.error(`${pages} pages: measured`);
  }
  for (const table of ['saves', 'searches', 'traffic']) {
    printTable(results.flatMap((result) => result[table]));
    console.log();
  }
  console.log(JSON.stringify({ saves, results }));
} finally {
  await server.remove();
  rmSync(folder, { recursive: true, force: true });
}
