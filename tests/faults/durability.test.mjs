// What is on disk before a save is answered, read off the system calls that it makes: a power cut would show the
// same, but only for the moment at which it comes.
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { appendFileSync, readFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { test } from 'node:test';
import { LATEST, LineClient, makeWiki, pageAbout, program, sectionText } from '../clients/wiki.mjs';
import { run } from './sweep.mjs';
import { without } from '../clients/needs.mjs';

const CALLS = 'fsync,fdatasync,rename,renameat,renameat2,write,pwrite64,mkdir,mkdirat';

// "12</path>" as "/path".
const pathOf = (argument) => /^\d+<([^>]*)>/.exec(argument)?.[1] ?? '';

function readCall(line) {
  const match = /^\d+\s+(\w+)\((.*)\)\s+= (-?\d+)/.exec(line);
  if (!match || Number(match[3]) < 0) return null;
  const [, name, text] = match;
  const args = text.split(', ');
  if (name === 'renameat' || name === 'renameat2')
    return { name: 'renameat', from: join(pathOf(args[0]), JSON.parse(args[1])), to: join(pathOf(args[2]), JSON.parse(args[3])) };
  if (name === 'mkdirat') return { name, path: join(pathOf(args[0]), JSON.parse(args[1])) };
  // A session answers with one object a line, by a descriptor that nothing else has.
  const isAnswer = name === 'write' && (text.startsWith('1<') || /^\d+<(pipe|socket):\S+, "\{\\"/.test(text));
  return { name, path: pathOf(args[0]), isAnswer };
}

// An interrupted call has two lines in the log: it counts at its second, an answer at its first.
function readCalls(log) {
  const begun = new Map();
  const calls = [];
  for (const line of readFileSync(log, 'utf8').split('\n')) {
    const [, thread, start] = /^(\d+)\s+(.*) <unfinished \.\.\.>$/.exec(line) ?? [];
    const [, resumed, end] = /^(\d+)\s+<\.\.\. \w+ resumed>(.*)$/.exec(line) ?? [];
    if (thread && !/^write\(\d+<(pipe|socket):/.test(start)) begun.set(thread, start);
    else if (thread) calls.push(readCall(`${thread} ${start}) = 0`));
    else calls.push(readCall(resumed ? `${resumed} ${begun.get(resumed)}${end}` : line));
  }
  return calls.filter(Boolean);
}

const logOf = (wiki) => join(wiki.root, '.git', 'calls.log');

const traced = (wiki, args, inject = []) => [
  ...['-f', '-y', '-e', `trace=${CALLS}`, ...inject, '-o', logOf(wiki)],
  ...[program, '--repo', wiki.root, ...args],
];

// The calls of the last run that succeeded, in their order, up to the first byte of its answer.
function callsBeforeAnswer(wiki) {
  const calls = readCalls(logOf(wiki));
  const answer = calls.findIndex((call) => call.isAnswer);
  assert.ok(answer > 0, 'there is an answer');
  return calls.slice(0, answer);
}

function callsOf(wiki, args, input) {
  execFileSync('strace', traced(wiki, args), { input, stdio: ['pipe', 'pipe', 'pipe'] });
  return callsBeforeAnswer(wiki);
}

const isSync = (call, path) => ['fsync', 'fdatasync'].includes(call.name) && call.path === path;
const isWrite = (call, path) => ['write', 'pwrite64'].includes(call.name) && call.path === path;

// The promises that the calls break, as lines.
function broken(calls) {
  const faults = [];
  const isSyncedAfter = (at, path) => calls.slice(at + 1).some((call) => isSync(call, path));
  // A file is written under one name and may take another before it takes its place.
  const names = new Map();
  calls.forEach((call, at) => {
    if (call.name === 'renameat') {
      const from = names.get(call.from) ?? call.from;
      names.set(call.to, from);
      const written = calls.findLastIndex((other, i) => i < at && isWrite(other, from));
      if (!calls.slice(written, at).some((other) => isSync(other, from)))
        faults.push(`${call.to} takes its place before its text is on disk`);
      if (!isSyncedAfter(at, dirname(call.to))) faults.push(`${call.to} is in place, and its folder is not synced`);
    }
    if (call.name === 'mkdirat' && !isSyncedAfter(at, dirname(call.path)))
      faults.push(`${call.path} is made, and the folder it is in is not synced`);
    if (isLogWrite(call) && at < stateFrom(calls) && !isSyncedAfter(at, call.path))
      faults.push('a row is written, and the log of the database is not synced');
  });
  return [...new Set(faults)];
}

const isLogWrite = (call) => call.path?.endsWith('/index.db-wal') && isWrite(call, call.path);
const isPlaced = (call, name) => call.name === 'renameat' && call.to.endsWith(name);

// The place after the lists, from which on only the state is written, which needs no sync.
function stateFrom(calls) {
  const listed = calls.findLastIndex((call) => isPlaced(call, '/wiki/manifest.json'));
  return listed < 0 ? calls.length : listed;
}

// Page file, rows on disk, lists, state.
function assertOrder(calls, what) {
  const page = calls.findIndex((call) => isPlaced(call, '/pages/alpha.md'));
  const row = calls.findIndex((call, i) => i > page && isLogWrite(call));
  const synced = calls.findIndex((call, i) => i > row && isSync(call, calls[row].path));
  const index = calls.findIndex((call) => isPlaced(call, '/wiki/index.md'));
  const manifest = calls.findIndex((call) => isPlaced(call, '/wiki/manifest.json'));
  const state = calls.findIndex((call, i) => i > manifest && isLogWrite(call));
  const lists = index < 0 ? [manifest] : [index, manifest]; // an index that reads the same is left alone
  // A state that is the same, in the same second, is not written.
  const order = [page, row, synced, ...lists, ...(state < 0 ? [] : [state])];
  assert.ok(order.every((at, i) => at >= 0 && (i === 0 || at > order[i - 1])), `${what}: ${order}`);
  assert.ok(!calls.slice(0, page).some(isLogWrite), `${what}: no row is written before the page is in place`);
}

const renamed = (calls) => calls.filter((call) => call.name === 'renameat').map((call) => call.to);
const wrote = (calls) => calls.some((call) => isWrite(call, call.path) && call.path.endsWith('/index.db-wal'));

test('everything a save writes is on disk before its answer', { skip: without('strace') }, (t) => {
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
    assertOrder(calls, what);
    const syncs = calls.filter((call) => /sync/.test(call.name));
    t.diagnostic(`${what}: ${calls.length} calls, ${syncs.length} syncs, nothing left`);
  }
});

// A command ends before it answers and checkpoints the database; a session goes on.
test('everything a session saves is on disk before its answer', { skip: without('strace') }, async (t) => {
  const wiki = makeWiki(t);
  const client = new LineClient({ server: { command: 'strace', args: traced(wiki, ['mcp']) } });
  client.revision = LATEST;
  const reply = await client.call('save_page', { page_id: 'alpha', content: pageAbout('alpha') });
  assert.equal(reply.result.structuredContent.saved, true);
  await client.end();
  const calls = callsBeforeAnswer(wiki);
  assert.ok(wrote(calls), 'its row is written');
  assert.deepEqual(broken(calls), []);
  assertOrder(calls, 'a session');
});

// A failure of the lists or of the copy of the former text does not make the save fail.
test('a save that could not sync is not acknowledged', { skip: without('strace') }, async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha'));
  const isGenerated = (fault) => /\/(wiki\/(index\.md|manifest\.json)|\.ossilar\/replaced\/\S*) /.test(fault);
  const codes = [];
  for (const call of ['fsync', 'fdatasync']) {
    for (let k = 1; ; ++k) {
      const inject = ['-e', `inject=${call}:error=EIO:when=${k}`];
      const input = pageAbout('alpha', 2, `${call} ${k}`);
      const { code } = await run('strace', traced(wiki, ['save', 'alpha'], inject), { input });
      if (!readFileSync(logOf(wiki), 'utf8').includes('INJECTED')) break;
      codes.push(code);
      if (code !== 0) continue;
      assert.deepEqual(broken(callsBeforeAnswer(wiki)).filter((fault) => !isGenerated(fault)), []);
    }
  }
  t.diagnostic(`${codes.length} syncs failed, ${codes.filter(Boolean).length} saves were not acknowledged`);
  assert.ok(codes.filter(Boolean).length >= 3, 'file, folder and row');
});

