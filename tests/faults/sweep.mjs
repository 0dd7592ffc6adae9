// Runs the program under strace and makes one of its system calls fail, or kills it there: every call of every
// kind, one after the other.
//
// strace counts the calls of each kind, and of each thread by itself, so a point is a kind and a number; a number
// that no thread reaches fires nothing and is no point. A kill comes before the call is made.
import assert from 'node:assert/strict';
import { execFile, execFileSync } from 'node:child_process';
import { cpSync, existsSync, mkdtempSync, readFileSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
import { availableParallelism, tmpdir } from 'node:os';
import { join } from 'node:path';
import { makeWiki, pageAbout, program, sectionText } from '../clients/wiki.mjs';

// Calls that change something, or whose failure can keep it from being changed.
const WRITES = (
  'write pwrite64 writev ftruncate fallocate rename renameat renameat2 unlink unlinkat mkdir mkdirat rmdir ' +
  'link linkat symlink symlinkat chmod fchmod fsync fdatasync flock openat'
).split(' ');

const ENTRY = /^,"pages\/(.*)\.md": \{"content_hash": "([0-9a-f]*)"/gm;

// Copies a tree and returns the copy. Times are kept, so that the index finds the sources as they were.
export function copyTree(from, to) {
  cpSync(from, to, { recursive: true, preserveTimestamps: true, verbatimSymlinks: true });
  return to;
}

export function wikiWithAlpha(t) {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 3));
  return wiki;
}

export function setLockTimeout(wiki, seconds) {
  const config = join(wiki.root, 'ossilar.toml');
  writeFileSync(config, `[wiki]\nlock_timeout_s = ${seconds}\n\n${readFileSync(config, 'utf8')}`);
}

// What may be wrong although a save succeeded: it says that these could not be refreshed.
export const BEST_EFFORT = ['index', 'manifest', 'leftover'];

// The saves that the sweeps try on wikiWithAlpha().
export const PAGE_SAVE = { what: 'a save', args: ['save', 'alpha'], input: pageAbout('alpha', 4, 'second') };
export const SECTION_SAVE = {
  what: 'a section save',
  args: ['save', 'alpha', '--section', 'Section 1'],
  input: sectionText('alpha', 1, 'second'),
};

export function run(command, args, { input = '', cwd } = {}) {
  return new Promise((resolve) => {
    const child = execFile(command, args, { cwd, encoding: 'utf8', maxBuffer: 1 << 26 }, (error, stdout, stderr) => {
      const code = error ? (typeof error.code === 'number' ? error.code : null) : 0;
      resolve({ code, signal: error?.signal ?? null, stdout, stderr });
    });
    child.stdin.on('error', () => {}); // who was killed reads nothing
    child.stdin.end(input);
  });
}

export const ossilar = (root, args, input) => run(program, ['--repo', root, ...args], { input });

