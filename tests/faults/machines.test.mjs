// Four checkouts of one repository, a server on each, save one wiki over one database: sections of one page that all
// write, and pages of their own. Every acknowledged save is in the chain of versions, none is there twice, no page file
// ever holds a mixture, and in the end the checkouts have the same files. The same while the database is killed and
// started again.
//
// OSSILAR_SEED repeats the moments of a run; each prints its own.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import * as fs from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { postgresServer, withoutPostgres } from '../clients/postgres.mjs';
import { LATEST, lineClient, makeFolder, makeWiki, numbers, pageAbout, randomNumbers, sectionText } from '../clients/wiki.mjs';
import { faultsOfHistories, marksOf, mixedTexts } from './history.mjs';
import { Journal, saveOnto } from './savers.mjs';
import { filesOf, isFew, keptTexts, leftovers, ossilar, pageText, said as shown } from './sweep.mjs';

const MACHINES = numbers(4);
const SECTIONS = 20;
const SAVES = isFew ? 5 : 50; // of each machine: so many of the page that all write, and of its own
const KILLS = isFew ? 2 : 20;

const ownPage = (machine) => `own${machine}`;
const PAGES = ['alpha', ...MACHINES.map(ownPage)];

// A checkout for each machine, and the first text of the page that all write.
async function fourCheckouts(t, url) {
  const { root } = makeWiki(t);
  const own = MACHINES.map((i) => `[[page]]\nid = "${ownPage(i)}"\ntype = "module"\nsources = ["src/beta.cpp"]\n`).join('');
  const config = join(root, 'ossilar.toml');
  const settings = `[store]\nurl = "${url}"\n[history]\nversions = 1000\n`;
  fs.writeFileSync(config, settings + fs.readFileSync(config, 'utf8') + own);
  const git = (...args) => execFileSync('git', ['-c', 'user.name=t', '-c', 'user.email=t@example.org', ...args], { stdio: 'pipe' });
  git('-C', root, 'commit', '--quiet', '--no-gpg-sign', '--all', '--message=settings');
  const folder = makeFolder(t);
  const roots = MACHINES.map((i) => join(folder, `checkout${i}`));
  for (const checkout of roots) {
    git('clone', '--quiet', root, checkout);
    const begun = await ossilar(checkout, ['init']);
    assert.equal(begun.code, 0, shown('init', begun));
  }
  const first = await ossilar(roots[0], ['save', 'alpha'], pageAbout('alpha', SECTIONS, 'machine 0 begins;'));
  assert.equal(first.code, 0, shown('the first save', first));
  return roots;
}

async function saveSections(client, journal, machine) {
  for (let round = 0; round < SAVES || journal.goesOn; ++round) {
    const section = (round * 7 + machine) % SECTIONS;
    const heading = `Section ${section}`;
    await saveOnto(client, journal, 'alpha', `machine ${machine} round ${round}`, {
      requestFor: (read, said) => ({
        entry: { base: marksOf(read.text).get(heading) },
        request: { section: heading, content: sectionText('alpha', section, said) },
      }),
    });
  }
}

async function saveOwnPage(client, journal, machine) {
  for (let round = 0; round < SAVES || journal.goesOn; ++round) {
    await saveOnto(client, journal, ownPage(machine), `machine ${machine} own ${round}`, {
      requestFor: (read, said) => ({
        entry: { onto: read.version },
        request: { content: pageAbout('beta', 3, said) },
      }),
    });
  }
}

// All texts that the page files of all checkouts had while `until` was pending.
async function textsSeen(roots, until) {
  const seen = new Map(PAGES.map((page) => [page, new Set()]));
  let isOver = false;
  const ending = until.finally(() => (isOver = true));
  while (!isOver) {
    for (const root of roots)
      for (const page of PAGES) {
        const text = pageText(root, page);
        if (text !== null) seen.get(page).add(text);
      }
    await sleep(5);
  }
  await ending;
  return seen;
}

function versionsOf(server, page) {
  const query = `SELECT json_agg(json_build_object('version', version, 'text', text) ORDER BY number) FROM ossilar.page_versions WHERE branch = 'main' AND page_id = '${page}'`;
  return JSON.parse(server.sql('wiki', query));
}

