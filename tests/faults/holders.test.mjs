// Who holds the write lock and does not give it back: one that is stopped, one that is killed, one whose child has the
// descriptor too, one whose lock file is taken away. And files whose times are nonsense.
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import * as fs from 'node:fs';
import { hostname } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { test } from 'node:test';
import { holdWriteLock, LATEST, lineClient, pageAbout, program } from '../clients/wiki.mjs';
import { assertSound, findingsOf, ossilar, pageText, setLockTimeout, wikiWithAlpha } from './sweep.mjs';
import { without } from '../clients/needs.mjs';

const lockFile = (wiki) => join(wiki.root, '.ossilar/write.lock');

// A wiki with the page alpha and this lock timeout.
function impatientWiki(t, seconds = 1) {
  const wiki = wikiWithAlpha(t);
  setLockTimeout(wiki, seconds);
  return wiki;
}

const until = (process, output, wanted) =>
  new Promise((resolve, reject) => {
    createInterface({ input: output }).on('line', (line) => {
      const match = wanted.exec(line);
      if (match) resolve(match);
    });
    process.once('close', () => reject(new Error(`it ended before ${wanted}`)));
  });

// A save of alpha that is stopped while it holds the lock, right after it has replaced the page file.
async function stoppedSave(t, wiki) {
  const stop = ['-f', '-e', 'trace=renameat2', '-e', 'inject=renameat2:signal=STOP:when=1'];
  const tracer = spawn('strace', [...stop, program, '--repo', wiki.root, 'save', 'alpha'], {
    stdio: ['pipe', 'ignore', 'pipe'],
  });
  const ended = once(tracer, 'close');
  tracer.stdin.end(pageAbout('alpha', 2, 'stopped'));
  await until(tracer, tracer.stderr, /stopped by SIGSTOP/);
  const pid = Number(/^pid (\d+) /.exec(fs.readFileSync(lockFile(wiki), 'utf8'))[1]);
  const holder = { pid, ended, signal: (name) => process.kill(pid, name) };
  t.after(() => tracer.exitCode === null && tracer.signalCode === null && holder.signal('SIGKILL'));
  return holder;
}

const saveBeta = (wiki) => ossilar(wiki.root, ['save', 'beta'], pageAbout('beta'));

// Starts a save in the session and gives its id once it waits for the lock.
async function startWaitingSave(client, save) {
  const id = client.start('tools/call', { name: 'save_page', arguments: save, _meta: { progressToken: 1 } });
  const waits = (message) => message.method === 'notifications/progress' && /lock/.test(message.params.message);
  await client.until(waits);
  return id;
}

test('a holder that is stopped is named, and keeps nobody from reading', { skip: without('strace') }, async (t) => {
  const wiki = impatientWiki(t);
  const client = await lineClient(t, wiki, LATEST);
  await client.call('wiki_status', {});
  const holder = await stoppedSave(t, wiki);
  const who = `process ${holder.pid} on ${hostname()} \\(ossilar save, since .*\\)`;
  const named = new RegExp(`${who}; waited \\d+\\.\\d s; try again, or end that process`);
  const refused = await saveBeta(wiki);
  assert.equal(refused.code, 1, refused.stderr);
  assert.match(refused.stdout, named);
  const kept = /kept in (\S+)/.exec(refused.stdout)[1];
  assert.equal(fs.readFileSync(kept, 'utf8'), pageAbout('beta'));
  const saveInSession = () => client.call('save_page', { page_id: 'beta', content: pageAbout('beta') });
  const reply = await saveInSession();
  assert.equal(reply.result.isError, true);
  assert.match(reply.result.content[0].text, named);
  assert.match((await ossilar(wiki.root, ['check'])).stderr, named);
  for (const args of [['status'], ['plan'], ['show', 'alpha'], ['context', 'beta'], ['search', 'alpha']])
    assert.equal((await ossilar(wiki.root, args)).code, 0, args[0]);
  holder.signal('SIGCONT');
  assert.deepEqual(await holder.ended, [0, null]);
  assert.match(pageText(wiki.root, 'alpha'), /stopped/);
  assert.equal((await saveInSession()).result.structuredContent.saved, true);
  await assertSound(wiki);
});

test('a child that inherited the lock is not named by the process id that its parent wrote', { skip: without('strace') }, async (t) => {
  const wiki = impatientWiki(t);
  const killed = await stoppedSave(t, wiki);
  killed.signal('SIGKILL');
  await killed.ended;
  const holder = spawn('flock', [lockFile(wiki), '-c', 'sleep 600 >/dev/null & echo $!; wait'], {
    stdio: ['ignore', 'pipe', 'ignore'],
  });
  const child = Number((await until(holder, holder.stdout, /^\d+$/))[0]);
  t.after(() => fs.existsSync(`/proc/${child}`) && process.kill(child, 'SIGKILL'));
  holder.kill('SIGKILL');
  await once(holder, 'exit');
  const refused = await saveBeta(wiki);
  assert.match(refused.stdout, /being written by another process; waited \d+\.\d s; try again$/m);
  process.kill(child, 'SIGKILL');
  await assertSound(wiki);
});

