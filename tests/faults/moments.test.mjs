// What others do between two calls of the program, at the moment at which it matters: the program is stopped there.
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import { cpSync, readFileSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { holdWriteLock, makeWiki, pageAbout, program, sectionText } from '../clients/wiki.mjs';
import { leftovers, ossilar, pageText, run, scratch } from './sweep.mjs';

// A copy of the wiki. Copies alone are alike to the program: it reads what was changed just now once more.
function copyOf(t, wiki) {
  const root = join(scratch(t), 'copy');
  cpSync(wiki.root, root, { recursive: true, preserveTimestamps: true });
  return root;
}

const tracing = (call, root, args) => ['-f', '-y', '-e', `trace=flock,${call}`, program, '--repo', root, ...args];

// The number, among the calls of its kind by its thread, of the `nth` call that `wanted` matches.
async function numberOf(t, wiki, { args, input, call, wanted, nth = 1 }) {
  const log = join(scratch(t), 'calls.log');
  await run('strace', ['-o', log, ...tracing(call, copyOf(t, wiki), args)], { input });
  const counts = new Map();
  let left = nth;
  for (const line of readFileSync(log, 'utf8').split('\n')) {
    const [, thread] = new RegExp(`^(\\d+) +${call}\\(`).exec(line) ?? [];
    counts.set(thread, (counts.get(thread) ?? 0) + 1);
    if (thread && wanted.test(line) && --left === 0) return counts.get(thread);
  }
  throw new Error(`${args.join(' ')} makes no call ${call} like ${wanted}`);
}

// Starts the command in a copy of the wiki, and returns when it is stopped right after that call. Gives the copy, and
// resume() for what the program and strace then print.
async function stopAfter(t, wiki, action) {
  const k = await numberOf(t, wiki, action);
  const root = copyOf(t, wiki);
  const inject = ['-e', `inject=${action.call}:signal=STOP:when=${k}`];
  const tracer = spawn('strace', [...inject, ...tracing(action.call, root, action.args)]);
  const said = { stdout: '', stderr: '' };
  for (const stream of ['stdout', 'stderr']) tracer[stream].on('data', (data) => (said[stream] += data));
  const closed = once(tracer, 'close');
  tracer.stdin.end(action.input);
  while (!said.stderr.includes('stopped by SIGSTOP')) {
    assert.equal(tracer.exitCode, null, said.stderr);
    await Promise.race([once(tracer.stderr, 'data'), closed]);
  }
  const pid = Number(readFileSync(`/proc/${tracer.pid}/task/${tracer.pid}/children`, 'utf8').split(' ')[0]);
  t.after(() => tracer.exitCode === null && process.kill(pid, 'SIGKILL'));
  const resume = async () => {
    process.kill(pid, 'SIGCONT');
    const [code] = await closed;
    return { code, ...said };
  };
  return { root, resume };
}

function wikiWithAlpha(t) {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 3));
  return wiki;
}

// A refused text is kept without the write lock.
const REFUSED = { args: ['save', 'beta'], input: 'no citation' };
const keptIn = (root) => readdirSync(join(root, '.ossilar/drafts'));

test('a repair leaves a temporary file that is being written', async (t) => {
  const wiki = wikiWithAlpha(t);
  const { root, resume } = await stopAfter(t, wiki, { ...REFUSED, call: 'flock', wanted: /\.tmp>/ });
  assert.equal(leftovers(root).length, 1);
  assert.equal((await ossilar(root, ['check', '--fix'])).code, 0);
  assert.equal(leftovers(root).length, 1);
  assert.match((await resume()).stdout, /kept in/);
  assert.match(keptIn(root).join(), /^beta-[0-9a-f]+\.md$/);
});

test('a temporary file that a repair took for a leftover is made again', async (t) => {
  const wiki = wikiWithAlpha(t);
  const { root, resume } = await stopAfter(t, wiki, { ...REFUSED, call: 'openat', wanted: /\.tmp"/ });
  assert.equal((await ossilar(root, ['check', '--fix'])).code, 0);
  assert.equal(leftovers(root).length, 0);
  assert.match((await resume()).stdout, /kept in/);
  assert.match(keptIn(root).join(), /^beta-[0-9a-f]+\.md$/);
});

test('a lock file that goes between its opening and its locking is not what is held', async (t) => {
  const wiki = wikiWithAlpha(t);
  const save = { args: ['save', 'alpha'], input: pageAbout('alpha', 2, 'second') };
  const { root, resume } = await stopAfter(t, wiki, { ...save, call: 'openat', wanted: /"write\.lock"/ });
  rmSync(join(root, '.ossilar/write.lock'));
  const { code, stderr } = await resume();
  assert.equal(code, 0, stderr);
  const locked = stderr.split('\n').filter((line) => /write\.lock.*LOCK_EX/.test(line));
  assert.match(locked[0], /write\.lock>\(deleted\)/);
  assert.doesNotMatch(locked.at(-1), /deleted/);
});

// The draft looks at the page and then reads its section; the commit looks at it again.
for (const nth of [1, 2, 3]) {
  test(`a hand that edits the page at look ${nth} of a section's save is not overruled`, async (t) => {
    const save = { args: ['save', 'alpha', '--section', 'Section 1'], input: sectionText('alpha', 1, 'second') };
    const look = { call: 'openat2', wanted: /"alpha\.md"/, nth };
    const { root, resume } = await stopAfter(t, wikiWithAlpha(t), { ...save, ...look });
    const page = join(root, 'wiki/pages/alpha.md');
    writeFileSync(page, readFileSync(page, 'utf8').replace('## Section 2\n', '## Section 2\n\nBy hand.\n'));
    const { code, stdout } = await resume();
    assert.equal(code, 0, stdout);
    assert.match(pageText(root, 'alpha'), /By hand\./);
    assert.match(pageText(root, 'alpha'), /second/);
    assert.match(stdout, /hand-edit: /);
  });
}

test('a damaged database is set aside by who holds the lock', async (t) => {
  const wiki = wikiWithAlpha(t);
  const config = join(wiki.root, 'ossilar.toml');
  writeFileSync(config, `[wiki]\nlock_timeout_s = 1\n\n${readFileSync(config, 'utf8')}`);
  writeFileSync(join(wiki.root, '.ossilar/index.db'), 'no database');
  const release = await holdWriteLock(wiki);
  t.after(release);
  const refused = await ossilar(wiki.root, ['check', '--fix']);
  assert.match(refused.stderr, /being written/);
  assert.equal(readFileSync(join(wiki.root, '.ossilar/index.db'), 'utf8'), 'no database');
  await release();
  assert.equal((await ossilar(wiki.root, ['check', '--fix'])).code, 0);
});

// SQLite takes some of them for damage.
test('a disk that fails to read once is no damaged database', async (t) => {
  const wiki = wikiWithAlpha(t);
  const failing = async (k) => {
    const inject = ['-f', '-o', join(wiki.root, '.git/log'), '-e', `inject=pread64:error=EIO:when=${k}`];
    await run('strace', [...inject, program, '--repo', wiki.root, 'check', '--fix']);
    return /INJECTED/.test(execFileSync('cat', [join(wiki.root, '.git/log')], { encoding: 'utf8' }));
  };
  let faults = 0;
  while (await failing(faults + 1)) ++faults;
  t.diagnostic(`${faults} reads failed, no database was set aside`);
  assert.ok(faults > 20);
  assert.deepEqual(
    readdirSync(join(wiki.root, '.ossilar')).filter((name) => name.includes('damaged')),
    [],
  );
  assert.equal((await ossilar(wiki.root, ['check'])).code, 0);
});
