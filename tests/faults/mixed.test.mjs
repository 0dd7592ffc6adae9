// All that changes a wiki, at once, over either store: saves of pages and of sections onto versions, and by commands;
// pages that get another id and back; hands that write on; branches that are switched; and repairs. Over a database that
// machines share, half of it happens in another checkout. What is acknowledged is in the history of its page, on one
// branch, once, after what it was made onto; what a hand wrote is in a page, in a history, or kept.
//
// OSSILAR_RACE_ROUNDS says how many saves each writer makes.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import * as fs from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { without } from '../clients/needs.mjs';
import { postgresServer, withoutPostgres } from '../clients/postgres.mjs';
import { holdWriteLock, LATEST, lineClient, makeFolder, makeWiki, pageAbout, program, sectionText } from '../clients/wiki.mjs';
import { faultsOfHistories, marksOf } from './history.mjs';
import { Journal, readAtLast, saveOnto } from './savers.mjs';
import { filesOf, isFew, keptTexts, ossilar, said as shown } from './sweep.mjs';

const ROUNDS = Number(process.env.OSSILAR_RACE_ROUNDS ?? (isFew ? 5 : 12));
const BRANCHES = ['main', 'topic'];
const IDS = ['alpha', 'beta', 'moving', 'moved'];

const gitIn = (root) => (...args) =>
  execFileSync('git', ['-C', root, '-c', 'user.name=t', '-c', 'user.email=t@example.org', ...args], { encoding: 'utf8', stdio: 'pipe' });

function commitAll(root, message) {
  const git = gitIn(root);
  git('add', '--all');
  git('commit', '--quiet', '--no-gpg-sign', '--allow-empty', `--message=${message}`);
}

// A repository whose plan has the pages, with these settings.
function repository(t, settings) {
  const { root } = makeWiki(t);
  const page = (id) => `[[page]]\nid = "${id}"\ntype = "module"\nsources = ["src/beta.cpp"]\n`;
  const config = join(root, 'ossilar.toml');
  fs.writeFileSync(config, `${settings}[history]\nversions = 1000\n${fs.readFileSync(config, 'utf8')}${page('moving')}${page('moved')}`);
  commitAll(root, 'settings');
  return root;
}

const VERSIONS = "'version', version, 'action', action, 'text', text";
const WHERE = (branch, id) => `WHERE branch = '${branch}' AND page_id = '${id}'`;

// Each gives its checkouts, and what asks for the versions of a page, the oldest first.
const STORES = {
  sqlite: {
    skip: without('sqlite3'),
    async make(t) {
      const root = repository(t, '');
      const versions = (branch, id) => {
        const query = `SELECT json_group_array(json_object(${VERSIONS})) FROM (SELECT * FROM page_versions ${WHERE(branch, id)} ORDER BY number)`;
        return JSON.parse(execFileSync('sqlite3', [join(root, '.ossilar/index.db'), query], { encoding: 'utf8', maxBuffer: 1 << 28 }));
      };
      return { roots: [root], versions };
    },
  },
  postgresql: {
    skip: withoutPostgres(),
    async make(t) {
      const server = await postgresServer(t);
      const from = repository(t, `[store]\nurl = "${server.createDatabase('wiki')}"\n`);
      const folder = makeFolder(t);
      const roots = ['one', 'other'].map((name) => join(folder, name));
      for (const root of roots) execFileSync('git', ['clone', '--quiet', from, root], { stdio: 'pipe' });
      const versions = (branch, id) =>
        JSON.parse(server.sql('wiki', `SELECT json_agg(json_build_object(${VERSIONS}) ORDER BY number) FROM ossilar.page_versions ${WHERE(branch, id)}`).trim() || '[]');
      return { roots, versions };
    },
  },
};

async function worldOf(t, { make }) {
  const world = await make(t);
  for (const root of world.roots) await mustDo(root, ['init']);
  const [root] = world.roots;
  for (const [id, word] of [['alpha', 'alpha'], ['beta', 'beta'], ['moving', 'beta']]) await mustDo(root, ['save', id], pageAbout(word, 5, 'it begins;'));
  for (const each of world.roots) {
    await mustDo(each, ['status']);
    commitAll(each, 'wiki');
    gitIn(each)('branch', 'topic');
  }
  return world;
}

async function mustDo(root, args, input) {
  const result = await ossilar(root, args, input);
  assert.equal(result.code, 0, shown(args.join(' '), result));
  return result;
}

// Any refusal is final here: the page may have moved, or the branch been switched.
const isFinal = (answer) => answer?.error !== undefined;

// The writers. Each makes one save, and makes it anew until it is stored.
const bySection = (client, journal, page, word, section) => (said) =>
  saveOnto(client, journal, page, said, {
    isFinal,
    requestFor: (read, own) => ({
      entry: { base: marksOf(read.text).get(`Section ${section}`) },
      request: { section: `Section ${section}`, content: sectionText(word, section, own) },
    }),
  });

const byWholePage = (client, journal, page, word, section) => (said) =>
  saveOnto(client, journal, page, said, {
    isFinal,
    requestFor: (read, own) => {
      const heading = `## Section ${section}\n\n`;
      const [before, after] = read.text.split(heading);
      return {
        entry: { onto: read.version },
        request: { content: before + heading + sectionText(word, section, own) + after.slice(after.indexOf('\n') + 1) },
      };
    },
  });

const byCommand = (root, journal, page, word, section) => async (said) => {
  for (let tries = 0; ; ++tries) {
    const save = journal.begin({ said: `${said} try ${tries};` });
    const { code } = await ossilar(root, ['save', page, '--section', `Section ${section}`], sectionText(word, section, save.said));
    save.outcome = code === 0;
    save.ended = ++journal.time;
    if (save.outcome) return void ++journal.counts.acknowledged;
    ++journal.counts.overtaken;
    await sleep(20);
  }
};

