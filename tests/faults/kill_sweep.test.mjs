// The program is killed at every system call that writes, and a fresh process then finds the old page or the new
// one, a sound database and a free lock; a repair leaves nothing, and the next save works.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { appendFileSync, cpSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { makeWiki, pageAbout, program, sectionText } from '../clients/wiki.mjs';
import { leftovers, listsAhead, ossilar, pageText, run, scratch, sweep } from './sweep.mjs';

// A wiki with the page alpha, as a folder to be copied.
function worldWith(t, folder, name, arrange = () => {}) {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 3));
  arrange(wiki);
  const world = join(folder, name);
  cpSync(wiki.root, world, { recursive: true, preserveTimestamps: true });
  return world;
}

// What is wrong after the kill, as a text, or "".
async function faultAfter(root, { texts, mustInit = false }) {
  const said = (what, result) => `${what}: exit ${result.code}\n${result.stdout}${result.stderr}`;
  const text = pageText(root, 'alpha');
  if (!texts.includes(text)) return `the page is neither the old one nor the new one: ${text}`;
  const lock = await run('flock', ['--nonblock', join(root, '.ossilar/write.lock'), 'true']);
  if (lock.code !== 0 && !mustInit) return said('the lock is held', lock);
  if (mustInit) {
    const init = await ossilar(root, ['init']);
    if (init.code !== 0) return said('init', init);
  }
  const fixed = await ossilar(root, ['check', '--fix']);
  if (fixed.code !== 0) return said('check --fix', fixed);
  if (pageText(root, 'alpha') !== text) return 'the repair changed the page';
  const status = await ossilar(root, ['status']);
  if (status.code !== 0) return said('status', status);
  const saved = await ossilar(root, ['save', 'beta'], pageAbout('beta'));
  if (saved.code !== 0) return said('the next save', saved);
  const clean = await ossilar(root, ['check']);
  return clean.code === 0 ? '' : said('check', clean);
}

async function killAtEveryPoint(t, { what, folder, world, action, texts, mustInit }) {
  const isSave = action.args[0] === 'save';
  const states = await sweep({
    folder,
    world,
    action,
    // What opening a file changes is there at the next call.
    injections: (call, k) => (call === 'openat' ? [] : [`signal=KILL:when=${k}`]),
    each: async (root, result, { call, k }) => {
      const isNew = pageText(root, 'alpha') === texts.at(-1);
      const ahead = isSave ? listsAhead(root, world) : '';
      const fault = ahead || (await faultAfter(root, { texts, mustInit }));
      const bad = fault && `${what}, killed at ${call} ${k}: ${fault}`;
      return { isNew, bad, left: leftovers(root).map((file) => `${file}, killed at ${call} ${k}`) };
    },
  });
  const bad = states.map((state) => state.bad).filter(Boolean);
  const left = states.flatMap((state) => state.left);
  const fresh = states.filter((state) => state.isNew).length;
  t.diagnostic(
    `${what}: ${states.length} points, ${states.length - fresh} old, ${fresh} new, ` +
      `${bad.length} bad, ${left.length} leftovers after check --fix`,
  );
  assert.ok(states.length > 50, 'the program was killed at many points');
  assert.deepEqual(bad, []);
  assert.deepEqual(left, []);
}

const SAVES = [
  ['a save', { args: ['save', 'alpha'], input: pageAbout('alpha', 4, 'second') }],
  ['a section save', { args: ['save', 'alpha', '--section', 'Section 1'], input: sectionText('alpha', 1, 'second') }],
];

for (const [what, action] of SAVES) {
  test(`${what}, killed at every point`, async (t) => {
    const folder = scratch(t);
    const world = worldWith(t, folder, 'world');
    const old = pageText(world, 'alpha');
    const after = join(folder, 'after');
    cpSync(world, after, { recursive: true, preserveTimestamps: true });
    execFileSync(program, ['--repo', after, ...action.args], { input: action.input, stdio: 'pipe' });
    await killAtEveryPoint(t, { what, folder, world, action, texts: [old, pageText(after, 'alpha')] });
  });
}

test('a first page, killed at every point', async (t) => {
  const folder = scratch(t);
  const world = worldWith(t, folder, 'world', (wiki) => rmSync(join(wiki.root, '.ossilar'), { recursive: true }));
  const page = pageText(world, 'alpha');
  for (const name of ['wiki', 'wiki/pages']) rmSync(join(world, name), { recursive: true, force: true });
  execFileSync(program, ['--repo', world, 'init'], { stdio: 'pipe' });
  const action = { args: ['save', 'alpha'], input: pageAbout('alpha', 3) };
  await killAtEveryPoint(t, { what: 'a first page', folder, world, action, texts: [null, page] });
});

test('init of a clone, killed at every point', async (t) => {
  const folder = scratch(t);
  const world = worldWith(t, folder, 'world', (wiki) => rmSync(join(wiki.root, '.ossilar'), { recursive: true }));
  const action = { args: ['init', '--client', 'vscode'], input: '' };
  await killAtEveryPoint(t, { what: 'init', folder, world, action, texts: [pageText(world, 'alpha')], mustInit: true });
});

const DAMAGES = [
  [
    'pages, manifest and leftovers',
    (wiki) => {
      wiki.save('beta', pageAbout('beta'));
      rmSync(join(wiki.root, 'wiki/pages/beta.md'));
      appendFileSync(join(wiki.root, 'wiki/manifest.json'), '<<<<<<< HEAD\n');
      writeFileSync(join(wiki.root, 'wiki/pages/.ossilar-0123456789abcdef.tmp'), 'half');
      const page = join(wiki.root, 'wiki/pages/alpha.md');
      writeFileSync(page, readFileSync(page, 'utf8').replace('first', 'by hand'));
    },
  ],
  ['a damaged database', (wiki) => writeFileSync(join(wiki.root, '.ossilar/index.db'), 'no database')],
];

for (const [what, damage] of DAMAGES) {
  test(`a repair of ${what}, killed at every point`, async (t) => {
    const folder = scratch(t);
    const world = worldWith(t, folder, 'world', damage);
    const action = { args: ['check', '--fix'], input: '' };
    await killAtEveryPoint(t, {
      what: `a repair of ${what}`,
      folder,
      world,
      action,
      texts: [pageText(world, 'alpha')],
    });
  });
}
