// Many processes on one wiki, servers and `ossilar save`, and a checker that replays what they were answered: saves
// onto versions form one chain from the first version to the page as it is, and what was acknowledged is in its page or
// was replaced by a save that came after it.
//
// OSSILAR_RACE_ROUNDS says how many saves each writer makes.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import * as fs from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { isSaved, LATEST, lineClient, makeWiki, numbers, pageAbout, program, sectionText } from '../clients/wiki.mjs';
import { assertSound, ossilar } from './sweep.mjs';

const ROUNDS = Number(process.env.OSSILAR_RACE_ROUNDS ?? 12);

// What was saved where, in the order in which it happened: a save that began after another was answered comes after
// it, and of two that overlap either may come first.
class Journal {
  constructor() {
    this.time = 0;
    this.saves = [];
  }

  // Runs `save`, which gives true when it was acknowledged, false when it was refused, null when nobody knows.
  async record(place, said, save) {
    const entry = { place, said, began: ++this.time, outcome: null };
    this.saves.push(entry);
    entry.outcome = await save();
    entry.ended = ++this.time;
    return entry.outcome;
  }

  acknowledged() {
    return this.saves.filter((save) => save.outcome === true);
  }

  places() {
    return new Set(this.saves.map((save) => save.place));
  }

  // What is wrong with what is `found` at the place, as a text, or "".
  faultAt(place, found) {
    const here = this.saves.filter((save) => save.place === place);
    const last = here.find((save) => found.includes(save.said) && save.outcome !== false);
    const acknowledged = here.filter((save) => save.outcome === true);
    if (!last) return acknowledged.length === 0 ? '' : `${place}: none of its saves is in ${found}`;
    const lost = acknowledged.filter((save) => save.began > (last.ended ?? Infinity));
    return lost.map((save) => `${place}: "${last.said}" took the place of "${save.said}"`).join('\n');
  }
}

// The pages of this file are about the source that the first part of their id names.
const text = (page_id, section, said) => sectionText(page_id.split('/')[0], section, said);

// The writers. Each saves `said` once and gives what Journal.record() wants.
const bySession = (client, page_id, section) => async (said) => {
  const content = text(page_id, section, said);
  return isSaved(await client.call('save_page', { page_id, section: `Section ${section}`, content }));
};

const byCommand = (wiki, id, section) => async (said) => {
  const args = ['save', id, '--section', `Section ${section}`];
  return (await ossilar(wiki.root, args, text(id, section, said))).code === 0;
};

// Killed after a time that grows from round to round.
const byKilledCommand = (wiki, id, section) => async (said, round) => {
  const args = ['--repo', wiki.root, 'save', id, '--section', `Section ${section}`];
  const child = spawn(program, args, { stdio: ['pipe', 'ignore', 'ignore'] });
  child.stdin.on('error', () => {});
  child.stdin.end(text(id, section, said));
  const timer = setTimeout(() => child.kill('SIGKILL'), 7 * round);
  const [code] = await once(child, 'close');
  clearTimeout(timer);
  return code === null ? null : code === 0;
};

// Reads the page, changes its own section of it, and saves it whole onto the version that it read; again until no other
// came in between.
const byReadAndWrite = (client, page_id, section, chain) => async (said) => {
  for (;;) {
    const read = (await client.call('read_page', { page_id, part: 'authored' })).result.structuredContent;
    const heading = `## Section ${section}\n\n`;
    const [before, after] = read.text.split(heading);
    const content = before + heading + text(page_id, section, said) + after.slice(after.indexOf('\n') + 1);
    const reply = await client.call('save_page', { page_id, content, if_version: read.version });
    if (!isSaved(reply)) {
      assert.match(JSON.stringify(reply), /changed|being written/, 'another came in between');
      continue;
    }
    chain?.push([read.version, reply.result.structuredContent.version]);
    return true;
  }
};

// Every writer makes its saves one after the other, all writers at once.
async function race(writers) {
  const journal = new Journal();
  await Promise.all(
    writers.map(async ({ place, save }, writer) => {
      for (const round of numbers(ROUNDS)) {
        const said = `writer ${writer} round ${round};`;
        await journal.record(place, said, () => save(said, round));
      }
    }),
  );
  return journal;
}

