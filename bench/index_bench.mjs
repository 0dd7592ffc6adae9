// What it takes to know a repository: the first `init`, with the tree in the page cache and without it, beside counting
// lines and beside the symbol tool alone on the same files; then, after a change to one file, a second `init` and
// `status` beside `git status`. Without the right to empty the page cache every round is warm, and says so. Prints
// figures and asserts nothing.
//   OSSILAR_PROGRAM=... tests/clients/node bench/index_bench.mjs [FILES | REPOSITORY [ROUNDS]]
import { execFileSync } from 'node:child_process';
import { appendFileSync, existsSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { program } from '../tests/clients/wiki.mjs';
import { median, numbers, printTable, timed } from './support.mjs';
import { commitAll, writeTree } from './tree.mjs';

const what = process.argv[2] ?? '20000';
const rounds = Number(process.argv[3] ?? 3);
const SYMBOLS =
  'ctags --quiet --options=NONE --fields=NKnsp "--extras=-{anonymous}" --output-format=json -L - -f -';

const folder = mkdtempSync(join(tmpdir(), 'ossilar-bench-'));
const root = join(folder, 'tree');

// The files of the working tree without what a wiki adds.
function makeTree() {
  if (existsSync(what)) {
    execFileSync('git', ['clone', '--quiet', what, root], { stdio: 'pipe' });
    return;
  }
  if (!Number(what)) throw new Error(`${what} is neither a number of files nor a folder that is there`);
  writeTree(root, Number(what));
  commitAll(root);
}

function emptyPageCache() {
  try {
    execFileSync('sync');
    writeFileSync('/proc/sys/vm/drop_caches', '3');
    return true;
  } catch {
    return false;
  }
}

const shell = (script) =>
  timed(() => execFileSync('sh', ['-c', script], { cwd: root, stdio: 'pipe', maxBuffer: 1 << 30 }));
const ossilar = (...args) =>
  timed(() => execFileSync(program, ['--repo', root, ...args], { stdio: 'pipe', maxBuffer: 1 << 28 }));
const forget = () => {
  for (const name of ['.ossilar', 'wiki', 'ossilar.toml'])
    rmSync(join(root, name), { recursive: true, force: true });
};

try {
  makeTree();
  const files = execFileSync('git', ['-C', root, 'ls-files'], { encoding: 'utf8', maxBuffer: 1 << 28 }).split(
    '\n',
  );
  const canEmpty = emptyPageCache();
  const state = canEmpty ? 'cold' : 'warm, as the page cache cannot be emptied';
  const times = new Map();
  const note = async (name, work) => times.set(name, [...(times.get(name) ?? []), (await work()) / 1000]);
  const fromNothing = (command) => () => (forget(), emptyPageCache(), command());
  for (const round of numbers(rounds)) {
    await note(
      `lines, ${state}`,
      fromNothing(() => shell('git ls-files -z | xargs -0 wc -l >/dev/null')),
    );
    await note(
      `symbol tool alone, ${state}`,
      fromNothing(() => shell(`git ls-files | ${SYMBOLS} >/dev/null`)),
    );
    await note(
      `init, ${state}`,
      fromNothing(() => ossilar('init')),
    );
    await note('symbol tool alone, warm', () => shell(`git ls-files | ${SYMBOLS} >/dev/null`));
    await note('init, warm', () => (forget(), ossilar('init')));
    appendFileSync(join(root, files[round]), '\n');
    await note('git status', () => shell('git status >/dev/null'));
    await note('init again', () => ossilar('init'));
    appendFileSync(join(root, files[round]), '\n');
    await note('status', () => ossilar('status'));
  }
  const seconds = (name) => median(times.get(name));
  printTable([...times.keys()].map((name) => ({ what: name, seconds: seconds(name) })));
  const ratio = (a, b) => (seconds(a) / seconds(b)).toFixed(2);
  console.log(
    `${files.length - 1} files; init / symbol tool: ${state} ${ratio(`init, ${state}`, `symbol tool alone, ${state}`)}, ` +
      `warm ${ratio('init, warm', 'symbol tool alone, warm')}; init again / git status ${ratio('init again', 'git status')}, ` +
      `status / git status ${ratio('status', 'git status')}`,
  );
  console.log(JSON.stringify({ files: files.length - 1, rounds, seconds: Object.fromEntries(times) }));
} finally {
  rmSync(folder, { recursive: true, force: true });
}
