// The program is killed at every system call that writes, and a fresh process then finds the old page or the new
// one, a sound database and a free lock; a repair leaves nothing, and the next save works. A renaming and a removal
// have come to their end or to none after the repair.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { appendFileSync, existsSync, readFileSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { makeFolder, pageAbout, program } from '../clients/wiki.mjs';
import {
  copyTree,
  faultAfterRepair,
  listsAhead,
  metEnough,
  ossilar,
  pagesAround,
  pageText,
  PAGE_SAVE,
  run,
  said,
  SECTION_SAVE,
  sweep,
  wikiWithAlpha,
} from './sweep.mjs';
import { without } from '../clients/needs.mjs';

// What is wrong after the kill, as a text, or "".
async function faultAfter(root, texts, mustInit) {
  const text = pageText(root, 'alpha');
  if (!texts.includes(text)) return `the page is neither the old one nor the new one: ${text}`;
  const ready = mustInit
    ? await ossilar(root, ['init'])
    : await run('flock', ['--nonblock', join(root, '.ossilar/write.lock'), 'true']);
  if (ready.code !== 0) return said(mustInit ? 'init' : 'the lock is held', ready);
  const fault = await faultAfterRepair(root);
  return fault || (pageText(root, 'alpha') === text ? '' : 'the repair changed the page');
}

// `texts` are what the page may hold afterwards, the new one last; by default before and after the action.
function killAtEveryPoint({ what, args, input = '', arrange = () => {}, texts, mustInit = false }) {
  test(`${what}, killed at every point`, { skip: without('strace', 'sqlite3') }, async (t) => {
    const folder = makeFolder(t);
    const wiki = wikiWithAlpha(t);
    const page = pageText(wiki.root, 'alpha');
    arrange(wiki);
    const world = copyTree(wiki.root, join(folder, 'world'));
    const allowed = texts?.(page, world) ?? pagesAround(folder, world, { args, input });
    const states = await sweep({
      folder,
      world,
      action: { args, input },
      // A kill at the call after an openat shows what the openat changed.
      injections: (call, k) => (call === 'openat' ? [] : [`signal=KILL:when=${k}`]),
      each: async (root, result, { call, k }) => {
        const isNew = pageText(root, 'alpha') === allowed.at(-1);
        const ahead = ['save', 'sync'].includes(args[0]) ? listsAhead(root, world) : '';
        const fault = ahead || (await faultAfter(root, allowed, mustInit));
        return { isNew, bad: fault && `${what}, killed at ${call} ${k}: ${fault}` };
      },
    });
    const bad = states.map((state) => state.bad).filter(Boolean);
    const fresh = states.filter((state) => state.isNew).length;
    t.diagnostic(`${what}: ${states.length} points, ${states.length - fresh} old, ${fresh} new, ${bad.length} bad`);
    assert.ok(metEnough(states.length, 50), 'the program was killed at many points');
    assert.deepEqual(bad, []);
  });
}

killAtEveryPoint(PAGE_SAVE);
killAtEveryPoint(SECTION_SAVE);

killAtEveryPoint({
  what: 'a sync',
  args: ['sync'],
  arrange: ({ root }) => {
    const source = join(root, 'src/alpha.cpp');
    writeFileSync(source, `// a line above\n${readFileSync(source, 'utf8')}`);
  },
});

const forget = (wiki) => rmSync(join(wiki.root, '.ossilar'), { recursive: true });

killAtEveryPoint({
  what: 'a first page',
  args: ['save', 'alpha'],
  input: pageAbout('alpha', 3),
  arrange: (wiki) => {
    forget(wiki);
    rmSync(join(wiki.root, 'wiki'), { recursive: true });
    execFileSync(program, ['--repo', wiki.root, 'init'], { stdio: 'pipe' });
  },
  texts: (page) => [null, page],
});

killAtEveryPoint({
  what: 'init of a clone',
  args: ['init', '--client', 'vscode'],
  arrange: forget,
  texts: (page) => [page],
  mustInit: true,
});