// For each call in a log the numbers of the first and the last one that the busiest thread makes, from the first line
// with `root` on: what comes before it is the system's loader.
export function numbersOfCalls(log, root) {
  const numbers = new Map();
  const counts = new Map();
  let started = false;
  for (const line of readFileSync(log, 'utf8').split('\n')) {
    const match = /^(\d+)\s+(\w+)\(/.exec(line);
    if (!match) continue;
    const [, thread, call] = match;
    const k = (counts.get(call + thread) ?? 0) + 1;
    counts.set(call + thread, k);
    started ||= line.includes(root);
    if (!started) continue;
    const { first, last } = numbers.get(call) ?? { first: k, last: k };
    numbers.set(call, { first: Math.min(first, k), last: Math.max(last, k) });
  }
  return numbers;
}

function traced(root, action, injection, log) {
  const trace = ['-f', '-e', `trace=${WRITES.map((call) => `?${call}`).join(',')}`, '-o', log];
  return run('strace', [...trace, ...injection, program, '--repo', root, ...action.args], { input: action.input });
}

// With OSSILAR_SWEEP=few a sweep meets the first and the last call of each kind and every twenty-fourth in between: each
// kind of fault once, in the time that a test may take on a developer's machine.
export const isFew = process.env.OSSILAR_SWEEP === 'few';

// Whether a sweep met enough points to say anything: `whole` of them, or in a short one a twenty-fourth.
export const metEnough = (points, whole) => points > (isFew ? whole / 24 : whole);

// Runs `action` on a copy of `world` for each point and `each(root, result, point)` after it, and gives what `each`
// gave for the points that fired. `injections(call, k)` lists what to do at the k-th of these calls, each as
// strace's option has it ("signal=KILL:when=3").
export async function sweep({ folder, world, action, injections, each }) {
  const recorded = copyTree(world, join(folder, 'recorded'));
  const recording = join(folder, 'recorded.log');
  await traced(recorded, action, [], recording);
  const points = [];
  for (const [call, { first, last }] of numbersOfCalls(recording, recorded))
    for (let k = first; k <= last; k = isFew && k < last ? Math.min(k + 24, last) : k + 1)
      for (const injection of injections(call, k)) points.push({ call, k, injection });
  const results = [];
  await inParallel(points, async (point, worker) => {
    const root = copyTree(world, join(folder, `copy-${worker}`));
    const log = join(folder, `inject-${worker}.log`);
    const result = await traced(root, action, ['-e', `inject=${point.call}:${point.injection}`], log);
    if (hasFired(log)) results.push(await each(root, result, point));
    rmSync(root, { recursive: true, force: true });
  });
  return results;
}

export const hasFired = (log) => /INJECTED|killed by SIGKILL/.test(readFileSync(log, 'utf8'));

// Runs `work(item, worker)` for each item, as many at once as there are processors.
export async function inParallel(items, work) {
  const left = [...items];
  const worker = async (_, number) => {
    while (left.length > 0) await work(left.shift(), number);
  };
  await Promise.all(Array.from({ length: availableParallelism() }, worker));
}

// The page before and after the action, which runs in a copy of `world`.
export function pagesAround(folder, world, { args, input }) {
  const done = copyTree(world, join(folder, 'done'));
  execFileSync(program, ['--repo', done, ...args], { input, stdio: 'pipe' });
  return [world, done].map((root) => pageText(root, 'alpha'));
}

// What index and manifest list and the rows do not, which is always a fault. `world` is the wiki before the save.
// The database is looked at in a copy, so that what was left in its log stays for the program to find.
export function listsAhead(root, world) {
  const read = (at, name) => (existsSync(join(at, name)) ? readFileSync(join(at, name), 'utf8') : '');
  const copied = mkdtempSync(join(tmpdir(), 'ossilar-rows-'));
  try {
    cpSync(join(root, '.ossilar'), copied, { recursive: true });
    const database = join(copied, 'index.db');
    const query = 'SELECT page_id, content_hash FROM pages';
    const answer = existsSync(database) ? execFileSync('sqlite3', [database, query], { stdio: 'pipe' }) : '';
    const rows = new Map(String(answer).split('\n').map((line) => line.split('|')));
    const entries = (at) => new Map([...read(at, 'wiki/manifest.json').matchAll(ENTRY)].map(([, id, hash]) => [id, hash]));
    const before = entries(world);
    const ahead = [...entries(root)].filter(([id, hash]) => hash !== rows.get(id) && hash !== before.get(id));
    if (ahead.length > 0) return `the manifest is ahead of the rows: ${ahead}`;
    const isOther = read(root, 'wiki/index.md') !== read(world, 'wiki/index.md');
    const sameRows = [...before].every(([id, hash]) => rows.get(id) === hash) && rows.size - 1 === before.size;
    return isOther && sameRows ? 'the index is ahead of the rows' : '';
  } finally {
    rmSync(copied, { recursive: true, force: true });
  }
}

export const pageText = (root, id) => {
  const file = join(root, 'wiki/pages', `${id}.md`);
  return existsSync(file) ? readFileSync(file, 'utf8') : null;
};

// The texts of the wiki's files, by name.
export function filesOf(root) {
  const wiki = join(root, 'wiki');
  const names = readdirSync(wiki, { recursive: true, withFileTypes: true }).filter((entry) => entry.isFile());
  return Object.fromEntries(names.map((entry) => join(entry.parentPath, entry.name)).map((file) => [file.slice(root.length), readFileSync(file, 'utf8')]));
}

// Those that were kept as a hand's, each after its name.
export function keptTexts(root) {
  const folder = join(root, '.ossilar/replaced');
  return existsSync(folder) ? readdirSync(folder).map((name) => `${name}: ${readFileSync(join(folder, name), 'utf8')}`) : [];
}

// Temporary files anywhere in the tree.
export function leftovers(root) {
  const names = readdirSync(root, { recursive: true });
  return names.filter((name) => /(^|\/)\.ossilar-[0-9a-f]{16}\.tmp$/.test(name));
}

export const said = (what, { code, signal, stdout, stderr }) => `${what}: exit ${code ?? signal}\n${stdout}${stderr}`;

// The findings of `check`; undefined when it failed.
export async function findingsOf(root) {
  const { stdout } = await ossilar(root, ['--json', 'check']);
  return JSON.parse(stdout).findings;
}

// Repairs the wiki, saves a page and checks it. What goes wrong on the way as a text, or "".
export async function faultAfterRepair(root, id = 'beta', input = pageAbout(id)) {
  for (const args of [['check', '--fix'], ['status'], ['save', id], ['check']]) {
    const result = await ossilar(root, args, input);
    if (result.code !== 0) return said(args.join(' '), result);
    if (leftovers(root).length > 0) return `left after ${args.join(' ')}: ${leftovers(root)}`;
  }
  return '';
}

export const assertSound = async (wiki) => assert.equal(await faultAfterRepair(wiki.root), '');
