// How soon a server answers and what memory it takes, on a wiki of 100 pages, beside two public servers that
// keep the same texts as files and as a graph in memory. Prints figures and asserts nothing.
//   OSSILAR_PROGRAM=build/release/ossilar tests/clients/node bench/mcp_bench.mjs [RUNS]
import { execFileSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { LATEST_WITH_INITIALIZE, LineClient, program } from '../tests/clients/wiki.mjs';

const PAGES = 100;
const runs = Number(process.argv[2] ?? 20);

const numbers = (count) => Array.from({ length: count }, (_, i) => i);
const name = (i) => `unit${String(i).padStart(2, '0')}`;

// About 6 KB, some 700 words in ten sections.
function pageText(i, said = 'keeps') {
  const sentence = `The unit ${said} what it is given until somebody asks for it. `;
  const section = (s) => `## Part ${s}\n\n${sentence.repeat(10)}[src/${name(i)}.cpp:L${s + 1}]\n`;
  return `About ${name(i)}.\n\n${numbers(10).map(section).join('\n')}`;
}

function makeRepository(root) {
  mkdirSync(join(root, 'src'));
  const lines = (i) => numbers(50).map((line) => `int ${name(i)}_${line}();\n`);
  const page = (i) => `[[page]]\nid = "${name(i)}"\ntype = "module"\nsources = ["src/${name(i)}.cpp"]\n`;
  for (const i of numbers(PAGES)) writeFileSync(join(root, 'src', `${name(i)}.cpp`), lines(i).join(''));
  writeFileSync(join(root, 'ossilar.toml'), numbers(PAGES).map(page).join(''));
  execFileSync(program, ['--repo', root, 'init'], { stdio: 'pipe' });
}

const peer = (file) =>
  fileURLToPath(new URL(`peers/node_modules/@modelcontextprotocol/${file}`, import.meta.url));

// Each server: how it is started, what fills it, and a call of each kind for page `i`.
function servers(folder) {
  const repository = join(folder, 'repository');
  const files = join(folder, 'files');
  mkdirSync(repository);
  mkdirSync(files);
  makeRepository(repository);
  process.env.MEMORY_FILE_PATH = join(folder, 'memory.jsonl');
  const path = (i) => join(files, `${name(i)}.md`);
  return [
    {
      server: 'ossilar',
      start: { command: program, args: ['--repo', repository, 'mcp'] },
      fill: (i) => ['save_page', { page_id: name(i), content: pageText(i) }],
      list: ['list_pages', {}],
      read: (i) => ['read_page', { page_id: name(i) }],
      save: (i) => ['save_page', { page_id: name(i), content: pageText(i, 'holds') }],
      search: (i) => ['search_wiki', { query: `what does ${name(i)} keep` }],
    },
    {
      server: 'filesystem',
      start: { command: process.execPath, args: [peer('server-filesystem/dist/index.js'), files] },
      fill: (i) => ['write_file', { path: path(i), content: pageText(i) }],
      list: ['list_directory', { path: files }],
      read: (i) => ['read_text_file', { path: path(i) }],
      save: (i) => ['write_file', { path: path(i), content: pageText(i, 'holds') }],
      search: (i) => ['search_files', { path: files, pattern: `**/${name(i)}*` }],
    },
    {
      server: 'memory',
      start: { command: process.execPath, args: [peer('server-memory/dist/index.js')] },
      fill: (i) => [
        'create_entities',
        { entities: [{ name: name(i), entityType: 'page', observations: [pageText(i)] }] },
      ],
      list: ['read_graph', {}],
      read: (i) => ['open_nodes', { names: [name(i)] }],
      save: (i) => [
        'add_observations',
        { observations: [{ entityName: name(i), contents: [pageText(i, 'holds')] }] },
      ],
      search: (i) => ['search_nodes', { query: name(i) }],
    },
  ];
}

const median = (values) => values.toSorted((a, b) => a - b)[Math.floor(values.length / 2)];

async function timed(work) {
  const begun = performance.now();
  await work();
  return performance.now() - begun;
}

async function call(client, [tool, given]) {
  const reply = await client.call(tool, given);
  if (reply.error || reply.result.isError) throw new Error(`${tool}: ${JSON.stringify(reply).slice(0, 300)}`);
}

async function session(start, run) {
  const client = new LineClient({ server: start });
  try {
    return await run(client);
  } finally {
    await client.end();
  }
}

const begin = (client) => client.begin(LATEST_WITH_INITIALIZE);

const peakMebibytes = (pid) =>
  Number(/VmHWM:\s+(\d+) kB/.exec(readFileSync(`/proc/${pid}/status`, 'utf8'))[1]) / 1024;

async function measure({ server, start, fill, list, read, save, search }) {
  await session(start, async (client) => {
    await begin(client);
    for (const i of numbers(PAGES)) await call(client, fill(i));
  });

  const toInitialize = [];
  const toFirstCall = [];
  for (let run = 0; run < runs; ++run) {
    const begun = performance.now();
    await session(start, async (client) => {
      await begin(client);
      toInitialize.push(performance.now() - begun);
      await call(client, list);
      toFirstCall.push(performance.now() - begun);
    });
  }

  const [reads, saves, searches] = [[], [], []];
  const peak = await session(start, async (client) => {
    await begin(client);
    await call(client, list);
    for (const i of numbers(5)) reads.push(await timed(() => call(client, read(i))));
    for (const i of numbers(5)) saves.push(await timed(() => call(client, save(i))));
    for (const i of numbers(5)) searches.push(await timed(() => call(client, search(i))));
    return peakMebibytes(client.process.pid);
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

function print(rows) {
  const line = (cells) =>
    console.log(cells.map((cell, i) => (i ? cell.padStart(15) : cell.padEnd(12))).join(''));
  line(Object.keys(rows[0]));
  for (const row of rows)
    line(Object.values(row).map((each) => (typeof each === 'number' ? each.toFixed(1) : each)));
  console.log(JSON.stringify({ pages: PAGES, runs, servers: rows }));
}

const folder = mkdtempSync(join(tmpdir(), 'ossilar-bench-'));
try {
  const rows = [];
  for (const each of servers(folder)) rows.push(await measure(each));
  print(rows);
} finally {
  rmSync(folder, { recursive: true, force: true });
}