test('the text of a refused save and the files of a repair are on disk before the answer', { skip: without('strace') }, (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha'));
  spawnSync('strace', traced(wiki, ['save', 'beta']), { input: 'no citation' });
  const refused = callsBeforeAnswer(wiki);
  assert.match(renamed(refused).join(), /\/drafts\//, 'the text is kept');
  assert.deepEqual(broken(refused), []);
  execFileSync('sed', ['-i', 's/first/second/', join(wiki.root, 'wiki/pages/alpha.md')]);
  assert.deepEqual(broken(callsOf(wiki, ['check', '--fix'], '')), []);
});

// exFAT and the like cannot exchange two files, others know no RENAME_NOREPLACE, some no hard links.
test('a save keeps a manual edit where the file system cannot swap two files', { skip: without('strace') }, async (t) => {
  const refusals = [
    ['no swap', ['renameat2:error=EINVAL:when=2']],
    ['no swap, no second names', ['renameat2:error=EINVAL:when=2', 'linkat:error=EPERM']],
    ['no flags of a rename', ['renameat2:error=EINVAL:when=1']],
    ['no flags, no second names', ['renameat2:error=EINVAL:when=1', 'linkat:error=EOPNOTSUPP']],
  ];
  for (const [what, injected] of refusals) {
    const wiki = makeWiki(t);
    wiki.save('alpha', pageAbout('alpha'));
    const inject = injected.flatMap((option) => ['-e', `inject=${option}`]);
    const save = (text) =>
      run('strace', traced(wiki, ['save', 'alpha'], inject), { input: pageAbout('alpha', 2, text) });
    appendFileSync(join(wiki.root, 'wiki/pages/alpha.md'), 'By hand.\n');
    const { code, stdout, stderr } = await save('second');
    assert.match(readFileSync(logOf(wiki), 'utf8'), /EINVAL.*INJECTED/, what);
    assert.equal(code, 0, `${what}: ${stdout}${stderr}`);
    assert.match(wiki.page('alpha'), /second/, what);
    assert.match(readFileSync(join(wiki.root, /kept in (\S+)/.exec(stdout)[1]), 'utf8'), /By hand\.$/m, what);
    assert.equal((await save('third')).code, 0, what);
    const check = await run(program, ['--repo', wiki.root, 'check']);
    assert.equal(check.code, 0, `${what}: ${check.stdout}`);
  }
});
