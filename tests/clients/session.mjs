// What an agent's client does in a session, whichever library it is made with.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { holdWriteLock, makeWiki, pageAbout, sectionText, TOOLS } from './wiki.mjs';

const PAGE = 'ossilar://pages/alpha';

// Arguments with which each tool succeeds on a wiki whose page alpha is saved, in the order in which the server
// lists its tools: the renamed page is the one that is removed.
const ARGUMENTS = {
  affected: {},
  check_page: { page_id: 'alpha', content: pageAbout('alpha') },
  check_wiki: { only: ['stale', 'citations'] },
  claim_page: { page_id: 'alpha', minutes: 1 },
  compare_versions: { page_id: 'alpha' },
  confirm_page: { page_id: 'alpha' },
  find_citations: { path: 'src/alpha.cpp' },
  find_symbol: { name: 'alpha' },
  list_pages: {},
  page_context: { page_id: 'alpha', focus: ['src/alpha.cpp'] },
  page_history: { page_id: 'alpha' },
  read_page: { page_id: 'alpha' },
  read_source: { path: 'src/alpha.cpp:L2-L4' },
  remove_page: { page_id: 'beta' },
  rename_page: { page_id: 'alpha', new_id: 'beta' },
  restore_page: { page_id: 'alpha', version: '1' },
  save_page: { page_id: 'alpha', content: pageAbout('alpha') },
  search_wiki: { query: 'alpha' },
  sync_pages: {},
  wiki_status: {},
};

const WRITING = ['claim_page', 'confirm_page', 'remove_page', 'rename_page', 'restore_page', 'save_page', 'sync_pages'];

// Gives its document once, as text, unless it is asked for structured content.
const TEXT_ONCE = 'page_context';

const names = (list) => list.map((each) => each.name);