const DAMAGES = {
  'pages, manifest and leftovers': (wiki) => {
    wiki.save('beta', pageAbout('beta'));
    rmSync(join(wiki.root, 'wiki/pages/beta.md'));
    appendFileSync(join(wiki.root, 'wiki/manifest.json'), '<<<<<<< HEAD\n');
    writeFileSync(join(wiki.root, 'wiki/pages/.ossilar-0123456789abcdef.tmp'), 'half');
    const page = join(wiki.root, 'wiki/pages/alpha.md');
    writeFileSync(page, readFileSync(page, 'utf8').replace('first', 'by hand'));
  },
  'a damaged database': (wiki) => writeFileSync(join(wiki.root, '.ossilar/index.db'), 'no database'),
};

for (const [what, arrange] of Object.entries(DAMAGES)) {
  const texts = (page, world) => [pageText(world, 'alpha')];
  killAtEveryPoint({ what: `a repair of ${what}`, args: ['check', '--fix'], arrange, texts });
}

const LINKING = `${pageAbout('beta')}\nOf [alpha].\n`;
const PAGES = ['alpha', 'beta', 'gamma'];

const replacedTexts = (root) => {
  const folder = join(root, '.ossilar/replaced');
  return existsSync(folder) ? readdirSync(folder).map((name) => readFileSync(join(folder, name), 'utf8')) : [];
};

// What is wrong after the kill, as a text, or "". `ends` are the texts of the pages before and after the action.
async function faultAfterMove(root, ends) {
  const [before] = ends;
  const shown = PAGES.map((id) => pageText(root, id));
  const isLost = !shown.includes(before[0]) && !replacedTexts(root).includes(before[0]);
  if (isLost) return 'the text of the page is neither in the wiki nor kept';
  const ready = await run('flock', ['--nonblock', join(root, '.ossilar/write.lock'), 'true']);
  if (ready.code !== 0) return said('the lock is held', ready);
  const repaired = await ossilar(root, ['check', '--fix']);
  if (repaired.code !== 0) return said('check --fix', repaired);
  const pages = JSON.stringify(PAGES.map((id) => pageText(root, id)));
  if (!ends.some((end) => JSON.stringify(end) === pages)) return `half done after the repair: ${pages}`;
  return faultAfterRepair(root, 'gamma', LINKING);
}

for (const args of [['rename', 'alpha', 'beta'], ['remove', 'alpha']]) {
  test(`${args[0]}, killed at every point`, { skip: without('strace', 'sqlite3') }, async (t) => {
    const folder = makeFolder(t);
    const wiki = wikiWithAlpha(t);
    appendFileSync(join(wiki.root, 'ossilar.toml'), '[[page]]\nid = "gamma"\ntype = "topic"\nsources = ["src/beta.cpp"]\n');
    wiki.save('gamma', LINKING);
    const world = copyTree(wiki.root, join(folder, 'world'));
    const done = copyTree(world, join(folder, 'done'));
    execFileSync(program, ['--repo', done, ...args], { stdio: 'pipe' });
    const ends = [world, done].map((root) => PAGES.map((id) => pageText(root, id)));
    assert.equal(ends[1][0], null);
    const states = await sweep({
      folder,
      world,
      action: { args, input: '' },
      injections: (call, k) => (call === 'openat' ? [] : [`signal=KILL:when=${k}`]),
      each: async (root, result, { call, k }) => {
        const isBegun = JSON.stringify(PAGES.map((id) => pageText(root, id))) !== JSON.stringify(ends[0]);
        const fault = await faultAfterMove(root, ends);
        return { isBegun, bad: fault && `${args[0]}, killed at ${call} ${k}: ${fault}` };
      },
    });
    const bad = states.map((state) => state.bad).filter(Boolean);
    const begun = states.filter((state) => state.isBegun).length;
    t.diagnostic(`${args[0]}: ${states.length} points, ${begun} after the first page file, ${bad.length} bad`);
    assert.ok(metEnough(states.length, 50), 'the program was killed at many points');
    assert.ok(metEnough(begun, 10), 'and when something was done already');
    assert.deepEqual(bad, []);
  });
}
