// Every system call that writes is refused by the system, once and from then on: exit code 0 is given only when
// the new state is there, and everything else comes with a message that names what failed.
//
// By default every call meets EIO once and ENOSPC from then on, and in turn one of the others; of a repair, which makes
// most calls, one in turn alone. With OSSILAR_SWEEP=all it meets every error in both ways, EINTR once only: for ever, it
// would be waited out.
import assert from 'node:assert/strict';
import { appendFileSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { makeFolder } from '../clients/wiki.mjs';
import {
  BEST_EFFORT,
  copyTree,
  findingsOf,
  listsAhead,
  metEnough,
  ossilar,
  pagesAround,
  pageText,
  PAGE_SAVE,
  said,
  SECTION_SAVE,
  sweep,
  wikiWithAlpha,
} from './sweep.mjs';
import { without } from '../clients/needs.mjs';

const ALWAYS = ['EIO', 'ENOSPC+'];
const IN_TURN = ['EINTR', 'EACCES', 'EMFILE+', 'EIO+', 'ENOSPC', 'EACCES+', 'EMFILE'];
const errorsAt = (k, always) =>
  process.env.OSSILAR_SWEEP === 'all' ? [...ALWAYS, ...IN_TURN] : [...always, IN_TURN[k % IN_TURN.length]];

// "EIO+" is EIO from then on.
const injections = (always) => (call, k) =>
  errorsAt(k, always).map((error) => error.replace(/^(\w+)(\+?)$/, `error=$1:when=${k}$2`));

// A citation whose lines could not be read just then is stored without what they were.
const plain = (text) => text?.replaceAll(/^\{"cited".*\n/gm, '').replaceAll(/("says": "[0-9a-f]+").*\}/g, '$1}');

// Whether a fresh process finds the page and all that belongs to it, or nothing to be repaired.
async function isStored(root, text, mayBeLeft) {
  if (text !== undefined && plain(pageText(root, 'alpha')) !== plain(text)) return false;
  return (await findingsOf(root))?.every((finding) => mayBeLeft.includes(finding.kind));
}

// A repair that could not look somewhere may name what it found there as left.
const namesWhatFailed = ({ code, stdout, stderr }) =>
  (code === 1 && /^\d+ findings?\b/m.test(stdout)) ||
  stderr.split('\n').some((line) => /^ossilar|error while loading/.test(line) && /\/|standard output/.test(line));

// A program that cannot write cannot report the failure.
const isSpeechless = ({ call, injection }) => call === 'write' && injection.endsWith('+');

// The faults of one run, as lines.
async function faultsOf(root, result, point, { what, world, before, after, mayBeLeft = BEST_EFFORT }) {
  const ended = said(`${what}, ${point.call}:${point.injection}`, result);
  // A source that cannot be read is no fault of the page: its sentences are stored, and it is told what is not known.
  const left = /unverified: the file of/.test(result.stdout) ? [...mayBeLeft, 'unverified'] : mayBeLeft;
  if (result.code === 0) return (await isStored(root, after, left)) ? {} : { lie: ended };
  if (!namesWhatFailed(result) && !isSpeechless(point)) return { unnamed: ended };
  const ahead = what.includes('save') ? listsAhead(root, world) : '';
  if (ahead) return { bad: `${ended}\n${ahead}` };
  const text = pageText(root, 'alpha');
  if (after !== undefined && ![before, after].map(plain).includes(plain(text))) return { bad: `${ended}\n${text}` };
  const fixed = await ossilar(root, after === undefined ? ['init'] : ['check', '--fix']);
  return fixed.code === 0 ? {} : { bad: `${ended}\nthen: ${fixed.stdout}${fixed.stderr}` };
}

async function refuseEveryCall(t, { what, folder, world, args, input, always = ALWAYS, ...expected }) {
  const each = async (root, result, point) => ({
    code: result.code,
    ...(await faultsOf(root, result, point, { what, world, ...expected })),
  });
  const results = await sweep({ folder, world, action: { args, input }, injections: injections(always), each });
  const all = (kind) => results.map((result) => result[kind]).filter(Boolean);
  const [lies, unnamed, bad] = [all('lie'), all('unnamed'), all('bad')];
  const done = results.filter((result) => result.code === 0).length;
  t.diagnostic(
    `${what}: ${results.length} faults injected, ${done} done all the same, ${lies.length} lies, ` +
      `${unnamed.length} failures without a name, ${bad.length} bad`,
  );
  assert.ok(metEnough(results.length, 100), 'many calls were refused');
  assert.deepEqual(lies, []);
  assert.deepEqual(unnamed, []);
  assert.deepEqual(bad, []);
}

function worldIn(t, folder, damage = () => {}) {
  const wiki = wikiWithAlpha(t);
  damage(wiki);
  return copyTree(wiki.root, join(folder, 'world'));
}

for (const action of [PAGE_SAVE, SECTION_SAVE]) {
  test(`${action.what}, every call refused`, { skip: without('strace', 'sqlite3') }, async (t) => {
    const folder = makeFolder(t);
    const world = worldIn(t, folder);
    const [before, after] = pagesAround(folder, world, action);
    await refuseEveryCall(t, { ...action, folder, world, before, after });
  });
}

// A repair that reports success must leave nothing to find; what it could not repair it may report.
test('a repair, every call refused', { skip: without('strace', 'sqlite3') }, async (t) => {
  const folder = makeFolder(t);
  const world = worldIn(t, folder, (wiki) => {
    const page = join(wiki.root, 'wiki/pages/alpha.md');
    writeFileSync(page, readFileSync(page, 'utf8').replace('first', 'by hand'));
    appendFileSync(join(wiki.root, 'wiki/manifest.json'), '<<<<<<< HEAD\n');
    writeFileSync(join(wiki.root, 'wiki/pages/.ossilar-0123456789abcdef.tmp'), 'half');
  });
  const page = pageText(world, 'alpha');
  // The hand's sentence cites, and nobody knows what it cited.
  const expected = { before: page, after: page, mayBeLeft: ['unverified'], always: [] };
  await refuseEveryCall(t, { what: 'a repair', args: ['check', '--fix'], folder, world, ...expected });
});

test('init of a clone, every call refused', { skip: without('strace', 'sqlite3') }, async (t) => {
  const folder = makeFolder(t);
  const world = worldIn(t, folder, ({ root }) => rmSync(join(root, '.ossilar'), { recursive: true }));
  await refuseEveryCall(t, { what: 'init', args: ['init'], folder, world, before: pageText(world, 'alpha') });
});