const sectionOf = (page, section) => page.split(`## Section ${section}\n`)[1].split(/^## |^<!-- ossilar/m)[0];

// A place is "PAGE SECTION".
function lostOf(journal, wiki) {
  const faults = [...journal.places()].map((place) => {
    const [id, section] = place.split(' ');
    return journal.faultAt(place, sectionOf(wiki.page(id), section));
  });
  return faults.filter(Boolean);
}

function report(t, what, journal, pages, lost) {
  const refused = journal.saves.filter((save) => save.outcome === false).length;
  t.diagnostic(
    `${what}: ${pages} page(s), ${journal.saves.length} saves, ${journal.acknowledged().length} acknowledged, ` +
      `${refused} refused, ${lost.length} lost`,
  );
  assert.ok(journal.acknowledged().length >= ROUNDS, 'there are saves to replay');
  assert.deepEqual(lost, []);
}

const clientsOf = (t, wiki, count) => Promise.all(numbers(count).map(() => lineClient(t, wiki, LATEST)));

const versionOf = async (client, page_id) =>
  (await client.call('read_page', { page_id, part: 'authored' })).result.structuredContent.version;

// What is wrong with the saves `chain`, [version before, version after], from `first` to `last`.
function faultsOfChain(chain, first, last) {
  const next = new Map();
  const faults = [];
  for (const [before, after] of chain) {
    if (next.has(before)) faults.push(`${before} was saved onto twice`);
    next.set(before, after);
  }
  let at = first;
  let steps = 0;
  for (; next.has(at) && steps <= chain.length; ++steps) at = next.get(at);
  if (at !== last) faults.push(`the chain ends at ${at}, the page is ${last}`);
  if (steps !== chain.length) faults.push(`${chain.length - steps} acknowledged saves are not in the chain`);
  return faults;
}

test('the replay finds a save that is lost', () => {
  const rows = [
    ['one chain', [['a', 'b'], ['b', 'c']], 'c', 0],
    ['two saves onto one version', [['a', 'b'], ['a', 'c']], 'c', 2],
    ['a page that is not the last of the chain', [['a', 'b'], ['b', 'c']], 'b', 1],
  ];
  for (const [why, chain, last, faults] of rows) assert.equal(faultsOfChain(chain, 'a', last).length, faults, why);
  const journal = new Journal();
  journal.saves = [
    { place: 'p', said: 'one', began: 1, ended: 2, outcome: true },
    { place: 'p', said: 'two', began: 3, ended: 6, outcome: true },
    { place: 'p', said: 'three', began: 5, ended: 7, outcome: true },
    { place: 'p', said: 'four', began: 8, ended: 9, outcome: false },
  ];
  const found = ['one', 'two', 'three', 'four'].map((said) => journal.faultAt('p', said) !== '');
  assert.deepEqual(found, [true, false, false, true]);
});

test('saves onto versions, by servers of one page', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 4));
  const clients = await clientsOf(t, wiki, 4);
  const first = await versionOf(clients[0], 'alpha');
  const chain = [];
  const journal = await race(
    clients.map((client, i) => ({ place: `alpha ${i}`, save: byReadAndWrite(client, 'alpha', i, chain) })),
  );
  const lost = [...faultsOfChain(chain, first, await versionOf(clients[0], 'alpha')), ...lostOf(journal, wiki)];
  assert.equal(chain.length, 4 * ROUNDS);
  report(t, 'a chain of versions', journal, 1, lost);
  await assertSound(wiki);
});

test('servers, commands, and commands that are killed, on one page', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 6));
  const clients = await clientsOf(t, wiki, 3);
  const journal = await race([
    { place: 'alpha 0', save: byReadAndWrite(clients[0], 'alpha', 0) },
    { place: 'alpha 1', save: bySession(clients[1], 'alpha', 1) },
    { place: 'alpha 2', save: bySession(clients[2], 'alpha', 2) },
    { place: 'alpha 2', save: byCommand(wiki, 'alpha', 2) },
    { place: 'alpha 3', save: byCommand(wiki, 'alpha', 3) },
    { place: 'alpha 4', save: byKilledCommand(wiki, 'alpha', 4) },
  ]);
  report(t, 'one page', journal, 1, lostOf(journal, wiki));
  await assertSound(wiki);
});

// Every page of its own has a server and a command at work, while others repair what they find.
test('servers, commands, and repairs, on many pages', async (t) => {
  const wiki = makeWiki(t);
  const ids = ['alpha', 'beta', ...numbers(4).map((i) => `alpha/${i}`)];
  for (const id of ids.slice(2))
    fs.appendFileSync(join(wiki.root, 'ossilar.toml'), `[[page]]\nid = "${id}"\nsources = ["src/alpha.cpp"]\n`);
  for (const id of ids) wiki.save(id, pageAbout(id.split('/')[0], 3));
  const clients = await clientsOf(t, wiki, 2);
  const writers = ids.flatMap((id, i) => {
    const other = i % 3 === 0 ? byCommand(wiki, id, i % 2) : byReadAndWrite(clients[(i + 1) % 2], id, i % 2);
    return [
      { place: `${id} 0`, save: bySession(clients[i % 2], id, 0) },
      { place: `${id} ${i % 2}`, save: other },
    ];
  });
  let racing = true;
  t.after(() => (racing = false));
  const repair = async () => {
    const unsound = [];
    while (racing) {
      const { code, stdout } = await ossilar(wiki.root, ['check', '--fix']);
      if (code !== 0) unsound.push(stdout);
    }
    return unsound;
  };
  const repairs = repair();
  const journal = await race(writers);
  racing = false;
  assert.deepEqual(await repairs, []);
  report(t, 'many pages', journal, ids.length, lostOf(journal, wiki));
  await assertSound(wiki);
});

