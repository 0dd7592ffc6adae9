// Every system call that writes is refused by the system, once and from then on: exit code 0 is given only when
// the new state is there, and everything else comes with a message that names what failed.
//
// By default every call meets EIO once and ENOSPC from then on, and in turn one of the others; of a repair, which makes
// most calls, one in turn alone. With OSSILAR_SWEEP=all it meets every error in both ways, EINTR once only: for ever, it
// would be waited out.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { appendFileSync, cpSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { makeWiki, pageAbout, program, sectionText } from '../clients/wiki.mjs';
import { listsAhead, ossilar, pageText, scratch, sweep } from './sweep.mjs';

const ALWAYS = [
  ['EIO', ''],
  ['ENOSPC', '+'],
];
const IN_TURN = [
  ['EINTR', ''],
  ['EACCES', ''],
  ['EMFILE', '+'],
  ['EIO', '+'],
  ['ENOSPC', ''],
  ['EACCES', '+'],
  ['EMFILE', ''],
];
const errorsAt = (k, always) =>
  process.env.OSSILAR_SWEEP === 'all' ? [...ALWAYS, ...IN_TURN] : [...always, IN_TURN[k % IN_TURN.length]];

const injections = (always) => (call, k) => errorsAt(k, always).map(([error, on]) => `error=${error}:when=${k}${on}`);

// What may be wrong although a save succeeded: it says that these could not be refreshed.
const BEST_EFFORT = ['index', 'manifest', 'leftover'];

// A citation whose lines could not be read just then is stored without their hash.
const plain = (text) => text?.replaceAll(/, "text": "[0-9a-f]+"/g, '');

// Whether a fresh process finds the page and all that belongs to it, or nothing to be repaired.
async function isStored(root, text, mayBeLeft) {
  if (text !== undefined && plain(pageText(root, 'alpha')) !== plain(text)) return false;
  const { stdout } = await ossilar(root, ['--json', 'check']);
  const { findings } = JSON.parse(stdout);
  return findings?.every((finding) => mayBeLeft.includes(finding.kind));
}

// A repair that could not look somewhere may name what it found there as left.
const namesWhatFailed = ({ code, stdout, stderr }) =>
  (code === 1 && /^\d+ findings?\b/m.test(stdout)) ||
  stderr.split('\n').some((line) => /^ossilar|error while loading/.test(line) && /\/|standard output/.test(line));

// Nothing can be said where nothing can be written.
const isSpeechless = ({ call, injection }) => call === 'write' && injection.endsWith('+');

// The faults of one run, as lines.
async function faultsOf(root, result, point, { what, world, before, after, mayBeLeft = BEST_EFFORT }) {
  const where = `${what}, ${point.call}:${point.injection}`;
  const said = `${where}: exit ${result.code}\n${result.stdout}${result.stderr}`;
  if (result.code === 0) return (await isStored(root, after, mayBeLeft)) ? {} : { lie: said };
  if (!namesWhatFailed(result) && !isSpeechless(point)) return { unnamed: said };
  const ahead = what.includes('save') ? listsAhead(root, world) : '';
  if (ahead) return { bad: `${said}\n${ahead}` };
  const text = pageText(root, 'alpha');
  if (after !== undefined && ![before, after].map(plain).includes(plain(text))) return { bad: `${said}\n${text}` };
  const fixed = await ossilar(root, after === undefined ? ['init'] : ['check', '--fix']);
  return fixed.code === 0 ? {} : { bad: `${said}\nthen: ${fixed.stdout}${fixed.stderr}` };
}

async function refuseEveryCall(t, what, { folder, world, action, always = ALWAYS, ...expected }) {
  const results = await sweep({
    folder,
    world,
    action,
    injections: injections(always),
    each: async (root, result, point) => ({
      code: result.code,
      ...(await faultsOf(root, result, point, { what, world, ...expected })),
    }),
  });
  const all = (kind) => results.map((result) => result[kind]).filter(Boolean);
  const [lies, unnamed, bad] = [all('lie'), all('unnamed'), all('bad')];
  const done = results.filter((result) => result.code === 0).length;
  t.diagnostic(
    `${what}: ${results.length} faults injected, ${done} done all the same, ${lies.length} lies, ` +
      `${unnamed.length} failures without a name, ${bad.length} bad`,
  );
  assert.ok(results.length > 100, 'many calls were refused');
  assert.deepEqual(lies, []);
  assert.deepEqual(unnamed, []);
  assert.deepEqual(bad, []);
}

const ACTIONS = [
  ['a save', { args: ['save', 'alpha'], input: pageAbout('alpha', 4, 'second') }],
  ['a section save', { args: ['save', 'alpha', '--section', 'Section 1'], input: sectionText('alpha', 1, 'second') }],
];

function worldWith(t, folder, damage = () => {}) {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 3));
  damage(wiki);
  const world = join(folder, 'world');
  cpSync(wiki.root, world, { recursive: true, preserveTimestamps: true });
  return world;
}

for (const [what, action] of ACTIONS) {
  test(`${what}, every call refused`, async (t) => {
    const folder = scratch(t);
    const world = worldWith(t, folder);
    const done = join(folder, 'done');
    cpSync(world, done, { recursive: true, preserveTimestamps: true });
    execFileSync(program, ['--repo', done, ...action.args], { input: action.input, stdio: 'pipe' });
    const [before, after] = [world, done].map((root) => pageText(root, 'alpha'));
    await refuseEveryCall(t, what, { folder, world, action, before, after });
  });
}

// What is found must be gone when it says so; what it could not set right it may name as still there.
test('a repair, every call refused', async (t) => {
  const folder = scratch(t);
  const world = worldWith(t, folder, (wiki) => {
    const page = join(wiki.root, 'wiki/pages/alpha.md');
    writeFileSync(page, readFileSync(page, 'utf8').replace('first', 'by hand'));
    appendFileSync(join(wiki.root, 'wiki/manifest.json'), '<<<<<<< HEAD\n');
    writeFileSync(join(wiki.root, 'wiki/pages/.ossilar-0123456789abcdef.tmp'), 'half');
  });
  const page = pageText(world, 'alpha');
  const action = { args: ['check', '--fix'], input: '' };
  await refuseEveryCall(t, 'a repair', { folder, world, action, before: page, after: page, mayBeLeft: [], always: [] });
});

test('init of a clone, every call refused', async (t) => {
  const folder = scratch(t);
  const world = worldWith(t, folder);
  rmSync(join(world, '.ossilar'), { recursive: true });
  const action = { args: ['init'], input: '' };
  await refuseEveryCall(t, 'init', { folder, world, action, before: pageText(world, 'alpha') });
});
