// Every line that a server sends in a long session, held against the protocol's own schemas.
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { test } from 'node:test';
import Ajv2020 from 'ajv/dist/2020.js';
import addFormats from 'ajv-formats';
import { LATEST, LATEST_WITH_INITIALIZE, lineClient, makeWiki } from './wiki.mjs';
import { pageAbout, sectionText, TOOLS } from './wiki.mjs';

const RESULTS = {
  initialize: 'InitializeResult',
  ping: 'EmptyResult',
  'server/discover': 'DiscoverResult',
  'tools/list': 'ListToolsResult',
  'tools/call': 'CallToolResult',
  'resources/list': 'ListResourcesResult',
  'resources/templates/list': 'ListResourceTemplatesResult',
  'resources/read': 'ReadResourceResult',
  'resources/subscribe': 'EmptyResult',
  'resources/unsubscribe': 'EmptyResult',
  'prompts/list': 'ListPromptsResult',
  'prompts/get': 'GetPromptResult',
  'completion/complete': 'CompleteResult',
  'logging/setLevel': 'EmptyResult',
  'subscriptions/listen': 'SubscriptionsListenResult',
};

const NOTIFICATIONS = {
  'notifications/resources/updated': 'ResourceUpdatedNotification',
  'notifications/resources/list_changed': 'ResourceListChangedNotification',
  'notifications/progress': 'ProgressNotification',
  'notifications/message': 'LoggingMessageNotification',
  'notifications/subscriptions/acknowledged': 'SubscriptionsAcknowledgedNotification',
};

function validator(revision) {
  const ajv = new Ajv2020({ strict: false, allErrors: true });
  addFormats(ajv);
  const file = new URL(`schemas/${revision}.json`, import.meta.url);
  ajv.addSchema(JSON.parse(readFileSync(file, 'utf8')), 'schema');
  return (name, value, about) => {
    const validate = ajv.getSchema(`schema#/$defs/${name}`);
    assert.ok(validate, `the schema of ${revision} has ${name}`);
    const isValid = validate(value);
    assert.ok(isValid, `${about}: no ${name}: ${ajv.errorsText(validate.errors)}\n${JSON.stringify(value)}`);
  };
}

// Which definition a message must fit, and the part of it that must.
function checkMessage(check, client, message) {
  if (message.method) return check(NOTIFICATIONS[message.method], message, message.method);
  const request = client.sent.get(message.id);
  const about = request ? request.method : 'no request';
  if (message.error) return check('JSONRPCErrorResponse', message, about);
  check('JSONRPCResultResponse', message, about);
  return check(RESULTS[request.method], message.result, about);
}

// The structured result of each tool against the tool's own schema.
function checkStructured(client, message, tools) {
  const request = client.sent.get(message.id);
  if (request?.method !== 'tools/call' || !message.result) return 0;
  const tool = tools.find((each) => each.name === request.params.name);
  const structured = message.result.structuredContent;
  if (tool.outputSchema === undefined) {
    assert.equal(structured, undefined, `${tool.name} was not asked for structured content`);
    return 0;
  }
  if (structured === undefined) {
    assert.ok(message.result.isError, `${tool.name} gave no structured result`);
    return 0;
  }
  const ajv = new Ajv2020({ strict: true, allErrors: true });
  assert.ok(ajv.validate(tool.outputSchema, structured), `${tool.name}: ${ajv.errorsText()}`);
  assert.deepEqual(JSON.parse(message.result.content[0].text), structured, 'the text says the same');
  return 1;
}

// The tool that gives its document as text alone.
const TEXT_ONCE = 'page_context';
const PAGE = 'ossilar://pages/alpha';

const call = (name, args = {}) => ['tools/call', { name, arguments: args }];
const callWithMeta = (name, args, _meta) => ['tools/call', { name, arguments: args, _meta }];
const complete = (prompt, name, value, context) => [
  'completion/complete',
  { ref: { type: 'ref/prompt', name: prompt }, argument: { name, value }, context },
];
const ALPHA = { page_id: 'alpha' };
const SECTION = { page_id: 'alpha', section: 'Section 1' };