// The source grows at its top all the time, so citations move while others write the sentences around them.
test('a sync beside eight savers of one page', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 8));
  const clients = await clientsOf(t, wiki, 3);
  const savers = [
    ...numbers(2).map((i) => byReadAndWrite(clients[0], 'alpha', i)),
    ...numbers(4).map((i) => bySession(clients[1 + (i % 2)], 'alpha', 2 + i)),
    ...numbers(2).map((i) => byCommand(wiki, 'alpha', 6 + i)),
  ];
  let racing = true;
  t.after(() => (racing = false));
  const follow = async () => {
    const counts = { synced: 0, refused: 0 };
    for (let round = 0; racing; ++round) {
      const source = join(wiki.root, 'src/alpha.cpp');
      fs.writeFileSync(`${source}~`, `int new${round}();\n${fs.readFileSync(source, 'utf8')}`);
      fs.renameSync(`${source}~`, source);
      const { code, stdout, stderr } = await ossilar(wiki.root, ['--json', 'sync']);
      assert.equal(code, 0, stderr);
      for (const page of JSON.parse(stdout).pages) counts[page.refused ? 'refused' : 'synced'] += 1;
    }
    return counts;
  };
  const following = follow();
  const journal = await race(savers.map((save, i) => ({ place: `alpha ${i}`, save })));
  racing = false;
  const { synced, refused } = await following;
  t.diagnostic(`a sync: ${synced} written, ${refused} refused because another came in between`);
  report(t, 'a sync beside savers', journal, 1, lostOf(journal, wiki));
  const last = JSON.parse((await ossilar(wiki.root, ['--json', 'sync'])).stdout).pages;
  // On a slow machine a saver may come in between each time.
  assert.ok(synced + last.filter((page) => !page.refused).length > 0, 'citations were followed');
  const { pages } = JSON.parse((await ossilar(wiki.root, ['--json', 'sync', '--dry-run'])).stdout);
  assert.deepEqual(pages, [], 'nothing is left to follow');
  await assertSound(wiki);
});

// Edits by hand, in place and by rename, while sessions save the page: wherever each edit lands, its words are in the
// page, or kept below .ossilar/replaced.
const HAND_EDITS = 200;

const editInPlace = (file, said) => {
  const fd = fs.openSync(file, 'r+');
  fs.writeSync(fd, `${said}\n`, fs.fstatSync(fd).size);
  fs.closeSync(fd);
};

const editByRename = (file, said) => {
  const aside = `${file}~`;
  fs.writeFileSync(aside, `${fs.readFileSync(file, 'utf8')}${said}\n`);
  fs.renameSync(aside, file);
};

// Everything in which a user could find an edit.
function textsOf(wiki) {
  const kept = join(wiki.root, '.ossilar/replaced');
  const names = fs.existsSync(kept) ? fs.readdirSync(kept, { recursive: true, withFileTypes: true }) : [];
  const files = names.filter((entry) => entry.isFile()).map((entry) => join(entry.parentPath, entry.name));
  return [wiki.page('alpha'), ...files.map((file) => fs.readFileSync(file, 'utf8'))].join('\n');
}

test('edits by hand while others save', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 4));
  const file = join(wiki.root, 'wiki/pages/alpha.md');
  const clients = await clientsOf(t, wiki, 2);
  let editing = true;
  t.after(() => (editing = false));
  const counts = { saved: 0, refused: 0 };
  const saves = clients.map(async (client, writer) => {
    const save = bySession(client, 'alpha', writer);
    for (let round = 0; editing; ++round)
      (await save(`writer ${writer} round ${round};`)) ? ++counts.saved : ++counts.refused;
  });
  // Saves that are slower than the edits, as with sanitizers, would all be refused. A minute is long enough.
  const savedSince = async (before) => {
    for (let waited = 0; counts.saved === before && waited < 60_000; waited += 5) await sleep(5);
  };
  const edits = numbers(HAND_EDITS).map((i) => `by hand ${i};`);
  for (const [i, said] of edits.entries()) {
    (i % 2 === 0 ? editInPlace : editByRename)(file, said);
    await sleep(3 + (i % 7));
    if (i % 10 === 9) await savedSince(counts.saved);
  }
  editing = false;
  await Promise.all(saves);
  const found = textsOf(wiki);
  const lost = edits.filter((said) => !found.includes(said));
  const inPage = edits.filter((said) => wiki.page('alpha').includes(said)).length;
  t.diagnostic(
    `${edits.length} edits, ${inPage} in the page, ${edits.length - inPage - lost.length} kept, ${lost.length} lost; ` +
      `${counts.saved} saves, ${counts.refused} refused`,
  );
  assert.ok(counts.saved >= ROUNDS, 'there were saves between the edits');
  assert.deepEqual(lost, []);
  await assertSound(wiki);
});
