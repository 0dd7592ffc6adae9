// What is on disk before a save is answered, read off the system calls that it makes: a power cut would show the
// same, but only for the moment at which it comes.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { test } from 'node:test';
import { makeWiki, pageAbout, program, sectionText } from '../clients/wiki.mjs';

const CALLS = 'fsync,fdatasync,rename,renameat,renameat2,write,pwrite64,mkdir,mkdirat';

// "12</path>" as "/path".
const pathOf = (argument) => /^\d+<([^>]*)>/.exec(argument)?.[1] ?? '';

function readCall(line) {
  const match = /^\d+\s+(\w+)\((.*)\)\s+= (-?\d+)/.exec(line);
  if (!match || Number(match[3]) < 0) return null;
  const [, name, text] = match;
  const args = text.split(', ');
  if (name === 'renameat')
    return { name, from: join(pathOf(args[0]), JSON.parse(args[1])), to: join(pathOf(args[2]), JSON.parse(args[3])) };
  if (name === 'mkdirat') return { name, path: join(pathOf(args[0]), JSON.parse(args[1])) };
  return { name, path: pathOf(args[0]), fd: parseInt(text) };
}

// The calls of `ossilar ARGS...` in their order, up to the first byte of its answer.
function callsOf(wiki, args, input) {
  const log = join(wiki.root, '.git', 'calls.log');
  const strace = ['-f', '-y', '-e', `trace=${CALLS}`, '-o', log, program, '--repo', wiki.root, ...args];
  execFileSync('strace', strace, { input, stdio: ['pipe', 'pipe', 'pipe'] });
  const calls = readFileSync(log, 'utf8').split('\n').map(readCall).filter(Boolean);
  const answer = calls.findIndex((call) => call.name === 'write' && call.fd === 1);
  assert.ok(answer > 0, 'there is an answer');
  return calls.slice(0, answer);
}

const isSync = (call, path) => ['fsync', 'fdatasync'].includes(call.name) && call.path === path;
const isWrite = (call, path) => ['write', 'pwrite64'].includes(call.name) && call.path === path;

// The promises that the calls break, as lines.
function broken(calls) {
  const faults = [];
  const isSyncedAfter = (at, path) => calls.slice(at + 1).some((call) => isSync(call, path));
  calls.forEach((call, at) => {
    if (call.name === 'renameat') {
      const written = calls.findLastIndex((other, i) => i < at && isWrite(other, call.from));
      if (!calls.slice(written, at).some((other) => isSync(other, call.from)))
        faults.push(`${call.to} takes its place before its text is on disk`);
      if (!isSyncedAfter(at, dirname(call.to))) faults.push(`${call.to} is in place, and its folder is not synced`);
    }
    if (call.name === 'mkdirat' && !isSyncedAfter(at, dirname(call.path)))
      faults.push(`${call.path} is made, and the folder it is in is not synced`);
    if (call.path?.endsWith('/index.db-wal') && isWrite(call, call.path) && !isSyncedAfter(at, call.path))
      faults.push('a row is written, and the log of the database is not synced');
  });
  return [...new Set(faults)];
}

const renamed = (calls) => calls.filter((call) => call.name === 'renameat').map((call) => call.to);
const wrote = (calls) => calls.some((call) => isWrite(call, call.path) && call.path.endsWith('/index.db-wal'));

test('everything a save writes is on disk before its answer', (t) => {
  const wiki = makeWiki(t);
  const saves = [
    ['the first page', ['save', 'alpha'], pageAbout('alpha')],
    ['a page again', ['save', 'alpha'], pageAbout('alpha', 3)],
    ['a section', ['save', 'alpha', '--section', 'Section 1'], sectionText('alpha', 1, 'other')],
  ];
  for (const [what, args, input] of saves) {
    const calls = callsOf(wiki, args, input);
    assert.ok(renamed(calls).includes(join(wiki.root, 'wiki/pages/alpha.md')), `${what}: the page takes its place`);
    assert.ok(wrote(calls), `${what}: its row is written`);
    assert.deepEqual(broken(calls), [], what);
    t.diagnostic(
      `${what}: ${calls.length} calls, ${calls.filter((call) => /sync/.test(call.name)).length} syncs, nothing left`,
    );
  }
});

test('so is what a refused save keeps, and what a repair makes', (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha'));
  const refused = (() => {
    try {
      return callsOf(wiki, ['save', 'beta'], 'no citation');
    } catch {
      const log = readFileSync(join(wiki.root, '.git', 'calls.log'), 'utf8');
      return log.split('\n').map(readCall).filter(Boolean);
    }
  })();
  assert.ok(
    renamed(refused).some((path) => path.includes('/drafts/')),
    'the text is kept',
  );
  assert.deepEqual(broken(refused), []);
  execFileSync('sed', ['-i', 's/first/second/', join(wiki.root, 'wiki/pages/alpha.md')]);
  assert.deepEqual(broken(callsOf(wiki, ['check', '--fix'], '')), []);
});
