// Several agents share one wiki: each claims a page, writes it, and takes the next.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { isSaved, LATEST, LATEST_WITH_INITIALIZE, lineClient, makeWiki, numbers, pageAbout } from './wiki.mjs';
import { serveHttp, beginSession, post } from './http.mjs';

const PAGES = 40;
const AGENTS = 6;

const OF_THE_FOLDER = ['overview', 'architecture', 'src'];
const SUMMING_UP = ['overview', 'architecture'];

// An empty wiki of forty pages: a page for each source, and three for the folder.
const makeLargeWiki = (t) =>
  makeWiki(t, {
    words: numbers(PAGES - OF_THE_FOLDER.length).map((i) => `word${i}`),
  });

const textAbout = (id, word = 'word0') => pageAbout(OF_THE_FOLDER.includes(id) ? word : id);
const document = (reply) => reply.result.structuredContent;
const notes = (reply) => reply.result.content.slice(1).map((block) => block.text);

// Works as the prompt write-wiki says, and gives what it was given and what became of it.
async function work(call) {
  const done = [];
  for (;;) {
    const claim = document(await call('claim_page', {}));
    if (!claim.claimed) return { done, why: claim.why };
    const context = JSON.parse((await call('page_context', { page_id: claim.page_id })).result.content[0].text);
    const saved = await call('save_page', {
      page_id: claim.page_id,
      content: textAbout(claim.page_id),
      if_version: context.version,
    });
    done.push({ id: claim.page_id, isNew: context.version === 'new', isSaved: isSaved(saved), notes: notes(saved) });
  }
}

async function assertShared(t, agents, status) {
  const results = await Promise.all(agents.map(work));
  const done = results.flatMap((result) => result.done);
  assert.equal(done.length, PAGES, 'no page was given twice');
  assert.equal(new Set(done.map((each) => each.id)).size, PAGES, 'each was given');
  assert.deepEqual(done.filter((each) => !each.isNew || !each.isSaved), [], 'no work is thrown away');
  assert.deepEqual(done.flatMap((each) => each.notes.filter((note) => note.startsWith('Warning'))), []);
  for (const { why } of results) assert.match(why, /claimed|complete/);
  const after = document(await status());
  assert.deepEqual([after.pages.missing, after.pages.stale], [0, 0]);
  assert.deepEqual(after.claims, [], 'a save gives the page back');
  t.diagnostic(`pages of each agent: ${results.map((result) => result.done.length).join(' ')}`);
}

test(`${AGENTS} processes share an empty wiki of ${PAGES} pages: each page is written once`, async (t) => {
  const wiki = makeLargeWiki(t);
  const clients = await Promise.all(
    numbers(AGENTS).map((i) => lineClient(t, wiki, i % 2 ? LATEST : LATEST_WITH_INITIALIZE)),
  );
  const call = (client) => (name, args) => client.call(name, args);
  await assertShared(t, clients.map(call), () => clients[0].call('wiki_status', {}));
});

test(`${AGENTS} sessions of one server share it too`, async (t) => {
  const wiki = makeLargeWiki(t);
  const { url, end } = await serveHttp(t, wiki);
  const agents = await Promise.all(
    numbers(AGENTS).map(async () => {
      const headers = await beginSession(url, LATEST_WITH_INITIALIZE);
      return async (name, args) =>
        (await post(url, { id: 1, method: 'tools/call', params: { name, arguments: args } }, headers)).json();
    }),
  );
  await assertShared(t, agents, () => agents[0]('wiki_status', {}));
  await end();
});

test('a page is held, prolonged, given back, and those that sum up come last', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('src', textAbout('src', 'alpha'));
  const [one, two] = await Promise.all(numbers(2).map(() => lineClient(t, wiki, LATEST_WITH_INITIALIZE)));
  const claim = async (client, args = {}) => document(await client.call('claim_page', args));
  const given = [await claim(one), await claim(two)];
  assert.deepEqual(
    given.map((each) => [each.page_id, each.claimed, each.state, each.unwritten]),
    [['alpha', true, 'missing', 4], ['beta', true, 'missing', 4]],
  );
  assert.notEqual(given[0].holder, given[1].holder, 'two sessions of one client are two holders');

  const none = await claim(two);
  assert.deepEqual([none.claimed, none.page_id, none.claims], [false, undefined, 2]);
  assert.match(none.why, /all pages that can be written now are claimed; the first claim ends at 20/);
  const held = await claim(two, { page_id: 'alpha' });
  assert.deepEqual([held.claimed, held.until], [false, given[0].until]);
  assert.match(held.why, new RegExp(`another has claimed it: lines \\(${given[0].holder}\\) until`));
  const longer = await claim(one, { page_id: 'alpha', minutes: 240 });
  assert.ok(longer.claimed && longer.until > given[0].until, longer.until);

  const { claims } = document(await two.call('wiki_status', {}));
  assert.deepEqual(
    claims.map((each) => [each.page_id, each.client, each.holder]),
    [['alpha', 'lines', given[0].holder], ['beta', 'lines', given[1].holder]],
  );

  // A claim is advice: the save of another goes through, and is told so.
  const others = await two.call('save_page', { page_id: 'alpha', content: textAbout('alpha') });
  assert.ok(isSaved(others));
  assert.match(notes(others).join('\n'), /Warning: lines \([0-9a-f]{8}\) until .* has claimed this page/);
  const named = await two.call('save_page', {
    page_id: 'alpha',
    content: textAbout('alpha'),
    holder: given[0].holder,
  });
  assert.doesNotMatch(notes(named).join('\n'), /Warning/, 'the holder by its name');

  await claim(one, { page_id: 'overview' });
  assert.deepEqual((await claim(two, { release: true, page_id: 'overview' })).released, [], 'not its own');
  assert.deepEqual((await claim(one, { release: true })).released, ['overview'], 'alpha was freed by its save');
  assert.equal((await claim(two)).claimed, false, 'beta is not written');
  assert.ok(isSaved(await two.call('save_page', { page_id: 'beta', content: textAbout('beta') })));
  assert.ok(SUMMING_UP.includes((await claim(two)).page_id));
  const nowhere = await one.call('claim_page', { page_id: 'alhpa' });
  assert.deepEqual([nowhere.result.isError, document(nowhere).similar[0]], [true, 'alpha']);
});
