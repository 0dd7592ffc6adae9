// Disks that are full, have no room for one more file, or may not be written: each failure names the path and the
// reason, nothing that was saved is lost, and once there is room everything works again, in a session that was open all
// the while too.
import assert from 'node:assert/strict';
import { readFileSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { LATEST, lineClient, pageAbout, program } from '../clients/wiki.mjs';
import { Image, Memory, scratchForDisks } from './disk.mjs';
import { BEST_EFFORT, copyTree, faultAfterRepair, findingsOf, ossilar, pageText, said, wikiWithAlpha } from './sweep.mjs';
import { without } from '../clients/needs.mjs';

// Levels after the first at which everything succeeds.
const LEVELS_OF_SUCCESS = 3;

const FULL = /No space left on device|the disk is full|the disk has only/;
const NO_FILE = /No space left on device|no free inodes/;
const READ_ONLY = /file system is read-only/;

const OLD = pageAbout('alpha', 3);
const NEW = pageAbout('alpha', 40, 'a longer second text');

// A disk that holds a wiki; `restore()` makes it anew.
function diskWithWiki(t, disk) {
  const wiki = wikiWithAlpha(t);
  disk.mount();
  const root = join(disk.folder, 'wiki');
  return {
    root,
    old: pageText(wiki.root, 'alpha'),
    restore: () => {
      rmSync(root, { recursive: true, force: true });
      copyTree(wiki.root, root);
    },
  };
}

const isNew = (root) => pageText(root, 'alpha')?.includes('a longer second text') === true;

// What is wrong with how a save ended, as a text, or "".
async function faultOf(world, result, reason) {
  const page = pageText(world.root, 'alpha');
  if (result.code === 0) {
    if (!isNew(world.root)) return said('saved, and the page is not there', result);
    const found = (await findingsOf(world.root)).map(({ kind }) => kind).filter((kind) => !BEST_EFFORT.includes(kind));
    return found.length === 0 ? '' : said(`saved, and ${found}`, result);
  }
  if (result.code !== 3) return said('neither saved nor a failure', result);
  const isNamed = result.stderr.includes(world.root) || result.stderr.includes('.ossilar/index.db-shm');
  if (!reason.test(result.stderr) || !isNamed) return said('path or reason', result);
  const isWhole = page === world.old || (isNew(world.root) && page.endsWith('\n'));
  if (!isWhole) return said(`neither old nor new: ${page}`, result);
  const kept = /kept in (\S+)/.exec(result.stderr)?.[1];
  if (kept && readFileSync(kept, 'utf8') !== NEW) return said('the text is not kept', result);
  return '';
}

// The same once there is room again.
const faultAfterwards = async (root) =>
  (await faultAfterRepair(root, 'alpha', NEW)) || (isNew(root) ? '' : 'the save with room is not there');

// Saves with nothing free, then with `step` more each time, until every save succeeds. `leave(count)` frees that much.
async function saveAtEveryLevel(t, what, world, { leave, step, reason }) {
  const results = [];
  let inRow = 0;
  for (let level = 0; inRow < LEVELS_OF_SUCCESS; level += step) {
    world.restore();
    leave(level);
    const result = await ossilar(world.root, ['save', 'alpha'], NEW);
    leave(Infinity);
    const fault = (await faultOf(world, result, reason)) || (await faultAfterwards(world.root));
    results.push({ code: result.code, bad: fault && `${level} left: ${fault}` });
    inRow = result.code === 0 && !/could not be|: cannot /.test(result.stdout + result.stderr) ? inRow + 1 : 0;
    assert.ok(results.length < 200, `at some level there is room for a save:\n${said(level, result)}`);
  }
  const bad = results.map((result) => result.bad).filter(Boolean);
  const failed = results.filter((result) => result.code !== 0).length;
  const saved = results.length - failed;
  t.diagnostic(`${what}: ${results.length} levels, ${failed} refused, ${saved} saved, ${bad.length} bad`);
  assert.ok(failed > 2, 'at the lowest levels there is no room');
  assert.deepEqual(bad, []);
}

// ext4 keeps 2 % of the free blocks back for its own writing, so not all that is free can be used.
const DISKS = [
  { name: 'a disk in memory', step: 1, make: (folder) => new Memory(join(folder, 'disk')) },
  {
    name: 'an ext4 disk',
    step: 2,
    make: (folder) => Image.make(join(folder, 'image'), join(folder, 'disk'), '-b', '4096', '-N', '256'),
  },
];

const COMMANDS = [
  ...[['status'], ['plan'], ['show', 'alpha'], ['search', 'alpha'], ['context', 'alpha'], ['save', 'alpha']],
  ...[['check'], ['check', '--fix'], ['init']],
];

for (const { name, step, make } of DISKS) {
  const diskTest = (what, body) =>
    test(`${name}, ${what}`, { skip: without('losetup', 'mkfs.ext4') }, async (t) => {
      const disk = make(scratchForDisks(t));
      await body(t, disk, diskWithWiki(t, disk));
    });

  diskTest('full', (t, disk, world) =>
    saveAtEveryLevel(t, `${name}, full`, world, { leave: (blocks) => disk.leaveBlocks(blocks), step, reason: FULL }),
  );

  diskTest('no more files', (t, disk, world) => {
    const leave = (count) => disk.leaveInodes(count);
    return saveAtEveryLevel(t, `${name}, no more files`, world, { leave, step: 1, reason: NO_FILE });
  });

  diskTest('full under a session', async (t, disk, world) => {
    world.restore();
    const client = await lineClient(t, { server: { command: program, args: ['--repo', world.root, 'mcp'] } }, LATEST);
    const save = () => client.call('save_page', { page_id: 'alpha', content: NEW });
    const read = (part) => client.call('read_page', { page_id: 'alpha', part });
    await client.call('wiki_status', {});
    for (const blocks of [0, 2, 8]) {
      disk.leaveBlocks(blocks);
      const refused = await save();
      assert.ok(refused.error || refused.result.isError, JSON.stringify(refused));
      assert.match(JSON.stringify(refused), FULL);
      assert.ok([OLD, NEW].includes((await read('authored')).result.structuredContent.text));
    }
    disk.leaveBlocks(Infinity);
    assert.equal((await save()).result.structuredContent?.saved, true);
    assert.ok(isNew(world.root));
    await client.end();
    assert.equal(await faultAfterwards(world.root), '');
  });

  diskTest('not to be written', async (t, disk, world) => {
    world.restore();
    disk.setReadOnly(true);
    for (const args of COMMANDS) {
      const result = await ossilar(world.root, args, NEW);
      assert.equal(result.code, 3, said(args, result));
      assert.match(result.stderr, READ_ONLY, said(args, result));
      assert.ok(result.stderr.includes(world.root), said(args, result));
    }
    disk.setReadOnly(false);
    assert.equal(pageText(world.root, 'alpha'), world.old);
    assert.equal(await faultAfterwards(world.root), '');
    t.diagnostic(`${name}, not to be written: ${COMMANDS.length} commands say so`);
  });
}

// A page of memory is four blocks here, and the database sets one of them aside before it shares memory through a file:
// the system then says that there is no room by a signal.
test('an ext4 disk with small blocks, full', { skip: without('losetup', 'mkfs.ext4') }, async (t) => {
  const folder = scratchForDisks(t);
  const disk = Image.make(join(folder, 'image'), join(folder, 'disk'), '-b', '1024');
  const leave = (blocks) => disk.leaveBlocks(blocks);
  await saveAtEveryLevel(t, 'small blocks, full', diskWithWiki(t, disk), { leave, step: 6, reason: FULL });
});
