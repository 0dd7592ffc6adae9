// Many saves of one page in flight at once: every one that is acknowledged is in the page.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { isSaved, LATEST, LATEST_WITH_INITIALIZE, lineClient } from './wiki.mjs';
import { makeWiki, numbers, pageAbout, sectionText } from './wiki.mjs';

const KEPT_CHANGING = 'kept changing';

const saveSection = (client, i, said) =>
  client.call('save_page', {
    page_id: 'alpha',
    section: `Section ${i}`,
    content: sectionText('alpha', i, said),
  });

function assertInPage(wiki, said) {
  const page = wiki.page('alpha');
  const lost = said.filter((text) => !page.includes(text));
  assert.deepEqual(lost, [], 'what was acknowledged is in the page');
}

for (const revisions of [[LATEST_WITH_INITIALIZE], [LATEST], [LATEST_WITH_INITIALIZE, LATEST]]) {
  test(`20 saves in flight at each server of ${revisions}: all acknowledged, all kept`, async (t) => {
    const wiki = makeWiki(t);
    const sections = numbers(20 * revisions.length);
    wiki.save('alpha', pageAbout('alpha', sections.length));
    const clients = await Promise.all(revisions.map((revision) => lineClient(t, wiki, revision)));
    const replies = await Promise.all(
      sections.map((i) => saveSection(clients[i % clients.length], i, `writer ${i}.`)),
    );
    assert.deepEqual(replies.filter((reply) => !isSaved(reply)), [], 'every save is acknowledged');
    assertInPage(wiki, sections.map((i) => `writer ${i}.`));
  });
}

// Each server is a process of its own and saves one section after the other, as an agent does.
test('8 servers, 25 saves each of one page: fewer than 1 in 100 is told that it kept changing', async (t) => {
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
  assert.equal(refused.length, changing.length, 'there is no other refusal');
  assert.ok(changing.length * 100 < replies.length, `${changing.length} of ${replies.length}`);
  const last = results.map((own, i) => `writer ${i} round ${own.findLastIndex(isSaved)}.`);
  assertInPage(wiki, last);
});