// `connect(wiki, t)` gives a session in the terms of this file: the library's client and what libraries do in
// different ways (call, onUpdated, subscribe), and the errors that the library reported.
export function testSessions(library, connect) {
  const session = (what, run) =>
    test(`${library}: ${what}`, async (t) => {
      const wiki = makeWiki(t);
      wiki.save('alpha', pageAbout('alpha'));
      const made = await connect(wiki, t);
      t.after(() => made.client.close());
      await run(made, wiki);
      assert.deepEqual(made.errors, [], 'the library has nothing to complain about');
    });

  session('lists what there is', async ({ client }) => {
    const { tools } = await client.listTools();
    for (const name of TOOLS) assert.ok(names(tools).includes(name), name);
    for (const tool of tools) {
      assert.equal(tool.annotations.readOnlyHint, !WRITING.includes(tool.name), tool.name);
      assert.ok(tool.title && tool.description, tool.name);
    }
    assert.deepEqual(names((await client.listResources()).resources), ['alpha']);
    const { resourceTemplates } = await client.listResourceTemplates();
    assert.deepEqual(names(resourceTemplates), ['page', 'section', 'draft']);
    assert.deepEqual(names((await client.listPrompts()).prompts), ['write-page', 'refresh-stale', 'write-wiki']);
    assert.equal(client.getServerVersion().name, 'ossilar');
    assert.match(client.getInstructions(), /save_page/);
  });

  // The library holds each structured result against the tool's schema, once it has listed the tools.
  session('calls every tool', async ({ client, call }) => {
    const { tools } = await client.listTools();
    for (const { name } of tools) {
      assert.ok(ARGUMENTS[name], `this table has arguments for ${name}`);
      const result = await call({ name, arguments: ARGUMENTS[name] });
      assert.ok(!result.isError, JSON.stringify(result));
      assert.equal(result.structuredContent !== undefined, name !== TEXT_ONCE, name);
    }
    const asked = await call({ name: TEXT_ONCE, arguments: { ...ARGUMENTS[TEXT_ONCE], structured: true } });
    assert.deepEqual(asked.structuredContent, JSON.parse(asked.content[0].text));
  });

  const REFUSED = [
    ['too few citations', 'save_page', { page_id: 'alpha', content: 'none' }, /0 valid citation/],
    ['no section', 'save_page', { page_id: 'alpha', section: 'Nope', content: 'x' }, /no section 'Nope'/],
    ['no such page', 'page_context', { page_id: 'alfa' }, /alfa/],
    ['not written yet', 'read_page', { page_id: 'beta' }, /not written yet/],
    ['no page id', 'rename_page', { page_id: 'alpha', new_id: '../x' }, /no page id/],
    ['not stored', 'remove_page', { page_id: 'beta' }, /not written yet/],
    ['changed since', 'remove_page', { page_id: 'alpha', if_version: 'old' }, /no longer version/],
    ['a wrong type', 'list_pages', { limit: 'x' }, /limit/],
    ['an argument is missing', 'save_page', { page_id: 'alpha' }, /content/],
  ];
  session('reads why a call is refused', async ({ client, call }, wiki) => {
    await client.listTools();
    const before = wiki.page('alpha');
    for (const [why, tool, given, says] of REFUSED) {
      const result = await call({ name: tool, arguments: given });
      assert.equal(result.isError, true, why);
      assert.match(result.content[0].text, says, why);
    }
    assert.equal(wiki.page('alpha'), before);
    await assert.rejects(call({ name: 'nope', arguments: {} }), { code: -32602 });
  });

  // A text that was cut inside a character: JSON can express it, UTF-8 cannot.
  session('is told that a text is not UTF-8', async ({ call }) => {
    const cut = { page_id: 'alpha', content: `${pageAbout('alpha')}\ud83d` };
    await assert.rejects(call({ name: 'save_page', arguments: cut }), { code: -32700 });
  });

  session('saves a page and reads it back', async ({ client, call }, wiki) => {
    const given = { page_id: 'beta', content: pageAbout('beta') };
    const saved = await call({ name: 'save_page', arguments: given });
    assert.ok(saved.structuredContent.saved, JSON.stringify(saved));
    const { contents } = await client.readResource({ uri: 'ossilar://pages/beta' });
    assert.equal(contents[0].text, wiki.page('beta'));
    const section = await client.readResource({ uri: 'ossilar://pages/beta#Section%201' });
    assert.match(section.contents[0].text, /^## Section 1\n/);
    const read = await call({ name: 'read_page', arguments: { page_id: 'beta', part: 'authored' } });
    assert.equal(read.structuredContent.text, pageAbout('beta'));
    await assert.rejects(client.readResource({ uri: 'ossilar://pages/nope' }), /no resource/);
  });

  session('tells who changed a page, and brings the former text back', async ({ client, call }, wiki) => {
    const before = wiki.page('alpha');
    await call({ name: 'save_page', arguments: { page_id: 'alpha', content: pageAbout('alpha', 2, 'second') } });
    const { structuredContent: history } = await call({ name: 'page_history', arguments: { page_id: 'alpha' } });
    assert.deepEqual(history.versions.map((each) => [each.number, each.client]), [
      [2, library.split(' ')[0]],
      [1, 'shell'],
    ]);
    const { structuredContent: compared } = await call({
      name: 'compare_versions',
      arguments: { page_id: 'alpha' },
    });
    assert.match(compared.diff, /^-first .*\n/m);
    assert.match(compared.diff, /^\+second .*\n/m);
    const given = { page_id: 'alpha', version: history.versions[1].version };
    const { structuredContent: restored } = await call({ name: 'restore_page', arguments: given });
    assert.ok(restored.saved, JSON.stringify(restored));
    assert.equal(wiki.page('alpha'), before);
    const missing = await call({ name: 'restore_page', arguments: { ...given, version: '9' } });
    assert.ok(missing.isError && missing.structuredContent.versions.length === 3, JSON.stringify(missing));
  });

  session('renames a page, whose former id leads to it, and removes it', async ({ client, call }, wiki) => {
    const { structuredContent: before } = await call({ name: 'read_page', arguments: { page_id: 'alpha' } });
    const given = { page_id: 'alpha', new_id: 'beta', if_version: before.version };
    const { structuredContent: renamed } = await call({ name: 'rename_page', arguments: given });
    assert.deepEqual([renamed.page_id, renamed.former_id], ['beta', 'alpha']);
    const { structuredContent: next } = await call({ name: 'list_pages', arguments: {} });
    const stored = next.pages.filter((page) => page.state !== 'missing');
    assert.deepEqual(stored.map((page) => page.page_id), ['beta']);
    // The plan still has alpha, so that it can be written anew.
    assert.ok(next.pages.some((page) => page.page_id === 'alpha' && page.state === 'missing'));
    assert.deepEqual(names((await client.listResources()).resources), ['beta']);
    const { contents } = await client.readResource({ uri: 'ossilar://pages/beta' });
    assert.equal(contents[0].text, wiki.page('beta'));
    const forgetting = { page_id: 'beta', if_version: renamed.version };
    const { structuredContent: removed } = await call({ name: 'remove_page', arguments: forgetting });
    assert.ok(removed.removed && removed.kept.startsWith('.ossilar/replaced/'), JSON.stringify(removed));
    assert.deepEqual((await client.listResources()).resources, []);
  });

  session('hears of a page that it or another process saves', async (made, wiki) => {
    await made.subscribe(PAGE);
    const savers = {
      itself: (content) => made.call({ name: 'save_page', arguments: { page_id: 'alpha', content } }),
      'another process': (content) => wiki.save('alpha', content),
    };
    for (const [who, save] of Object.entries(savers)) {
      const updated = new Promise((resolve) => made.onUpdated(resolve));
      await save(pageAbout('alpha', 2, who));
      assert.equal((await updated).params.uri, PAGE, who);
    }
  });

  session('completes page ids and headings', async ({ client }) => {
    const complete = async (name, value, chosen) => {
      const ref = { type: 'ref/prompt', name: 'write-page' };
      const context = chosen ? { arguments: chosen } : undefined;
      return (await client.complete({ ref, argument: { name, value }, context })).completion.values;
    };
    assert.deepEqual(await complete('page_id', 'al'), ['alpha']);
    assert.ok((await complete('page_id', '')).length > 2);
    assert.deepEqual(await complete('section', 'SEC', { page_id: 'alpha' }), ['Section 0', 'Section 1']);
    assert.deepEqual(await complete('section', '1', { page_id: 'alpha' }), ['Section 1']);
    const ref = { type: 'ref/resource', uri: 'ossilar://pages/{+page_id}' };
    const ids = await client.complete({ ref, argument: { name: 'page_id', value: 'bet' } });
    assert.deepEqual(ids.completion.values, ['beta']);
  });

  session('gets prompts', async ({ client }) => {
    const text = async (name, given) => {
      const { messages } = await client.getPrompt({ name, arguments: given });
      assert.deepEqual(messages.map((each) => each.role), ['user']);
      return messages[0].content.text;
    };
    assert.match(await text('write-page', { page_id: 'beta' }), /src\/beta\.cpp/);
    assert.match(await text('write-page', { page_id: 'alpha', section: 'Section 1' }), /Section 1/);
    assert.match(await text('refresh-stale', {}), /No page of the wiki is stale/);
    await assert.rejects(client.getPrompt({ name: 'nope' }), { code: -32602 });
  });

  session('is told of progress when it asks', async ({ call }) => {
    const steps = [];
    const save = { name: 'save_page', arguments: { page_id: 'alpha', content: pageAbout('alpha', 3) } };
    await call(save, { onprogress: (step) => steps.push(step) });
    assert.ok(steps.length >= 2, JSON.stringify(steps));
    assert.ok(steps.every((step, i) => step.message && (i === 0 || step.progress > steps[i - 1].progress)));
  });

  session('cancels a save that waits, and nothing of it is saved', async ({ call }, wiki) => {
    const release = await holdWriteLock(wiki);
    const abort = new AbortController();
    const waits = (step) => step.message.includes('lock') && abort.abort('enough');
    const given = { page_id: 'alpha', section: 'Section 0', content: sectionText('alpha', 0, 'cancelled') };
    await assert.rejects(
      call({ name: 'save_page', arguments: given }, { signal: abort.signal, onprogress: waits }),
      /enough/,
    );
    await call({ name: 'wiki_status', arguments: {} }); // whose answer says that the server has read on
    await release();
    // The next save of the page comes after whatever the cancelled one does.
    const next = { page_id: 'alpha', section: 'Section 1', content: sectionText('alpha', 1, 'kept') };
    assert.ok(!(await call({ name: 'save_page', arguments: next })).isError);
    assert.ok(!wiki.page('alpha').includes('cancelled'), wiki.page('alpha'));
    assert.ok(wiki.page('alpha').includes('kept'));
  });
}
