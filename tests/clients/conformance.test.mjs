// The public conformance suite's scenarios for servers, as far as they need no tools and pages of its own.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { fileURLToPath } from 'node:url';
import { test } from 'node:test';
import { serveHttp } from './http.mjs';
import { makeWiki, pageAbout } from './wiki.mjs';

const SUITE = fileURLToPath(new URL('node_modules/@modelcontextprotocol/conformance/dist/index.js', import.meta.url));

const SCENARIOS = [
  'server-initialize',
  'logging-set-level',
  'ping',
  'tools-list',
  'resources-list',
  'prompts-list',
  'server-sse-multiple-streams',
  'dns-rebinding-protection',
];

function run(url, scenario) {
  const suite = spawn(process.execPath, [SUITE, 'server', '--url', url, '--scenario', scenario]);
  let said = '';
  for (const stream of [suite.stdout, suite.stderr]) stream.on('data', (chunk) => (said += chunk));
  return new Promise((resolve) => suite.once('close', (code) => resolve({ code, said })));
}

test('conformance: the scenarios that need no fixture pass', async (t) => {
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha'));
  const { url, end } = await serveHttp(t, wiki);
  for (const scenario of SCENARIOS) {
    const { code, said } = await run(url, scenario);
    assert.equal(code, 0, `${scenario}: ${said}`);
    const [, passed, all] = said.match(/Passed: (\d+)\/(\d+), 0 failed, 0 warnings/) ?? [];
    assert.ok(Number(passed) > 0 && passed === all, `${scenario}: ${said}`);
  }
  await end();
});
