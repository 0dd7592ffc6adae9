// What readers use for Markdown otherwise, on the pages of the same wiki: a static site generator (Eleventy) and a server
// of documentation (Markserv). Both with their own defaults, but that Markdown is no template.
import { execFileSync, spawn } from 'node:child_process';
import { mkdtempSync, rmSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { timed, write } from './support.mjs';

const module = (path) => join(import.meta.dirname, 'peers/node_modules', path);

// Seconds to make a site of the pages, cold. Its navigation, search, marks and sources are not there.
export async function generateSite(pages) {
  const folder = mkdtempSync(join(tmpdir(), 'ossilar-peer-'));
  try {
    write(join(folder, 'eleventy.config.mjs'), 'export default () => ({ markdownTemplateEngine: false });\n');
    const args = [module('@11ty/eleventy/cmd.cjs'), `--input=${pages}`, '--output=site', '--formats=md', '--quiet'];
    const run = () => execFileSync(process.execPath, args, { cwd: folder, stdio: ['ignore', 'ignore', 'inherit'] });
    return (await timed(run)) / 1000;
  } finally {
    rmSync(folder, { recursive: true, force: true });
  }
}

function freePort() {
  return new Promise((resolve, reject) => {
    const server = createServer();
    server.on('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

// Serves the pages while `read` runs with the server's address.
export async function servePages(pages, read) {
  const port = await freePort();
  const options = ['--port', port, '--address', '127.0.0.1', '--browser', 'false', '--livereloadport', 'false', '--silent'];
  const server = spawn(process.execPath, [module('markserv/lib/cli.js'), '.', ...options], {
    cwd: pages,
    stdio: 'ignore',
  });
  const ended = new Promise((resolve) => server.on('exit', resolve));
  try {
    for (let tries = 0; ; ++tries) {
      const is_up = await fetch(`http://127.0.0.1:${port}/`).then(() => true, () => false);
      if (is_up) break;
      if (tries === 100) throw new Error('markserv did not start within 10 s');
      await sleep(100);
    }
    return await read(`http://127.0.0.1:${port}/`);
  } finally {
    server.kill();
    await ended;
  }
}
