// The program is stopped between two of its system calls, and another process acts at just that moment.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { readFileSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { holdWriteLock, makeFolder, pageAbout, program } from '../clients/wiki.mjs';
import { copyTree, hasFired, leftovers, ossilar, pageText, run, SECTION_SAVE } from './sweep.mjs';
import { setLockTimeout, wikiWithAlpha } from './sweep.mjs';
import { without } from '../clients/needs.mjs';

// The recording and the test both run in copies: in the wiki itself the program would read young files again.
const copyOf = (t, wiki) => copyTree(wiki.root, join(makeFolder(t), 'copy'));

const tracing = (call, root, args) => ['-f', '-y', '-e', `trace=flock,${call}`, program, '--repo', root, ...args];

// The number, among the calls of its kind by its thread, of the `nth` call that `wanted` matches.
async function numberOf(t, wiki, { args, input, call, wanted, nth = 1 }) {
  const log = join(makeFolder(t), 'calls.log');
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

// A refused text is kept without the write lock.
const REFUSED = { args: ['save', 'beta'], input: 'no citation' };
const keptIn = (root) => readdirSync(join(root, '.ossilar/drafts'));

const TEMPORARY_FILES = [
  ['a repair leaves a temporary file that its writer has locked', { call: 'flock', wanted: /\.tmp>/, left: 1 }],
  ['a writer whose temporary file a repair removed makes another', { call: 'openat', wanted: /\.tmp"/, left: 0 }],
];

for (const [rule, { left, ...moment }] of TEMPORARY_FILES) {
  test(rule, { skip: without('strace') }, async (t) => {
    const { root, resume } = await stopAfter(t, wikiWithAlpha(t), { ...REFUSED, ...moment });
    assert.equal(leftovers(root).length, 1);
    assert.equal((await ossilar(root, ['check', '--fix'])).code, 0);
    assert.equal(leftovers(root).length, left);
    assert.match((await resume()).stdout, /kept in/);
    assert.match(keptIn(root).join(), /^beta-[0-9a-f]+\.md$/);
  });
}

test('a lock file removed between its opening and its locking is not taken as the lock', { skip: without('strace') }, async (t) => {
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

// The draft reads the page, then its section; the commit reads the page again.
for (const nth of [1, 2, 3]) {
  test(`a manual edit at read ${nth} of a section's save is kept in the page`, { skip: without('strace') }, async (t) => {
    const look = { call: 'openat2', wanted: /"alpha\.md"/, nth };
    const { root, resume } = await stopAfter(t, wikiWithAlpha(t), { ...SECTION_SAVE, ...look });
    const page = join(root, 'wiki/pages/alpha.md');
    writeFileSync(page, readFileSync(page, 'utf8').replace('## Section 2\n', '## Section 2\n\nBy hand.\n'));
    const { code, stdout } = await resume();
    assert.equal(code, 0, stdout);
    assert.match(pageText(root, 'alpha'), /By hand\./);
    assert.match(pageText(root, 'alpha'), /second/);
    assert.match(stdout, /hand-edit: /);
  });
}

test('only the holder of the lock sets a damaged database aside', { skip: without('strace') }, async (t) => {
  const wiki = wikiWithAlpha(t);
  setLockTimeout(wiki, 1);
  writeFileSync(join(wiki.root, '.ossilar/index.db'), 'no database');
  const release = await holdWriteLock(wiki);
  t.after(release);
  const refused = await ossilar(wiki.root, ['check', '--fix']);
  assert.match(refused.stderr, /being written/);
  assert.equal(readFileSync(join(wiki.root, '.ossilar/index.db'), 'utf8'), 'no database');
  await release();
  assert.equal((await ossilar(wiki.root, ['check', '--fix'])).code, 0);
});

// SQLite reports some failed reads as damage.
test('a database is not set aside because one read failed', { skip: without('strace') }, async (t) => {
  const wiki = wikiWithAlpha(t);
  const log = join(wiki.root, '.git/log');
  const failing = async (k) => {
    const inject = ['-f', '-o', log, '-e', `inject=pread64:error=EIO:when=${k}`];
    await run('strace', [...inject, program, '--repo', wiki.root, 'check', '--fix']);
    return hasFired(log);
  };
  let faults = 0;
  while (await failing(faults + 1)) ++faults;
  t.diagnostic(`${faults} reads failed, no database was set aside`);
  assert.ok(faults > 20);
  assert.doesNotMatch(readdirSync(join(wiki.root, '.ossilar')).join(), /damaged/);
  assert.equal((await ossilar(wiki.root, ['check'])).code, 0);
});