// What goes on beside the savers, each again and again until they are done.
class Others {
  constructor({ roots }) {
    [this.root] = roots;
    this.other = roots.at(-1);
    this.goesOn = true;
    this.counts = { switches: 0, renamings: 0, refused_renamings: 0, repairs: 0, unfinished_repairs: 0 };
    this.written = [];
    this.failures = [];
  }

  start() {
    this.work = Promise.all([
      this.repeat(200, () => this.switchBranch()),
      this.repeat(100, () => this.rename()),
      this.repeat(150, () => this.repair()),
      this.repeat(30, () => this.writeByHand()),
    ]);
  }

  async repeat(pause, action) {
    while (this.goesOn) {
      await sleep(pause);
      await action();
    }
  }

  async end() {
    this.goesOn = false;
    await this.work;
  }

  note(args, result) {
    const isSwitched = /checkout was switched/.test(result.stderr);
    if (result.code !== 0 && result.code !== 1 && !isSwitched) this.failures.push(shown(args.join(' '), result));
    return result.code === 0;
  }

  // As a careful user does it: while nobody writes.
  async switchBranch() {
    const release = await holdWriteLock({ root: this.root });
    commitAll(this.root, 'wiki');
    gitIn(this.root)('checkout', '--quiet', BRANCHES[++this.counts.switches % 2]);
    await release();
  }

  async rename() {
    const ids = ['moving', 'moved'];
    const from = ids.findIndex((id) => fs.existsSync(join(this.other, 'wiki/pages', `${id}.md`)));
    if (from < 0) return;
    const args = ['rename', ids[from], ids[1 - from]];
    ++this.counts[this.note(args, await ossilar(this.other, args)) ? 'renamings' : 'refused_renamings'];
  }

  async repair() {
    const args = ['check', '--fix'];
    ++this.counts[this.note(args, await ossilar(this.root, args)) ? 'repairs' : 'unfinished_repairs'];
  }

  // At the end of the file as it is at that moment, as `>>` does.
  writeByHand() {
    const said = `by hand ${this.written.length};`;
    try {
      const fd = fs.openSync(join(this.root, 'wiki/pages/beta.md'), 'r+');
      fs.writeSync(fd, `${said}\n`, fs.fstatSync(fd).size);
      fs.closeSync(fd);
      this.written.push(said);
    } catch (error) {
      if (error.code !== 'ENOENT') throw error; // the branch is being switched
    }
  }
}

function historiesOf({ versions }) {
  return BRANCHES.flatMap((branch) => IDS.map((id) => ({ name: `${branch} ${id}`, versions: versions(branch, id) })));
}

for (const [store, how] of Object.entries(STORES)) {
  test(`everything at once over ${store}`, { skip: how.skip }, async (t) => {
    const world = await worldOf(t, how);
    const [root, other] = [world.roots[0], world.roots.at(-1)];
    const clients = await Promise.all([root, root, root, other, other].map((each) => lineClient(t, { server: { command: program, args: ['--repo', each, 'mcp'] } }, LATEST)));
    const journal = new Journal();
    const others = new Others(world);
    t.after(() => (others.goesOn = false));
    const writers = [
      byWholePage(clients[0], journal, 'alpha', 'alpha', 0),
      bySection(clients[1], journal, 'alpha', 'alpha', 1),
      byCommand(root, journal, 'alpha', 'alpha', 2),
      bySection(clients[3], journal, 'alpha', 'alpha', 3),
      byWholePage(clients[4], journal, 'alpha', 'alpha', 4),
      bySection(clients[2], journal, 'beta', 'beta', 0),
      bySection(clients[4], journal, 'moving', 'beta', 0),
      bySection(clients[0], journal, 'moving', 'beta', 1),
    ];
    others.start();
    await Promise.all(writers.map(async (save, i) => {
      for (let round = 0; round < ROUNDS; ++round) await save(`writer ${i} round ${round}`);
    }));
    await others.end();

    const found = [];
    for (const branch of BRANCHES.toReversed()) {
      commitAll(root, 'wiki');
      gitIn(root)('checkout', '--quiet', branch);
      await mustDo(root, ['check', '--fix']);
      await mustDo(root, ['check']);
      found.push(...Object.values(filesOf(root)));
    }
    const histories = historiesOf(world);
    found.push(...world.roots.flatMap(keptTexts), ...histories.flatMap(({ versions }) => versions.map(({ text }) => text)));
    const all = found.join('\n');
    const lost = others.written.filter((said) => !all.includes(said));
    const faults = faultsOfHistories(histories, journal.saves);
    t.diagnostic(
      `${store}: ${journal.summary()}; ${JSON.stringify(others.counts)}; ${others.written.length} lines by hand, ${lost.length} lost; ` +
        `${histories.reduce((sum, { versions }) => sum + versions.length, 0)} versions, ${faults.length} faults`,
    );
    assert.deepEqual(faults, []);
    assert.deepEqual(lost, []);
    assert.deepEqual(others.failures, []);
    assert.equal(journal.counts.acknowledged, writers.length * ROUNDS);
    assert.ok(others.counts.switches >= 2 && others.counts.renamings >= 2 && others.counts.repairs + others.counts.unfinished_repairs >= 2);
    if (other !== root) {
      await mustDo(other, ['check', '--fix']);
      await mustDo(root, ['check']);
      assert.deepEqual(filesOf(other), filesOf(root));
    }
  });
}