const TAKEN_AWAY = {
  removed: (file) => fs.rmSync(file),
  moved: (file) => fs.renameSync(file, `${file}.moved`),
  replaced: (file) => (fs.renameSync(file, `${file}.moved`), fs.writeFileSync(file, '')),
};

for (const [how, takeAway] of Object.entries(TAKEN_AWAY)) {
  test(`a lock file that is ${how} while it is held lets no second holder in`, { skip: without('strace') }, async (t) => {
    const wiki = impatientWiki(t);
    const holder = await stoppedSave(t, wiki);
    takeAway(lockFile(wiki));
    const refused = await saveBeta(wiki);
    assert.equal(refused.code, 1, refused.stdout);
    assert.match(refused.stdout, /being written by another process/);
    holder.signal('SIGCONT');
    assert.deepEqual(await holder.ended, [0, null]);
    assert.match(pageText(wiki.root, 'alpha'), /stopped/);
    await assertSound(wiki);
  });
}

// Sets the times of every file of the wiki and of the sources.
function setTimes(root, when) {
  for (const entry of fs.readdirSync(root, { recursive: true, withFileTypes: true })) {
    const path = join(entry.parentPath, entry.name);
    if (!path.startsWith(join(root, '.git'))) fs.lutimesSync(path, when, when);
  }
}

// Another text of the same length under the same times.
function swapText(file, from, to) {
  const { atime, mtime } = fs.statSync(file);
  fs.writeFileSync(file, fs.readFileSync(file, 'utf8').replace(from, to));
  fs.utimesSync(file, atime, mtime);
}

async function stateOfAlpha(wiki) {
  const { pages } = JSON.parse((await ossilar(wiki.root, ['--json', 'plan'])).stdout);
  return pages.find((page) => page.page_id === 'alpha').state;
}

for (const when of ['1970-01-01T00:00:00Z', '2100-01-01T00:00:00Z']) {
  test(`changes of files dated ${when.slice(0, 4)} are noticed`, async (t) => {
    const wiki = impatientWiki(t);
    const [source, page] = ['src/alpha.cpp', 'wiki/pages/alpha.md'].map((path) => join(wiki.root, path));
    setTimes(wiki.root, new Date(when));
    assert.equal(await stateOfAlpha(wiki), 'ok');
    swapText(source, 'int alpha2', 'int Alpha2');
    assert.equal(await stateOfAlpha(wiki), 'stale');
    swapText(source, 'int Alpha2', 'int alpha2');
    assert.equal(await stateOfAlpha(wiki), 'ok');
    swapText(page, 'first', 'fjrst');
    const kinds = (await findingsOf(wiki.root)).map((finding) => finding.kind);
    assert.deepEqual(kinds, ['newer-page']);
    await assertSound(wiki);
  });
}

// A save of alpha that waits for the write lock. `refused` frees the lock and says what the save was told.
async function waitingSave(t, wiki) {
  const client = await lineClient(t, wiki, LATEST);
  await client.call('wiki_status', {});
  const release = await holdWriteLock(wiki);
  const save = { page_id: 'alpha', content: pageAbout('alpha', 2, 'late') };
  const id = await startWaitingSave(client, save);
  const refused = async () => {
    await release();
    const reply = await client.reply(id);
    assert.equal(reply.result.isError, true, JSON.stringify(reply));
    return reply.result.content[0].text;
  };
  return { client, save, refused };
}

// A repair of a damaged database moves it away, and so may a user who begins anew.
test('a save whose database is moved while it waits is refused, and the next one works', async (t) => {
  const wiki = impatientWiki(t, 60);
  const database = join(wiki.root, '.ossilar/index.db');
  const before = pageText(wiki.root, 'alpha');
  const { client, save, refused } = await waitingSave(t, wiki);
  for (const part of ['', '-wal', '-shm'].filter((each) => fs.existsSync(database + each)))
    fs.renameSync(database + part, `${database}-old${part}`);
  assert.match(await refused(), /index\.db: .*it was moved or removed while it was open; try again/);
  assert.equal(pageText(wiki.root, 'alpha'), before);
  assert.equal((await client.call('save_page', save)).result.structuredContent.saved, true);
  assert.match(pageText(wiki.root, 'alpha'), /late/);
  await assertSound(wiki);
});

// Where the page file is the same on both branches, nothing else would tell that the save began on the other one.
test('a save whose branch is switched while it waits is refused, and the next one is of the new branch', async (t) => {
  const wiki = impatientWiki(t, 60);
  const before = pageText(wiki.root, 'alpha');
  const { client, save, refused } = await waitingSave(t, wiki);
  execFileSync('git', ['-C', wiki.root, 'checkout', '--quiet', '-b', 'topic']);
  assert.match(await refused(), /switched from the branch main to topic meanwhile; try again/);
  assert.equal(pageText(wiki.root, 'alpha'), before);
  assert.equal((await client.call('save_page', save)).result.structuredContent.saved, true);
  const { branch } = (await client.call('wiki_status', {})).result.structuredContent;
  assert.equal(branch, 'topic');
  await assertSound(wiki);
});
