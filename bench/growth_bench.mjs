// What a save costs, and what a server takes, as wiki and repository grow: trees of a size each, made by a generator
// that imitates a real one (folders of uneven size, files of uneven length, classes, functions and includes of each
// other), in git, with every page written. Prints figures and asserts nothing.
//   OSSILAR_PROGRAM=... tests/clients/node bench/growth_bench.mjs [MOST-PAGES]
import { execFileSync } from 'node:child_process';
import { appendFileSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { program } from '../tests/clients/wiki.mjs';
import {
  Client,
  median,
  numbers,
  pageText,
  percentile,
  printTable,
  timed,
  timedCalls,
  wikiServer,
  write,
} from './support.mjs';
import { commitAll, writeTree } from './tree.mjs';

const SIZES = [
  { pages: 10, files: 1_000 },
  { pages: 100, files: 1_000 },
  { pages: 1_000, files: 10_000 },
  { pages: 10_000, files: 100_000 },
];
const SAVES = 200;
const WARM_UP = 20;

function makeTree(root, { pages, files }) {
  const paths = writeTree(root, files);
  const page = (i) => `[[page]]\nid = "page${i}"\ntype = "module"\nsources = ["${paths[i]}"]\n`;
  write(join(root, 'ossilar.toml'), numbers(pages).map(page).join(''));
  for (const i of numbers(pages))
    write(join(root, `wiki/pages/page${i}.md`), `# page${i}\n\n${pageText(paths[i])}`);
  commitAll(root);
  return paths;
}

const command = (root, ...args) =>
  timed(() => {
    try {
      execFileSync(program, ['--repo', root, ...args], { stdio: 'pipe', maxBuffer: 1 << 28 });
    } catch (error) {
      if (error.status !== 1) throw error; // `check` has something to say
    }
  });

// The page of the k-th save.
const pageOf = (k, { pages }) => (k * 7919) % pages;

// The symbol tool alone over the same files, as many at a time as there are cores.
const SYMBOLS =
  'git ls-files -z src | xargs -0 -n 1000 -P "$(nproc)" ' +
  'ctags --quiet --options=NONE --fields=NKnsp --output-format=json -f - > /dev/null';
const symbolsAlone = (root) =>
  timed(() => execFileSync('sh', ['-c', SYMBOLS], { cwd: root, stdio: ['ignore', 'ignore', 'pipe'] }));

// Which pages a commit of a few files affects, beside what git takes to say what it changed.
async function afterACommit(root, paths) {
  commitAll(root);
  for (const path of new Set(paths)) appendFileSync(join(root, path), 'int more();\n');
  commitAll(root);
  const git = () => execFileSync('git', ['-C', root, 'diff', '--stat', 'HEAD~1', 'HEAD'], { stdio: 'pipe' });
  const affected = () => command(root, 'affected', 'HEAD~1..HEAD');
  const first = await affected();
  const git_diff = median(await timedCalls(5, 1, git));
  const again = median(await timedCalls(5, 1, affected));
  return {
    git_diff_s: git_diff / 1000,
    affected_s: first / 1000,
    affected_again_s: again / 1000,
    affected_over_git: again / git_diff,
    check_after_s: (await command(root, 'check')) / 1000,
  };
}

async function measure(size) {
  const root = mkdtempSync(join(tmpdir(), 'ossilar-bench-'));
  try {
    const paths = makeTree(root, size);
    const symbols = await symbolsAlone(root);
    const init = await command(root, 'init');
    const again = await command(root, 'init');
    const status = await command(root, 'status');
    const search = await command(root, 'search', 'what does the parser keep');
    const check = await command(root, 'check');

    const begun = performance.now();
    const client = new Client(wikiServer(root));
    await client.begin();
    const first = performance.now() - begun;
    await client.call('list_pages', {});
    const list = performance.now() - begun;
    const save = (k) => {
      const i = pageOf(k, size);
      return client.call('save_page', { page_id: `page${i}`, content: pageText(paths[i], k + 1) });
    };
    await timedCalls(WARM_UP, 1, save);
    const saves = await timedCalls(SAVES, 1, (k) => save(k + WARM_UP));
    const search_wiki = (k) => client.call('search_wiki', { query: `what does the parser keep ${k}` });
    const searches = await timedCalls(10, 1, search_wiki);
    const together = await timedCalls(40, 8, search_wiki);
    const row = {
      ...size,
      save_p50_ms: median(saves),
      save_p99_ms: percentile(saves, 99),
      memory_mib: client.memory('VmRSS'),
      peak_mib: client.memory('VmHWM'),
      first_answer_ms: first,
      first_list_ms: list,
      search_ms: median(searches),
      search_of_8_ms: median(together),
      init_s: init / 1000,
      init_over_symbols: init / symbols,
      init_again_s: again / 1000,
      status_s: status / 1000,
      search_cli_s: search / 1000,
      check_s: check / 1000,
    };
    await client.end();
    return { ...row, ...(await afterACommit(root, numbers(20).map((k) => paths[pageOf(k, size)]))) };
  } finally {
    rmSync(root, { recursive: true, force: true });
  }
}

const most = Number(process.argv[2] ?? Infinity);
const rows = [];
for (const size of SIZES.filter(({ pages }) => pages <= most)) {
  rows.push(await measure(size));
  console.error(`${size.pages} pages, ${size.files} files: measured`);
}
printTable(rows);
console.log(
  `p50 of the largest / the smallest: ${(rows.at(-1).save_p50_ms / rows[0].save_p50_ms).toFixed(2)}`,
);
console.log(JSON.stringify({ saves: SAVES, rows }));
