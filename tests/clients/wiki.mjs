// What the scripts share: a small wiki in a folder of its own, texts of pages, and a client that speaks
// in lines.
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, realpathSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { createInterface } from 'node:readline';

export const program = process.env.OSSILAR_PROGRAM;
assert.ok(program, 'OSSILAR_PROGRAM must name the ossilar to test');

export const LATEST = '2026-07-28';
export const LATEST_WITH_INITIALIZE = '2025-11-25';

// The tools that every server has.
export const TOOLS = [
  'affected',
  'check_page',
  'check_wiki',
  'claim_page',
  'compare_versions',
  'confirm_page',
  'find_citations',
  'find_symbol',
  'list_pages',
  'page_context',
  'page_history',
  'read_page',
  'read_source',
  'remove_page',
  'rename_page',
  'restore_page',
  'save_page',
  'search_wiki',
  'sync_pages',
  'wiki_status',
];

const source = (word) => Array.from({ length: 10 }, (_, i) => `int ${word}${i + 1}();\n`).join('');

const modules = (words) =>
  words
    .map((id) => `[[page]]\nid = "${id}"\ntitle = "${id}"\ntype = "module"\nsources = ["src/${id}.cpp"]\n`)
    .join('');

// An empty folder that is removed when test `t` ends.
export function makeFolder(t) {
  const folder = realpathSync(mkdtempSync(join(tmpdir(), 'ossilar-test-')));
  t.after(() => rmSync(folder, { recursive: true, force: true }));
  return folder;
}

// A git repository with a source for each word and a wiki that plans a page for each; removed when test `t` ends.
export function makeWiki(t, { words = ['alpha', 'beta'] } = {}) {
  const root = makeFolder(t);
  const write = (path, text) => {
    mkdirSync(dirname(join(root, path)), { recursive: true });
    writeFileSync(join(root, path), text);
  };
  const git = (...args) =>
    execFileSync('git', ['-C', root, '-c', 'user.name=t', '-c', 'user.email=t@example.org', ...args], {
      stdio: 'pipe',
    });
  for (const word of words) write(`src/${word}.cpp`, source(word));
  write('ossilar.toml', modules(words));
  git('init', '--quiet', '--initial-branch=main');
  git('add', '.');
  git('commit', '--quiet', '--no-gpg-sign', '--message=sources');
  execFileSync(program, ['--repo', root, 'init'], { stdio: 'pipe' });
  return {
    root,
    server: { command: program, args: ['--repo', root, 'mcp'] },
    page: (id) => readFileSync(join(root, 'wiki/pages', `${id}.md`), 'utf8'),
    // Saves as another process does.
    save: (id, text) =>
      execFileSync(program, ['--repo', root, 'save', id], { input: text, stdio: ['pipe', 'pipe', 'pipe'] }),
  };
}

const citation = (word, i) => `[src/${word}.cpp:L${(i % 10) + 1}]`;

// A page about `word` that is saved as it is, with as many sections.
export function pageAbout(word, sections = 2, said = 'first') {
  const bodies = Array.from(
    { length: sections },
    (_, i) => `## Section ${i}\n\n${said} ${citation(word, i)}\n`,
  );
  return `About ${word}.\n\n${bodies.join('\n')}`;
}

export const sectionText = (word, i, said) => `${said} ${citation(word, i)}\n`;

// Holds the write lock with flock(2), as the program does, until the returned function is called.
export async function holdWriteLock(wiki) {
  const holder = spawn('flock', [join(wiki.root, '.ossilar/write.lock'), '-c', 'echo held; read line'], {
    stdio: ['pipe', 'pipe', 'inherit'],
  });
  const gone = new Promise((resolve) => holder.once('close', resolve));
  await new Promise((resolve, reject) => {
    holder.stdout.once('data', resolve);
    holder.once('error', reject);
  });
  return async () => {
    holder.stdin.end('\n');
    await gone;
  };
}

export const numbers = (count) => Array.from({ length: count }, (_, i) => i);

// The same numbers for the same seed: mulberry32.
export function randomNumbers(seed) {
  let state = seed >>> 0;
  return (below) => {
    state = (state + 0x6d2b79f5) >>> 0;
    let t = Math.imul(state ^ (state >>> 15), state | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return ((t ^ (t >>> 14)) >>> 0) % below;
  };
}

// Whether a reply acknowledges a save.
export const isSaved = (reply) => reply.result?.isError !== true && reply.result?.structuredContent?.saved === true;

// A client without any library: sends objects as lines and keeps every line that comes back.
export class LineClient {
  constructor(wiki) {
    this.process = spawn(wiki.server.command, wiki.server.args, { stdio: ['pipe', 'pipe', 'pipe'] });
    this.messages = [];
    this.sent = new Map();
    this.waiting = new Set();
    this.nextId = 1;
    this.stderr = '';
    this.process.stderr.on('data', (chunk) => (this.stderr += chunk));
    this.closed = new Promise((resolve) =>
      this.process.once('close', (code, signal) => resolve({ code, signal })),
    );
    createInterface({ input: this.process.stdout }).on('line', (line) => {
      this.messages.push(JSON.parse(line));
      for (const check of this.waiting) check();
    });
  }

  send(message) {
    this.process.stdin.write(typeof message === 'string' ? `${message}\n` : `${JSON.stringify(message)}\n`);
  }

  // The first message for which `wanted` holds, also of those that are there already.
  until(wanted) {
    return new Promise((resolve, reject) => {
      const check = () => {
        const found = this.messages.find(wanted);
        if (!found) return;
        this.waiting.delete(check);
        resolve(found);
      };
      this.waiting.add(check);
      this.closed.then(() =>
        reject(new Error(`the server ended before it said what was waited for: ${this.stderr}`)),
      );
      check();
    });
  }

  reply(id) {
    return this.until((message) => message.id === id && !message.method);
  }

  notification(method) {
    return this.until((message) => message.method === method);
  }

  // Sends a request of the revision's form and gives its id.
  start(method, params = {}, id = this.nextId++) {
    const message = { jsonrpc: '2.0', id, method, params };
    if (this.revision === LATEST) {
      message.params = { ...params, _meta: { ...metaOf(LATEST), ...params._meta } };
    }
    this.sent.set(id, message);
    this.send(message);
    return id;
  }

  request(method, params) {
    return this.reply(this.start(method, params));
  }

  notify(method, params) {
    this.send({ jsonrpc: '2.0', method, params });
  }

  // Begins a session as the revision begins one, and gives the reply to its first request.
  async begin(revision) {
    this.revision = revision;
    if (revision === LATEST) return this.request('server/discover');
    const reply = await this.request('initialize', {
      protocolVersion: revision,
      capabilities: {},
      clientInfo: { name: 'lines', version: '1' },
    });
    this.notify('notifications/initialized');
    return reply;
  }

  call(name, args) {
    return this.request('tools/call', { name, arguments: args });
  }

  // Ends the session as a client does and gives how the server ended.
  end() {
    this.process.stdin.end();
    return this.closed;
  }
}

export const metaOf = (version) => ({
  'io.modelcontextprotocol/protocolVersion': version,
  'io.modelcontextprotocol/clientInfo': { name: 'lines', version: '1' },
  'io.modelcontextprotocol/clientCapabilities': {},
});

export async function lineClient(t, wiki, revision) {
  const client = new LineClient(wiki);
  t.after(() => client.process.kill('SIGKILL'));
  await client.begin(revision);
  return client;
}
