// The command-line client: one process, one request each.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { text } from 'node:stream/consumers';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { makeWiki, pageAbout, sectionText, TOOLS } from './wiki.mjs';

const inspector = fileURLToPath(import.meta.resolve('@modelcontextprotocol/inspector-cli/build/index.js'));

async function inspect(wiki, method, ...options) {
  const { command, args } = wiki.server;
  // The program comes first, before options that take lists; its arguments come after "--".
  const child = spawn(process.execPath, [inspector, command, '--method', method, ...options, '--', ...args]);
  const [output, errors, code] = await Promise.all([
    text(child.stdout),
    text(child.stderr),
    new Promise((resolve) => child.once('close', resolve)),
  ]);
  assert.equal(code, 0, errors);
  return JSON.parse(output);
}

function call(wiki, name, args) {
  const given = Object.entries(args).flatMap(([key, value]) => ['--tool-arg', `${key}=${value}`]);
  return inspect(wiki, 'tools/call', '--tool-name', name, ...given);
}

test('inspector: lists, reads and gets', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha'));
  const rows = [
    ['tools/list', 'tools', TOOLS],
    ['resources/list', 'resources', ['alpha']],
    ['resources/templates/list', 'resourceTemplates', ['page', 'section', 'draft']],
    ['prompts/list', 'prompts', ['write-page', 'refresh-stale', 'write-wiki']],
  ];
  for (const [method, key, names] of rows) {
    const given = (await inspect(wiki, method))[key].map((each) => each.name);
    assert.deepEqual(given.sort(), names.toSorted(), method);
  }
  const { contents } = await inspect(wiki, 'resources/read', '--uri', 'ossilar://pages/alpha');
  assert.equal(contents[0].text, wiki.page('alpha'));
  const prompt = ['--prompt-name', 'write-page', '--prompt-args', 'page_id=beta'];
  const { messages } = await inspect(wiki, 'prompts/get', ...prompt);
  assert.match(messages[0].content.text, /src\/beta\.cpp/);
});

test('inspector: saves, is refused, and numbers arrive as numbers', async (t) => {
  const wiki = makeWiki(t);
  const refused = await call(wiki, 'save_page', { page_id: 'alpha', content: 'none' });
  assert.ok(refused.isError);
  assert.match(refused.content[0].text, /0 valid citation/);
  const saved = await call(wiki, 'save_page', { page_id: 'alpha', content: pageAbout('alpha') });
  assert.ok(saved.structuredContent.saved, JSON.stringify(saved));
  const section = { page_id: 'alpha', section: '## Section 1', content: sectionText('alpha', 1, 'a=b') };
  await call(wiki, 'save_page', section);
  assert.match(wiki.page('alpha'), /a=b \[src\/alpha\.cpp:L2\]/);
  const listed = await call(wiki, 'list_pages', { limit: 1 });
  assert.equal(listed.structuredContent.pages.length, 1);
});
