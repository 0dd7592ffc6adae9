// Starts `ossilar mcp --http` on a port of its own.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { createInterface } from 'node:readline';
import { program } from './wiki.mjs';

// Gives its address, the process, and end(), which ends it as a service manager does. It is killed when test `t` ends.
export async function serveHttp(t, wiki, ...options) {
  const where = options.includes('--http') ? [] : ['--http', '127.0.0.1:0'];
  const args = ['--repo', wiki.root, '--json', 'mcp', ...where, ...options];
  const server = spawn(program, args, { stdio: ['ignore', 'pipe', 'pipe'] });
  let stderr = '';
  server.stderr.on('data', (chunk) => (stderr += chunk));
  const closed = new Promise((resolve) => server.once('close', (code, signal) => resolve({ code, signal })));
  t.after(() => server.kill('SIGKILL'));
  const url = await new Promise((resolve, reject) => {
    createInterface({ input: server.stdout }).once('line', (line) => {
      const said = JSON.parse(line);
      if (said.url) resolve(said.url);
      else reject(new Error(said.error));
    });
    closed.then(() => reject(new Error(`the server ended: ${stderr}`)));
  });
  const end = async () => {
    server.kill('SIGTERM');
    assert.deepEqual(await closed, { code: 0, signal: null }, stderr);
  };
  return { url, server, end, stderr: () => stderr };
}

export const HEADERS = {
  'content-type': 'application/json',
  accept: 'application/json, text/event-stream',
};

export const post = (url, message, headers = {}) =>
  fetch(url, {
    method: 'POST',
    headers: { ...HEADERS, ...headers },
    body: typeof message === 'string' ? message : JSON.stringify({ jsonrpc: '2.0', ...message }),
  });

// Begins a session of the revision without a library; gives the headers that belong to it.
export async function beginSession(url, revision, headers = {}) {
  const params = { protocolVersion: revision, capabilities: {}, clientInfo: { name: 'plain', version: '1' } };
  const begun = await post(url, { id: 0, method: 'initialize', params }, headers);
  assert.equal(begun.status, 200);
  assert.equal((await begun.json()).result.protocolVersion, revision);
  const session = {
    ...headers,
    'mcp-session-id': begun.headers.get('mcp-session-id'),
    'mcp-protocol-version': revision,
  };
  const told = await post(url, { method: 'notifications/initialized' }, session);
  assert.equal(told.status, 202);
  return session;
}

// The events of a response as they come: an async iterator of { id, data }.
export async function* events(response) {
  let text = '';
  for await (const chunk of response.body.pipeThrough(new TextDecoderStream())) {
    text += chunk;
    for (let end = text.indexOf('\n\n'); end >= 0; end = text.indexOf('\n\n')) {
      const event = {};
      for (const line of text.slice(0, end).split('\n')) {
        const colon = line.indexOf(': ');
        if (colon > 0) event[line.slice(0, colon)] = line.slice(colon + 2);
      }
      text = text.slice(end + 2);
      if (event.id) yield event;
    }
  }
}
