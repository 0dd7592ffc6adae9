// The client library of the revisions with `initialize`.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { test } from 'node:test';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { testSessions } from './session.mjs';
import { sdkTerms } from './terms.mjs';
import { makeWiki, program } from './wiki.mjs';

const connect = (server) =>
  sdkTerms(new Client({ name: 'sdk', version: '1' }), new StdioClientTransport({ ...server, stderr: 'ignore' }));

testSessions('sdk', (wiki) => connect(wiki.server));

test('sdk: starts the server by what init wrote into the repository', async (t) => {
  const wiki = makeWiki(t);
  execFileSync(program, ['--repo', wiki.root, 'init', '--client', 'claude-code'], { stdio: 'pipe' });
  const { ossilar } = JSON.parse(readFileSync(join(wiki.root, '.mcp.json'), 'utf8')).mcpServers;
  const env = { PATH: `${dirname(program)}:${process.env.PATH}` };
  const { client, call } = await connect({ ...ossilar, env, cwd: join(wiki.root, 'src') });
  t.after(() => client.close());
  const { structuredContent } = await call({ name: 'wiki_status', arguments: {} });
  assert.equal(structuredContent.indexed_files, 2, JSON.stringify(structuredContent));
});
