// The client library of all revisions, which begins in either way.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { Client } from '@modelcontextprotocol/client';
import { StdioClientTransport } from '@modelcontextprotocol/client/stdio';
import { testSessions } from './session.mjs';
import { clientTerms } from './terms.mjs';
import { LATEST, LATEST_WITH_INITIALIZE, makeWiki, pageAbout } from './wiki.mjs';

const connect = (wiki, mode) =>
  clientTerms(
    new Client({ name: 'client', version: '1' }, { versionNegotiation: { mode } }),
    new StdioClientTransport({ ...wiki.server, stderr: 'ignore' }),
  );

testSessions('client with initialize', (wiki) => connect(wiki, 'legacy'));
testSessions('client without initialize', (wiki) => connect(wiki, 'auto'));

test('client: each way of beginning agrees on its revision', async (t) => {
  const wiki = makeWiki(t);
  for (const [mode, revision] of [
    ['legacy', LATEST_WITH_INITIALIZE],
    ['auto', LATEST],
    [{ pin: LATEST }, LATEST],
  ]) {
    const { client } = await connect(wiki, mode);
    assert.equal(client.getNegotiatedProtocolVersion(), revision);
    await client.close();
  }
});

test('client: a subscription that it closes is heard no more, another one is', async (t) => {
  const wiki = makeWiki(t);
  for (const id of ['alpha', 'beta']) wiki.save(id, pageAbout(id));
  const { client, call, onUpdated, errors } = await connect(wiki, 'auto');
  t.after(() => client.close());
  const heard = [];
  let tell;
  onUpdated((each) => {
    heard.push(each.params.uri);
    tell?.();
  });
  const [alpha, beta] = ['alpha', 'beta'].map((id) => `ossilar://pages/${id}`);
  const closed = await client.listen({ resourceSubscriptions: [alpha] });
  const open = await client.listen({ resourceSubscriptions: [beta], toolsListChanged: true });
  const honored = { resourceSubscriptions: [beta] };
  assert.deepEqual(open.honoredFilter, honored, 'what never happens is not promised');
  await closed.close();
  for (const id of ['alpha', 'beta']) {
    const told = new Promise((resolve) => (tell = resolve));
    await call({ name: 'save_page', arguments: { page_id: id, content: pageAbout(id, 3) } });
    if (id === 'beta') await told;
  }
  assert.deepEqual(heard, [beta]);
  assert.deepEqual(errors, []);
});
