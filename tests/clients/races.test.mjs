// Many saves of one page in flight at once: every one that is acknowledged is in the page.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { LATEST, LATEST_WITH_INITIALIZE, lineClient, makeWiki, pageAbout, sectionText } from './wiki.mjs';

const KEPT_CHANGING = 'kept changing';

const saveSection = (client, i, said) =>
  client.call('save_page', {
    page_id: 'alpha',
    section: `Section ${i}`,
    content: sectionText('alpha', i, said),
  });

const isSaved = (reply) =>
  reply.result?.isError !== true && reply.result?.structuredContent?.saved !== undefined;

function assertAllSaved(replies) {
  const refused = replies.filter((reply) => !isSaved(reply));
  assert.deepEqual(refused, [], 'every save is acknowledged');
}

function assertInPage(wiki, said) {
  const page = wiki.page('alpha');
  const lost = said.filter((text) => !page.includes(text));
  assert.deepEqual(lost, [], 'what was acknowledged is in the page');
}

const numbers = (count) => Array.from({ length: count }, (_, i) => i);

test('20 saves of 20 sections in flight at one server: 20 acknowledged, 20 kept', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 20));
  for (const revision of [LATEST_WITH_INITIALIZE, LATEST]) {
    const client = await lineClient(t, wiki, revision);
    assertAllSaved(
      await Promise.all(numbers(20).map((i) => saveSection(client, i, `${revision} says ${i}.`))),
    );
    assertInPage(
      wiki,
      numbers(20).map((i) => `${revision} says ${i}.`),
    );
    await client.end();
  }
});

test('20 saves each at two servers of one wiki: 40 acknowledged, 40 kept', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 40));
  const clients = [await lineClient(t, wiki, LATEST_WITH_INITIALIZE), await lineClient(t, wiki, LATEST)];
  assertAllSaved(await Promise.all(numbers(40).map((i) => saveSection(clients[i % 2], i, `writer ${i}.`))));
  assertInPage(
    wiki,
    numbers(40).map((i) => `writer ${i}.`),
  );
});

// Each server is a process of its own and saves one section after the other, as an agent does.
test('8 servers, 25 saves each of one page: hardly any is told that it kept changing', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha', 8));
  const clients = await Promise.all(numbers(8).map(() => lineClient(t, wiki, LATEST)));
  const rounds = numbers(25);
  const results = await Promise.all(
    clients.map(async (client, i) => {
      const replies = [];
      for (const round of rounds) replies.push(await saveSection(client, i, `writer ${i} round ${round}.`));
      return replies;
    }),
  );
  const replies = results.flat();
  const refused = replies.filter((reply) => !isSaved(reply));
  const changing = refused.filter((reply) => JSON.stringify(reply).includes(KEPT_CHANGING));
  t.diagnostic(`${changing.length} of ${replies.length} saves were told that the page kept changing`);
  assert.deepEqual(
    refused.filter((reply) => !changing.includes(reply)),
    [],
    'there is no other refusal',
  );
  assert.ok(changing.length * 100 < replies.length, `${changing.length} of ${replies.length}`);
  const last = results.map((own, i) => `writer ${i} round ${own.findLastIndex(isSaved)}.`);
  assertInPage(wiki, last);
});
