// How soon a server answers and what memory it takes, on a wiki of 100 pages, beside two public servers that
// keep the same texts as files and as a graph in memory. Prints figures and asserts nothing.
//   OSSILAR_PROGRAM=build/bench/ossilar tests/clients/node bench/mcp_bench.mjs [RUNS]
import { mkdirSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import {
  Client,
  makeRepository,
  median,
  name,
  numbers,
  pageText,
  peerServer,
  printTable,
  sourceOf,
  timed,
  wikiServer,
} from './support.mjs';

const PAGES = 100;
const runs = Number(process.argv[2] ?? 20);

// Each server: how it is started, what fills it, and a call of each kind for page `i`.
function servers(folder) {
  const repository = join(folder, 'repository');
  const files = join(folder, 'files');
  mkdirSync(files);
  makeRepository(repository, PAGES);
  process.env.MEMORY_FILE_PATH = join(folder, 'memory.jsonl');
  const path = (i) => join(files, `${name(i)}.md`);
  return [
    {
      server: 'ossilar',
      start: wikiServer(repository),
      fill: (i) => ['save_page', { page_id: name(i), content: pageText(sourceOf(i)) }],
      list: ['list_pages', {}],
      read: (i) => ['read_page', { page_id: name(i) }],
      save: (i) => ['save_page', { page_id: name(i), content: pageText(sourceOf(i), 1) }],
      search: (i) => ['search_wiki', { query: `what does ${name(i)} keep` }],
    },
    {
      server: 'filesystem',
      start: peerServer('server-filesystem/dist/index.js', files),
      fill: (i) => ['write_file', { path: path(i), content: pageText(sourceOf(i)) }],
      list: ['list_directory', { path: files }],
      read: (i) => ['read_text_file', { path: path(i) }],
      save: (i) => ['write_file', { path: path(i), content: pageText(sourceOf(i), 1) }],
      search: (i) => ['search_files', { path: files, pattern: `**/${name(i)}*` }],
    },
    {
      server: 'memory',
      start: peerServer('server-memory/dist/index.js'),
      fill: (i) => [
        'create_entities',
        { entities: [{ name: name(i), entityType: 'page', observations: [pageText(sourceOf(i))] }] },
      ],
      list: ['read_graph', {}],
      read: (i) => ['open_nodes', { names: [name(i)] }],
      save: (i) => [
        'add_observations',
        { observations: [{ entityName: name(i), contents: [pageText(sourceOf(i), 1)] }] },
      ],
      search: (i) => ['search_nodes', { query: name(i) }],
    },
  ];
}

async function session(start, run) {
  const client = new Client(start);
  try {
    await client.begin();
    return await run(client);
  } finally {
    await client.end();
  }
}

async function measure({ server, start, fill, list, read, save, search }) {
  await session(start, async (client) => {
    for (const i of numbers(PAGES)) await client.call(...fill(i));
  });

  const toInitialize = [];
  const toFirstCall = [];
  for (let run = 0; run < runs; ++run) {
    const begun = performance.now();
    await session(start, async (client) => {
      toInitialize.push(performance.now() - begun);
      await client.call(...list);
      toFirstCall.push(performance.now() - begun);
    });
  }

  const [reads, saves, searches] = [[], [], []];
  const peak = await session(start, async (client) => {
    await client.call(...list);
    for (const i of numbers(5)) reads.push(await timed(() => client.call(...read(i))));
    for (const i of numbers(5)) saves.push(await timed(() => client.call(...save(i))));
    for (const i of numbers(5)) searches.push(await timed(() => client.call(...search(i))));
    return client.memory('VmHWM');
  });
  return {
    server,
    initialize_ms: median(toInitialize),
    first_call_ms: median(toFirstCall),
    read_ms: median(reads),
    save_ms: median(saves),
    search_ms: median(searches),
    peak_mib: peak,
  };
}

const folder = mkdtempSync(join(tmpdir(), 'ossilar-bench-'));
try {
  const rows = [];
  for (const each of servers(folder)) rows.push(await measure(each));
  printTable(rows);
  console.log(JSON.stringify({ pages: PAGES, runs, servers: rows }));
} finally {
  rmSync(folder, { recursive: true, force: true });
}
