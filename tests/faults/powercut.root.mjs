// The power is cut at every stage of a save: before each call by which it puts something on disk, and right after its
// answer. What was answered is there afterwards; else the old page or the new one is, whole, in a wiki that a repair
// sets right.
//
// Each stage is cut twice: once all that was not synced is lost, and once the names of files are on disk and what was
// not synced of their data is lost.
import assert from 'node:assert/strict';
import { readFileSync, readdirSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { LATEST, LineClient, makeWiki, program } from '../clients/wiki.mjs';
import { Image, scratchForDisks } from './disk.mjs';
import { copyTree, faultAfterRepair, hasFired, inParallel, numbersOfCalls, ossilar, pagesAround } from './sweep.mjs';
import { pageText, PAGE_SAVE, run, said, SECTION_SAVE, wikiWithAlpha } from './sweep.mjs';
import { without } from '../clients/needs.mjs';

const SYNCS = ['fsync', 'fdatasync', 'rename', 'renameat', 'renameat2', 'mkdir', 'mkdirat', 'unlink', 'unlinkat'];
const TRACE = ['-f', '-e', `trace=${SYNCS.join(',')}`];

const traced = (root, args, strace) => ['strace', [...TRACE, ...strace, program, '--repo', root, ...args]];

// The ways to save: each gives whether the save was answered, when the program has ended or has answered.
async function saveByCommand(root, { args, input }, strace) {
  const [command, all] = traced(root, ['--json', ...args], strace);
  const { stdout } = await run(command, all, { input });
  return { answered: /"saved": ?true/.test(stdout), end: async () => {} };
}

// Where `ends`, the session is at its end before the power is cut: it then empties the log of the database.
async function saveBySession(root, { args: [, page_id, , section], input, ends }, strace) {
  const [command, args] = traced(root, ['mcp'], strace);
  const client = new LineClient({ server: { command, args } });
  client.revision = LATEST;
  client.process.stdin.on('error', () => {}); // who was killed reads nothing
  const reply = await client.call('save_page', { page_id, section, content: input }).catch(() => null);
  const answered = reply?.result?.structuredContent?.saved === true;
  if (ends) await client.end();
  return { answered, end: () => client.end() };
}

// The file system `image` with a copy of `world` on it.
function makeDisk(folder, world) {
  const disk = Image.make(join(folder, 'world.img'), join(folder, 'world.mount'), '-b', '4096');
  disk.mount();
  copyTree(world, join(disk.folder, 'wiki'));
  disk.unmount();
  return disk;
}

// Runs the save on a fresh copy of the disk, cuts the power, and gives what `look(root)` sees after it.
async function cut({ folder, disk, action, journal, inject, name }, look) {
  const copy = disk.copy(join(folder, `${name}.img`), join(folder, `${name}.mount`));
  const log = join(folder, `${name}.log`);
  const root = join(copy.folder, 'wiki');
  try {
    copy.mount();
    const options = inject.map((option) => option.replace('ROOT', root));
    const { answered, end } = await action.save(root, action, ['-o', log, ...options]);
    copy.cutPower(journal);
    await end();
    copy.unmount();
    copy.mount();
    const fired = inject.length === 0 || hasFired(log);
    return { fired, answered, log, ...(await look(root, answered)) };
  } finally {
    copy.unmount();
    copy.remove();
  }
}

// Files of the wiki that are not whole, as lines.
function broken(root) {
  const names = readdirSync(join(root, 'wiki'), { recursive: true, withFileTypes: true });
  const files = names.filter((entry) => entry.isFile() && !/\.tmp$/.test(entry.name));
  return files.flatMap((entry) => {
    const text = readFileSync(join(entry.parentPath, entry.name), 'utf8');
    if (text === '' || text.includes('\0') || !text.endsWith('\n')) return [`${entry.name} is not whole`];
    if (entry.name === 'manifest.json') JSON.parse(text);
    return [];
  });
}

// What is wrong after a cut, as a text, or "".
async function faultAfter(root, texts, answered) {
  if (!texts.includes(pageText(root, 'alpha'))) return `neither old nor new: ${pageText(root, 'alpha')}`;
  if (broken(root).length > 0) return broken(root).join('\n');
  const found = await ossilar(root, ['check']);
  // The replaced file may be back, because its removal is not synced.
  const isWrong = found.stdout.split('\n').some((line) => !/^$|^leftover |^\d+ findings?;/.test(line));
  if (answered && found.code !== 0 && isWrong) return said('check after an answer', found);
  return faultAfterRepair(root);
}

// Every stage of the save, cut in both ways.
async function cutEverywhere(t, action, { folder, world, texts }) {
  const disk = makeDisk(folder, world);
  const look = async (root, answered) => {
    const isNew = pageText(root, 'alpha') === texts.at(-1);
    return { isNew, fault: await faultAfter(root, texts, answered) };
  };
  const stages = [];
  const addStage = (where, inject) => {
    for (const journal of ['drop', 'keep']) stages.push({ folder, disk, action, journal, inject, where });
  };
  const whole = await cut({ folder, disk, action, journal: 'keep', inject: [], name: 'whole' }, look);
  addStage('after the answer', []);
  for (const [call, { last }] of numbersOfCalls(whole.log, ''))
    for (let k = 1; k <= last; ++k) addStage(`before ${call} ${k}`, ['-e', `inject=${call}:signal=KILL:when=${k}`]);
  const cuts = [];
  await inParallel(stages, async (stage, worker) => {
    cuts.push({ ...stage, ...(await cut({ ...stage, name: `cut-${worker}` }, look)) });
  });
  const fired = cuts.filter((each) => each.fired);
  const answered = fired.filter((each) => each.answered);
  const lost = answered.filter((each) => !each.isNew).map((each) => `${each.where}, journal ${each.journal}`);
  const bad = fired.filter((each) => each.fault).map((each) => `${each.where}, ${each.journal}: ${each.fault}`);
  const fresh = fired.filter((each) => each.isNew).length;
  t.diagnostic(
    `power cut in ${action.what}: ${fired.length} cuts, ${fired.length - fresh} old, ${fresh} new, ` +
      `${answered.length} after an answer, ${lost.length} lost, ${bad.length} bad`,
  );
  assert.ok(fired.length > 20, 'the power was cut at many stages');
  assert.ok(answered.length >= 2, 'there are answers');
  assert.deepEqual(lost, []);
  assert.deepEqual(bad, []);
}

const ACTIONS = [
  { ...PAGE_SAVE, save: saveByCommand },
  { ...SECTION_SAVE, save: saveByCommand },
  { ...PAGE_SAVE, save: saveByCommand, what: 'a first page', first: true },
  { ...PAGE_SAVE, save: saveBySession, what: 'a save of a session' },
  { ...SECTION_SAVE, save: saveBySession, what: 'a section save of a session' },
  { ...PAGE_SAVE, save: saveBySession, what: 'a session that ends', ends: true },
];

// The world before the save, and the page as it is before and after.
function worldFor(t, action, folder) {
  const wiki = action.first ? makeWiki(t) : wikiWithAlpha(t);
  const world = copyTree(wiki.root, join(folder, 'world'));
  return { folder, world, texts: pagesAround(folder, world, action) };
}

for (const action of ACTIONS) {
  test(`${action.what}, the power cut at every stage`, { skip: without('strace', 'losetup', 'mkfs.ext4') }, async (t) => {
    const folder = scratchForDisks(t);
    await cutEverywhere(t, action, worldFor(t, action, folder));
  });
}

// Proves that the cuts find a save without syncs: here each sync reports success and does nothing.
test('a save that is not synced is lost', { skip: without('strace', 'losetup', 'mkfs.ext4') }, async (t) => {
  const folder = scratchForDisks(t);
  const action = ACTIONS[0];
  const { world, texts } = worldFor(t, action, folder);
  const disk = makeDisk(folder, world);
  const inject = ['-e', 'inject=fsync,fdatasync:retval=0'];
  const look = async (root) => ({ text: pageText(root, 'alpha') });
  const dropped = await cut({ folder, disk, action, journal: 'drop', inject, name: 'drop' }, look);
  assert.ok(dropped.answered);
  assert.equal(dropped.text, texts[0]);
  const kept = await cut({ folder, disk, action, journal: 'keep', inject, name: 'keep' }, look);
  assert.ok(kept.answered);
  assert.equal(kept.text, '', 'a name without its data');
});
