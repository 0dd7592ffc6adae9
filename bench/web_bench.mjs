// What reading a wiki in a browser costs as it grows: a page of 20 KB from a server that runs, until its first byte and
// whole; and an export, cold, with nothing changed, and after one save. Beside them what a public server of documentation
// and a public site generator make of the same pages. Prints figures and asserts nothing.
//   OSSILAR_PROGRAM=... tests/clients/node bench/web_bench.mjs [MOST-PAGES]
import { execFileSync, spawn } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { Agent, get } from 'node:http';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { program } from '../tests/clients/wiki.mjs';
import { numbers, pageText, percentile, printTable, timed, write } from './support.mjs';
import { commitAll, writeTree } from './tree.mjs';
import { generateSite, servePages } from './web_peers.mjs';

const SIZES = [10, 1_000, 10_000].filter((pages) => pages <= Number(process.argv[2] ?? 10_000));
const READS = 300;

// About 20 KB.
const longText = (source, edition = 0) => numbers(3).map((part) => pageText(source, 10 * edition + part)).join('\n');

function makeWiki(root, pages) {
  const paths = writeTree(root, Math.max(pages, 100));
  const page = (i) => `[[page]]\nid = "page${i}"\ntype = "module"\nsources = ["${paths[i]}"]\n`;
  write(join(root, 'ossilar.toml'), numbers(pages).map(page).join(''));
  for (const i of numbers(pages)) write(join(root, `wiki/pages/page${i}.md`), `# page${i}\n\n${longText(paths[i])}`);
  commitAll(root);
  return paths;
}

const ossilar = (root, args, input) =>
  execFileSync(program, ['--repo', root, ...args], { input, stdio: ['pipe', 'pipe', 'pipe'], maxBuffer: 1 << 28 });

// Milliseconds until the first byte and the last one.
const read = (url, agent) =>
  new Promise((resolve, reject) => {
    const begun = performance.now();
    get(url, { agent }, (response) => {
      const first = performance.now() - begun;
      let size = 0;
      response.on('data', (data) => (size += data.length));
      response.on('end', () => resolve({ first, whole: performance.now() - begun, size, status: response.statusCode }));
    }).on('error', reject);
  });

async function readPages(addressOf, pages, agent) {
  const reads = [];
  for (const i of numbers(READS)) {
    const one = await read(addressOf((i * 7919) % pages), agent);
    if (one.status !== 200) throw new Error(`status ${one.status}`);
    reads.push(one);
  }
  return reads;
}

// The same pages, from the folder of the wiki.
async function measurePeers(root, pages) {
  const folder = join(root, 'wiki/pages');
  const agent = new Agent({ keepAlive: true });
  const reads = await servePages(folder, (url) => readPages((page) => `${url}page${page}.md`, pages, agent));
  agent.destroy();
  return {
    'markserv whole p50 ms': percentile(reads.map((each) => each.whole), 50),
    'eleventy s': await generateSite(folder),
  };
}

async function measure(pages) {
  const root = mkdtempSync(join(tmpdir(), 'ossilar-bench-'));
  const site = mkdtempSync(join(tmpdir(), 'ossilar-site-'));
  try {
    const paths = makeWiki(root, pages);
    ossilar(root, ['init']);
    const begun = performance.now();
    const server = spawn(program, ['--repo', root, 'serve', '--port', '0'], { stdio: ['ignore', 'pipe', 'inherit'] });
    let url = '';
    for await (const line of createInterface(server.stdout)) {
      url = /http:\S+\//.exec(line)?.[0] ?? '';
      if (url) break;
    }
    const start = performance.now() - begun;
    const agent = new Agent({ keepAlive: true });
    const reads = await readPages((page) => `${url}pages/page${page}.html`, pages, agent);
    const memory = Number(/VmRSS:\s+(\d+) kB/.exec(readFileSync(`/proc/${server.pid}/status`, 'utf8'))[1]) / 1024;
    agent.destroy();
    server.kill('SIGTERM');
    await new Promise((done) => server.on('exit', done));
    const cold = await timed(() => ossilar(root, ['export', site]));
    const unchanged = await timed(() => ossilar(root, ['export', site]));
    ossilar(root, ['save', 'page0', '-'], longText(paths[0], 1));
    const saved = await timed(() => ossilar(root, ['export', site]));
    return {
      pages,
      'page KB': reads[0].size / 1024,
      'start ms': start,
      'first byte p50 ms': percentile(reads.map((each) => each.first), 50),
      'whole p50 ms': percentile(reads.map((each) => each.whole), 50),
      'whole p99 ms': percentile(reads.map((each) => each.whole), 99),
      'memory MB': memory,
      'export s': cold / 1000,
      'unchanged s': unchanged / 1000,
      'one saved s': saved / 1000,
      ...(await measurePeers(root, pages)),
    };
  } finally {
    for (const folder of [root, site]) rmSync(folder, { recursive: true, force: true });
  }
}

const rows = [];
for (const pages of SIZES) rows.push(await measure(pages));
printTable(rows);