// All that there is to ask, well and badly; every row is one request, in order.
const COMMON = [
  ['tools/list'],
  call('list_pages'),
  call('list_pages', { state: 'missing', limit: 1 }),
  call('list_pages', { limit: 'many' }),
  call('page_context', ALPHA),
  call('read_source', { path: 'src/alpha.cpp', budget: 100 }),
  call('read_source', { symbol: 'nope' }),
  call('find_symbol', { name: 'alpha' }),
  call('check_wiki', { ignore: ['stale'] }),
  call('page_context', { page_id: 'nope' }),
  call('save_page', { ...ALPHA, content: 'no citation' }),
  call('save_page', { ...ALPHA, content: pageAbout('alpha') }),
  call('save_page', { ...ALPHA, content: pageAbout('alpha'), if_version: 'old' }),
  call('save_page', { ...ALPHA, section: 'Nope', content: 'x' }),
  call('save_page', { ...SECTION, content: sectionText('alpha', 1, 'new') }),
  call('save_page'),
  call('read_page', ALPHA),
  call('read_page', SECTION),
  call('read_page', { page_id: 'beta' }),
  call('page_history', ALPHA),
  call('page_history', { page_id: 'nope' }),
  call('compare_versions', ALPHA),
  call('compare_versions', { ...ALPHA, from: '77' }),
  call('restore_page', { ...ALPHA, version: '1' }),
  call('restore_page', { ...ALPHA, version: '77' }),
  call('claim_page'),
  call('claim_page', { page_id: 'alpha' }),
  call('claim_page', { release: true }),
  call('claim_page', { page_id: 'nope' }),
  call('wiki_status'),
  call('search_wiki', { query: 'alpha' }),
  call('no_such_tool'),
  ['resources/list'],
  ['resources/list', { cursor: 'no cursor' }],
  ['resources/templates/list'],
  ['resources/read', { uri: PAGE }],
  ['resources/read', { uri: `${PAGE}#Section%201` }],
  ['resources/read', { uri: 'ossilar://pages/nope' }],
  ['resources/read', {}],
  ['prompts/list'],
  ['prompts/get', { name: 'write-page', arguments: { page_id: 'beta' } }],
  ['prompts/get', { name: 'write-page', arguments: {} }],
  ['prompts/get', { name: 'refresh-stale', arguments: {} }],
  ['prompts/get', { name: 'write-wiki' }],
  ['prompts/get', { name: 'no-such-prompt' }],
  complete('write-page', 'page_id', 'al'),
  complete('write-page', 'section', '', { arguments: ALPHA }),
  complete('nope', 'page_id', ''),
  ['no/such/method'],
];

const WITH_INITIALIZE = [
  ['ping'],
  ['logging/setLevel', { level: 'info' }],
  ['logging/setLevel', { level: 'loud' }],
  ['resources/subscribe', { uri: PAGE }],
  ['resources/subscribe', { uri: 'ossilar://pages/nope' }],
  [
    'initialize',
    { protocolVersion: LATEST_WITH_INITIALIZE, capabilities: {}, clientInfo: { name: 'x', version: '1' } },
  ],
];

const MALFORMED = [
  '{',
  '[]',
  '"text"',
  '{"jsonrpc":"2.0","id":null,"method":"ping"}',
  '{"jsonrpc":"1.0","id":7777,"method":"ping"}',
];

async function converse(client, script) {
  for (const [method, params] of script) await client.request(method, params);
}

function checkAll(revision, client) {
  const check = validator(revision);
  for (const message of client.messages) checkMessage(check, client, message);
  const list = client.messages.find((message) => client.sent.get(message.id)?.method === 'tools/list');
  const structured = client.messages.filter((message) => checkStructured(client, message, list.result.tools));
  assert.ok(structured.length > TOOLS.length, 'structured results were checked');
}

test('every message of a session with initialize fits the schema of 2025-11-25', async (t) => {
  const wiki = makeWiki(t);
  const client = await lineClient(t, wiki, LATEST_WITH_INITIALIZE);
  await converse(client, [...COMMON, ...WITH_INITIALIZE]);
  client.start(
    ...callWithMeta('save_page', { ...ALPHA, content: pageAbout('alpha', 3) }, { progressToken: 'p' }),
  );
  await client.notification('notifications/resources/updated');
  for (const line of MALFORMED) client.send(line);
  const unread = () => client.messages.filter((message) => message.error && message.id === undefined);
  await client.until(() => unread().length >= 4);
  await client.request('resources/unsubscribe', { uri: PAGE });
  assert.deepEqual(await client.end(), { code: 0, signal: null });
  checkAll(LATEST_WITH_INITIALIZE, client);
});

