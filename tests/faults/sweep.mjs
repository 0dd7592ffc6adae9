// Runs the program under strace and makes one of its system calls fail, or kills it there: every call of every
// kind, one after the other.
//
// strace counts the calls of each kind, and of each thread by itself, so a point is a kind and a number; a number
// that no thread reaches fires nothing and is no point. A kill comes before the call is made.
import { execFile, execFileSync } from 'node:child_process';
import { cpSync, existsSync, mkdtempSync, readFileSync, readdirSync, realpathSync, rmSync } from 'node:fs';
import { availableParallelism, tmpdir } from 'node:os';
import { join } from 'node:path';
import { program } from '../clients/wiki.mjs';

// Calls that change something, or whose failure can keep it from being changed.
export const WRITES = [
  'write',
  'pwrite64',
  'writev',
  'ftruncate',
  'fallocate',
  'rename',
  'renameat',
  'renameat2',
  'unlink',
  'unlinkat',
  'mkdir',
  'mkdirat',
  'rmdir',
  'link',
  'linkat',
  'symlink',
  'symlinkat',
  'chmod',
  'fchmod',
  'fsync',
  'fdatasync',
  'flock',
  'openat',
];

const ENTRY = /^,"pages\/(.*)\.md": \{"content_hash": "([0-9a-f]*)"/gm;

// A folder for worlds and their copies, gone at the end of the test.
export function scratch(t) {
  const folder = realpathSync(mkdtempSync(join(tmpdir(), 'ossilar-sweep-')));
  t.after(() => rmSync(folder, { recursive: true, force: true }));
  return folder;
}

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

// For each call the numbers of the first and the last one that the busiest thread makes. What comes before the
// repository is first looked at is the system's loader.
async function numbersOfCalls(root, action, log) {
  await traced(root, action, [], log);
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

// Runs `action` on a copy of `world` for each point and `each(root, result, point)` after it, and gives what `each`
// gave for the points that fired. `injections(call, k)` lists what to do at the k-th of these calls, each as
// strace's option has it ("signal=KILL:when=3").
export async function sweep({ folder, world, action, injections, each }) {
  const recorded = copy(folder, world, 'recorded');
  const numbers = await numbersOfCalls(recorded, action, join(folder, 'recorded.log'));
  rmSync(recorded, { recursive: true, force: true });
  const points = [];
  for (const [call, { first, last }] of numbers)
    for (let k = first; k <= last; ++k)
      for (const injection of injections(call, k)) points.push({ call, k, injection });
  const results = [];
  const work = async (worker) => {
    for (let point = points.shift(); point; point = points.shift()) {
      const root = copy(folder, world, `copy-${worker}`);
      const log = join(folder, `inject-${worker}.log`);
      const result = await traced(root, action, ['-e', `inject=${point.call}:${point.injection}`], log);
      const fired = /INJECTED|killed by SIGKILL/.test(readFileSync(log, 'utf8'));
      if (fired) results.push(await each(root, result, point));
      rmSync(root, { recursive: true, force: true });
    }
  };
  await Promise.all(Array.from({ length: availableParallelism() }, (_, worker) => work(worker)));
  return results;
}

// Times are kept, so that the index finds the sources as they were.
function copy(folder, world, name) {
  const root = join(folder, name);
  cpSync(world, root, { recursive: true, preserveTimestamps: true, verbatimSymlinks: true });
  return root;
}

// What index and manifest tell that the rows do not: a fault at every moment. `world` is the wiki before the save.
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

// Temporary files anywhere in the tree.
export function leftovers(root) {
  const names = readdirSync(root, { recursive: true });
  return names.filter((name) => /(^|\/)\.ossilar-[0-9a-f]{16}\.tmp$/.test(name));
}
