// Branches that each save pages, brought together by real git: merge, rebase, cherry-pick and stash. Nothing is in
// conflict but a page that both changed, no page looks fresher than its sources, and `check` is clean or names what
// needs an author.
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { appendFileSync, mkdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { LATEST, lineClient, makeWiki, pageAbout, program } from '../clients/wiki.mjs';
import { findingsOf, ossilar } from './sweep.mjs';

const IDS = ['alpha', 'beta', 'alpha/one', 'alpha/two', 'beta/three'];
const wordOf = (id) => id.split('/')[0];

// A repository whose wiki is committed on `main`, with a branch `topic`.
function worldOf(t) {
  const wiki = makeWiki(t);
  const { root } = wiki;
  for (const id of IDS.slice(2))
    appendFileSync(join(root, 'ossilar.toml'), `[[page]]\nid = "${id}"\nsources = ["src/${wordOf(id)}.cpp"]\n`);
  const tryGit = (...args) =>
    spawnSync('git', ['-C', root, '-c', 'user.name=t', '-c', 'user.email=t@example.org', ...args], { encoding: 'utf8' });
  const git = (...args) => {
    const { status, stdout, stderr } = tryGit(...args);
    assert.equal(status, 0, `git ${args.join(' ')}: ${stdout}${stderr}`);
    return stdout;
  };
  const commit = (message) => {
    git('add', '--all');
    git('commit', '--quiet', '--no-gpg-sign', `--message=${message}`);
  };
  const save = (id, said, ...more) =>
    execFileSync(program, ['--repo', root, 'save', id, ...more], { input: pageAbout(wordOf(id), 3, said), stdio: 'pipe' });
  for (const id of IDS.slice(0, 4)) save(id, `${id} first`);
  commit('wiki');
  git('branch', 'topic');
  const world = { ...wiki, git, tryGit, commit, save };
  world.on = (branch, work) => {
    git('checkout', '--quiet', branch);
    work();
    commit(`on ${branch}`);
  };
  return world;
}

const unmerged = ({ git }) => git('diff', '--name-only', '--diff-filter=U').split('\n').filter(Boolean);

// What is left for nobody but an author.
const FOR_AN_AUTHOR = ['stale', 'drifted', 'unverified', 'citations', 'page-file'];

async function assertForAnAuthor({ root }, expected = []) {
  const findings = await findingsOf(root);
  assert.deepEqual(findings.filter(({ kind }) => !FOR_AN_AUTHOR.includes(kind)), []);
  const named = findings.map(({ kind, subject }) => `${kind} ${subject}`).sort();
  assert.deepEqual(named, expected);
}

const touch = (world, word) => appendFileSync(join(world.root, `src/${word}.cpp`), `int ${word}_more();\n`);
const marked = (world, id) => /^<<<<<<< /m.test(world.page(id));

const saying = (id, said, ...more) => (w) => w.save(id, said, ...more);

// What each side did, the pages in conflict, and what `check` has to say when it is resolved.
const SITUATIONS = [
  {
    why: 'different pages',
    main: saying('alpha', 'main says'),
    topic: saying('beta', 'topic says'),
    holds: { alpha: 'main says', beta: 'topic says' },
  },
  {
    why: 'new pages',
    main: saying('alpha/two', 'main says'),
    topic: saying('beta/three', 'topic says'),
    holds: { 'alpha/two': 'main says', 'beta/three': 'topic says' },
  },
  {
    why: 'one page, the same way',
    main: saying('alpha', 'both say'),
    topic: saying('alpha', 'both say'),
    holds: { alpha: 'both say' },
  },
  {
    why: 'one page, each its own way',
    main: saying('alpha', 'main says'),
    topic: saying('alpha', 'topic says'),
    conflicts: ['wiki/pages/alpha.md'],
  },
  {
    why: 'a page renamed, and another saved',
    main: saying('beta', 'main says'),
    topic: saying('alpha', 'topic says', '--title', 'The first letter'),
    holds: { alpha: '# The first letter', beta: 'main says' },
  },
  {
    why: 'a page deleted, and another saved',
    main: saying('beta', 'main says'),
    topic: (w) => {
      rmSync(join(w.root, 'wiki/pages/alpha/one.md'));
      execFileSync(program, ['--repo', w.root, 'check', '--fix'], { stdio: 'pipe' });
    },
    gone: ['alpha/one'],
    holds: { beta: 'main says' },
  },
  {
    why: 'a source changed, and the page about it saved without knowing',
    main: (w) => touch(w, 'beta'),
    topic: saying('beta', 'topic says'),
    drifted: ['beta'],
    holds: { beta: 'topic says' },
  },
];

// The branch that is checked out, and what is done there.
const OPERATIONS = [
  ['main', 'merge', '--quiet', '--no-edit', 'topic'],
  ['topic', 'rebase', '--quiet', 'main'],
  ['main', 'cherry-pick', '--allow-empty', '--keep-redundant-commits', 'topic'],
];

for (const [branch, operation, ...options] of OPERATIONS) {
  for (const { why, main, topic, conflicts = [], holds = {}, gone = [], drifted = [] } of SITUATIONS) {
    test(`${operation}: ${why}`, async (t) => {
      const world = worldOf(t);
      world.on('topic', () => topic(world));
      world.on('main', () => main(world));
      world.git('checkout', '--quiet', branch);
      world.tryGit(operation, '--no-gpg-sign', ...options);
      assert.deepEqual(unmerged(world), conflicts);
      if (conflicts.length > 0) {
        assert.ok(marked(world, 'alpha'));
        await assertForAnAuthor(world, ['page-file wiki/pages/alpha.md']);
        world.save('alpha', 'resolved by an author');
      }
      for (const [id, said] of Object.entries(holds)) assert.ok(world.page(id).includes(said), `${id}: ${said}`);
      await assertForAnAuthor(world, drifted.map((id) => `drifted wiki/pages/${id}.md`));
      const { stdout } = await ossilar(world.root, ['--json', 'plan']);
      const state = new Map(JSON.parse(stdout).pages.map((page) => [page.page_id, page.state]));
      for (const id of gone) assert.equal(state.get(id), 'missing', id);
      for (const id of IDS.slice(0, 4).filter((each) => !gone.includes(each)))
        assert.equal(state.get(id), drifted.includes(id) ? 'drifted' : 'ok', id);
      JSON.parse(readFileSync(join(world.root, 'wiki/manifest.json'), 'utf8'));
    });
  }
}

test('stash: a save that is put away and taken back', async (t) => {
  const world = worldOf(t);
  world.save('alpha', 'put away');
  world.git('stash', '--quiet');
  await assertForAnAuthor(world);
  assert.ok(world.page('alpha').includes('alpha first'));
  world.save('beta', 'meanwhile');
  world.commit('meanwhile');
  world.git('stash', 'pop', '--quiet');
  await assertForAnAuthor(world);
  assert.ok(world.page('alpha').includes('put away'));
  assert.ok(world.page('beta').includes('meanwhile'));
});

test('a clone takes the pages as they were written, and a source that changed before is not overlooked', async (t) => {
  const world = worldOf(t);
  world.on('main', () => touch(world, 'beta'));
  const clone = { ...world, root: `${world.root}-clone` };
  t.after(() => rmSync(clone.root, { recursive: true, force: true }));
  world.git('clone', '--quiet', world.root, clone.root);
  execFileSync(program, ['--repo', clone.root, 'init'], { stdio: 'pipe' });
  clone.git = (...args) => execFileSync('git', ['-C', clone.root, ...args], { encoding: 'utf8' });
  await assertForAnAuthor(clone, ['drifted wiki/pages/beta.md']);
  mkdirSync(join(clone.root, 'wiki/pages/beta'));
  writeFileSync(join(clone.root, 'wiki/pages/beta/three.md'), '# By hand\n\nText.\n');
  await ossilar(clone.root, ['check', '--fix']);
  await assertForAnAuthor(clone, ['drifted wiki/pages/beta.md', 'unverified wiki/pages/beta/three.md']);
});

// The server was asked before each step, so it knows what was true then; the next answer must be of the files as they
// are.
test('a server sees at once what git does to the sources', async (t) => {
  const world = worldOf(t);
  const { root, git, commit, on } = world;
  const source = join(root, 'src/alpha.cpp');
  on('topic', () => writeFileSync(source, readFileSync(source, 'utf8').replace('alpha2', 'other')));
  git('checkout', '--quiet', 'main');
  const server = await lineClient(t, world, LATEST);
  const stateOfAlpha = async () => {
    const { pages } = (await server.call('list_pages', {})).result.structuredContent;
    return pages.find((page) => page.page_id === 'alpha').state;
  };
  const steps = [
    ['nothing', 'ok', () => {}],
    ['a line above', 'moved', () => writeFileSync(source, `// new\n${readFileSync(source, 'utf8')}`)],
    ['it taken back', 'ok', () => git('checkout', '--quiet', '--', 'src/alpha.cpp')],
    ['a branch with a cited line changed', 'stale', () => git('checkout', '--quiet', 'topic')],
    ['the branch before', 'ok', () => git('checkout', '--quiet', '-')],
    ['a file renamed', 'moved', () => git('mv', 'src/alpha.cpp', 'src/renamed.cpp')],
    ['the rename committed', 'moved', () => commit('rename')],
    ['a rebase onto the changed line', 'stale', () => git('rebase', '--quiet', 'topic')],
    ['the rebase undone', 'moved', () => git('reset', '--quiet', '--hard', 'ORIG_HEAD')],
  ];
  for (const [what, state, step] of steps) {
    step();
    assert.equal(await stateOfAlpha(), state, what);
  }
});