test('every message of a session without initialize fits the schema of 2026-07-28', async (t) => {
  const wiki = makeWiki(t);
  const client = await lineClient(t, wiki, LATEST);
  const removed = [['ping'], ['logging/setLevel', { level: 'info' }], ['resources/subscribe', { uri: PAGE }]];
  await converse(client, [...COMMON, ...removed]);
  client.start('subscriptions/listen', {
    notifications: { resourcesListChanged: true, resourceSubscriptions: [PAGE], toolsListChanged: true },
  });
  await client.notification('notifications/subscriptions/acknowledged');
  await client.call('save_page', { page_id: 'alpha', content: pageAbout('alpha', 3) });
  await client.notification('notifications/resources/updated');
  await client.call('save_page', { page_id: 'beta', content: pageAbout('beta') });
  await client.notification('notifications/resources/list_changed');
  const meta = { progressToken: 0, 'io.modelcontextprotocol/logLevel': 'debug' };
  await client.request(...callWithMeta('save_page', { page_id: 'beta', content: pageAbout('beta', 3) }, meta));
  assert.deepEqual(await client.end(), { code: 0, signal: null });
  checkAll(LATEST, client);

  for (const [method] of removed) {
    const replies = client.messages.filter((each) => client.sent.get(each.id)?.method === method);
    assert.deepEqual(replies.map((each) => each.error?.code), [-32601], method);
  }
  const codes = client.messages.map((each) => each.error?.code);
  assert.ok(!codes.includes(-32002), 'a code that the revision no longer has');
});

test('a request without a revision, or with one that is not served, is refused', async (t) => {
  const wiki = makeWiki(t);
  const client = await lineClient(t, wiki, LATEST);
  const check = validator(LATEST);
  const version = 'io.modelcontextprotocol/protocolVersion';
  const capabilities = 'io.modelcontextprotocol/clientCapabilities';
  const rows = [
    { why: 'nothing is said', meta: undefined, code: -32602 },
    { why: 'no capabilities', meta: { [version]: LATEST }, code: -32602 },
    { why: 'no version', meta: { [capabilities]: {} }, code: -32602 },
    { why: 'a later revision', meta: { [version]: '2030-01-01', [capabilities]: {} }, code: -32022 },
    { why: 'one with initialize', meta: { [version]: '2025-11-25', [capabilities]: {} }, code: -32022 },
  ];
  for (const [i, { why, meta, code }] of rows.entries()) {
    for (const method of ['tools/list', 'server/discover', 'no/such/method']) {
      const id = `${method}${i}`;
      client.send({ jsonrpc: '2.0', id, method, params: meta ? { _meta: meta } : {} });
      const reply = await client.reply(id);
      assert.equal(reply.error?.code, code, `${why}: ${method}: ${JSON.stringify(reply)}`);
      check(code === -32022 ? 'UnsupportedProtocolVersionError' : 'JSONRPCErrorResponse', reply, why);
    }
  }
});

// Fields by the revision that brought them; older clients may reject what they do not know.
const SINCE = [
  { field: 'annotations', since: '2025-03-26', of: (all) => all.tools },
  {
    field: 'title',
    since: '2025-06-18',
    of: (all) => [...all.tools, ...all.prompts, ...all.resources, ...all.templates, all.info],
  },
  { field: 'outputSchema', since: '2025-06-18', of: (all) => all.tools.filter(({ name }) => name !== TEXT_ONCE) },
  { field: 'structuredContent', since: '2025-06-18', of: (all) => [all.called] },
  { field: 'completions', since: '2025-03-26', of: (all) => [all.capabilities] },
  { field: 'resultType', since: LATEST, of: (all) => all.results },
  { field: 'ttlMs', since: LATEST, of: (all) => all.results },
];

test('a revision has the fields of its time, and none that came later', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha'));
  for (const revision of ['2024-11-05', '2025-03-26', '2025-06-18', LATEST_WITH_INITIALIZE]) {
    const client = await lineClient(t, wiki, revision);
    const begun = client.messages[0].result;
    assert.equal(begun.protocolVersion, revision);
    const results = [];
    for (const method of ['tools/list', 'prompts/list', 'resources/list', 'resources/templates/list'])
      results.push((await client.request(method)).result);
    const called = (await client.call('wiki_status', {})).result;
    const all = {
      info: begun.serverInfo,
      capabilities: begun.capabilities,
      tools: results[0].tools,
      prompts: results[1].prompts,
      resources: results[2].resources,
      templates: results[3].resourceTemplates,
      results: [...results, called],
      called,
    };
    for (const { field, since, of } of SINCE) {
      assert.ok(of(all).length > 0);
      for (const value of of(all))
        assert.equal(field in value, revision >= since, `${field} in ${revision}: ${JSON.stringify(value)}`);
    }
    await client.end();
  }
});
