// What the scripts share: a wiki with every kind of page, its server, and a browser that reports what it should not do.
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, realpathSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { createInterface } from 'node:readline';
import { chromium } from 'playwright-core';

const program = process.env.OSSILAR_PROGRAM;
assert.ok(program, 'OSSILAR_PROGRAM must name the ossilar to test');
const shots = process.env.OSSILAR_SCREENSHOTS ?? join(tmpdir(), 'ossilar-screenshots');
mkdirSync(shots, { recursive: true });

const source = (word) =>
  `// The ${word} part.\n` + Array.from({ length: 60 }, (_, i) => `int ${word}${i + 1}(int value = ${i});\n`).join('');

export const alphaText = (more = '') => `Alpha keeps the numbers that everything else counts with.

## Responsibility

The first numbers are given by three functions. [src/alpha.cpp:L2-L4] They are read by [Beta], which adds to them.
The tenth is the largest one: [src/alpha.cpp:L11]. ${more}

### In a table

| function | gives |
|---|---|
| \`alpha1\` | the first number, see [src/alpha.cpp:L2] |

## How it works

\`\`\`cpp
int sum = alpha1() + alpha2();  // the sum
\`\`\`

\`\`\`mermaid
flowchart LR
  a[alpha] --> b[beta]
\`\`\`

> Numbers are never changed.
`;

const betaText = `Beta adds to what Alpha gives.

## Responsibility

It has functions of its own [src/beta.cpp:L2-L5] and [src/beta.cpp:L20-L30].
`;

// A repository with pages that are ok, stale, moved and missing, one with a former title, and one that is hostile.
export function makeWiki({ isHostile = true } = {}) {
  const root = join(realpathSync(mkdtempSync(join(tmpdir(), 'ossilar-web-'))), 'numbers');
  // Not at the end of the test: its server ends after that.
  process.on('exit', () => rmSync(dirname(root), { recursive: true, force: true }));
  const write = (path, text) => {
    mkdirSync(dirname(join(root, path)), { recursive: true });
    writeFileSync(join(root, path), text);
  };
  const git = (...args) =>
    execFileSync('git', ['-C', root, '-c', 'user.name=t', '-c', 'user.email=t@example.org', ...args], { stdio: 'pipe' });
  const ossilar = (args, input) => execFileSync(program, ['--repo', root, ...args], { input, stdio: ['pipe', 'pipe', 'pipe'] });
  for (const word of ['alpha', 'beta', 'gamma', 'delta']) write(`src/${word}.cpp`, source(word));
  write('src/alpha.cpp', '#include "beta.cpp"\n' + source('alpha').split('\n').slice(1).join('\n'));
  const entry = (id) => `[[page]]\nid = "${id}"\ntitle = "${id[0].toUpperCase() + id.slice(1)}"\ntype = "module"\nsources = ["src/${id}.cpp"]\n`;
  write('ossilar.toml', '[[page]]\nid = "src"\nsources = ["ossilar.toml"]\n' + ['alpha', 'beta', 'gamma', 'delta'].map(entry).join(''));
  git('init', '--quiet', '--initial-branch=main');
  git('add', '.');
  git('commit', '--quiet', '--no-gpg-sign', '--message=sources');
  ossilar(['init']);
  const save = (id, text, ...more) => ossilar(['save', id, '-', ...more], text);
  save('beta', betaText, '--title', 'Sums of old');
  save('beta', betaText, '--title', 'Beta');
  save('alpha', alphaText());
  if (isHostile) save('delta', `# x\n\nDelta <script>window.hacked = 1</script> and <img src=x onerror="window.hacked = 1">.\n\n## <b onclick="window.hacked = 1">Part</b>\n\n[x](javascript:window.hacked=1) ![y](http://127.0.0.1:9/y.png) [src/delta.cpp:L2] [src/delta.cpp:L3]\n`,
    '--title', '"><script>window.hacked = 1</script>');
  return { root, write, save, ossilar };
}

// The server of the wiki; gives its address.
export async function serve(t, root) {
  const server = spawn(program, ['--repo', root, 'serve', '--port', '0'], { stdio: ['ignore', 'pipe', 'inherit'] });
  const ended = new Promise((done) => server.on('exit', done));
  t.after(async () => {
    server.kill('SIGTERM');
    assert.equal(await ended, 0, 'the server ends by itself when told to');
  });
  for await (const line of createInterface(server.stdout)) {
    const address = /http:\S+\//.exec(line);
    if (address) return address[0];
  }
  throw new Error('no address');
}

// Pages that note each request that leaves the host, each error of a script, and each refusal by the policy.
export async function browse(t) {
  const browser = await chromium.launch({
    executablePath: process.env.OSSILAR_CHROMIUM || '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-dev-shm-usage'],
  });
  t.after(() => browser.close());
  const faults = [];
  const open = async (options = {}) => {
    const page = await browser.newPage({ viewport: { width: 1440, height: 900 }, ...options });
    page.on('pageerror', (error) => faults.push(`script: ${error.message}`));
    page.on('console', (message) => { if (message.type() === 'error' && !/status of 404/.test(message.text())) faults.push(`console: ${message.text()}`); });
    page.on('request', (request) => {
      const url = new URL(request.url());
      if (!['127.0.0.1', 'localhost', ''].includes(url.hostname) || url.port === '9') faults.push(`request: ${url}`);
    });
    page.shot = (name) => page.screenshot({ path: join(shots, `${name}.png`) });
    return page;
  };
  return { open, faults };
}

export const axe = readFileSync(new URL('./node_modules/axe-core/axe.min.js', import.meta.url), 'utf8');

// What axe-core finds wrong. The policy keeps scripts out, so it is run in the page by the driver.
export async function violations(page) {
  await page.evaluate(axe);
  const { violations } = await page.evaluate(() => globalThis.axe.run(document, { resultTypes: ['violations'] }));
  return violations.map((each) => `${each.id}: ${each.nodes.map((node) => node.html.slice(0, 120)).join(' | ')}`);
}