// Each machine looks at its wiki, and then all files are compared.
async function assertSameFiles(roots) {
  for (const root of roots) {
    const looked = await ossilar(root, ['check']);
    assert.equal(looked.code, 0, shown('check', looked));
  }
  const [first, ...others] = roots.map(filesOf);
  assert.ok(Object.keys(first).length >= PAGES.length + 2, 'pages and lists');
  for (const files of others) assert.deepEqual(files, first);
  for (const root of roots) {
    assert.deepEqual(keptTexts(root), [], 'no hand wrote here');
    assert.deepEqual(leftovers(root), []);
  }
}

function assertReplayed(t, what, server, journal, seen) {
  // The first text of a page of its own is a step too: from no page.
  const before = (page) => (page === 'alpha' ? [] : [{ version: 'new', text: '' }]);
  const histories = PAGES.map((name) => ({ name, versions: [...before(name), ...versionsOf(server, name)] }));
  const faults = faultsOfHistories(histories, journal.saves);
  const mixed = histories.flatMap(({ name, versions }) => mixedTexts(seen.get(name), versions, journal.saves));
  const sum = (counts) => counts.reduce((a, b) => a + b, 0);
  t.diagnostic(
    `${what}: ${journal.summary()}; ${sum(histories.map(({ versions }) => versions.length))} versions, ` +
      `${sum([...seen.values()].map((texts) => texts.size))} texts of page files seen, ${mixed.length} mixed, ${faults.length} faults`,
  );
  const { acknowledged, unknown } = journal.counts;
  assert.ok(acknowledged + unknown >= 2 * SAVES * MACHINES.length, 'all saves came to their end');
  assert.deepEqual(faults, []);
  assert.deepEqual(mixed, []);
}

async function saveFromAll(t, roots, journal) {
  const clients = await Promise.all(roots.map((root) => lineClient(t, { server: serverOf(root) }, LATEST)));
  const work = clients.flatMap((client, machine) => [saveSections(client, journal, machine), saveOwnPage(client, journal, machine)]);
  const seen = await textsSeen(roots, Promise.all(work));
  for (const client of clients) assert.deepEqual(await client.end(), { code: 0, signal: null });
  return seen;
}

const serverOf = (root) => ({ command: process.env.OSSILAR_PROGRAM, args: ['--repo', root, 'mcp'] });

test('four machines save over one database', { skip: withoutPostgres() }, async (t) => {
  const server = await postgresServer(t);
  const roots = await fourCheckouts(t, server.createDatabase('wiki'));
  const journal = new Journal();
  const seen = await saveFromAll(t, roots, journal);
  await assertSameFiles(roots);
  assertReplayed(t, 'four machines', server, journal, seen);
  assert.deepEqual(journal.failures, [], 'the database was there all the time');
  assert.ok(journal.counts.raced * 10 <= journal.counts.acknowledged, 'machines take turns at a page');
});

test('four machines save while the database is killed and started again', { skip: withoutPostgres() }, async (t) => {
  const seed = Number(process.env.OSSILAR_SEED ?? Math.floor(Math.random() * 2 ** 31));
  t.diagnostic(`OSSILAR_SEED=${seed}`);
  const random = randomNumbers(seed);
  const server = await postgresServer(t);
  const roots = await fourCheckouts(t, server.createDatabase('wiki'));
  const journal = new Journal();
  journal.goesOn = true;
  let kills = 0;
  const killing = async () => {
    for (; journal.goesOn && kills < KILLS; ++kills) {
      await sleep(200 + random(1000));
      await server.kill();
      await sleep(random(500));
      await server.start();
    }
  };
  const killed = killing().finally(() => (journal.goesOn = false));
  const seen = await saveFromAll(t, roots, journal).finally(() => (journal.goesOn = false));
  await killed;
  await assertSameFiles(roots);
  assertReplayed(t, `${kills} kills of the database`, server, journal, seen);
  assert.equal(kills, KILLS);
  assert.ok(journal.counts.repeated > 0, 'saves were hit');
});
