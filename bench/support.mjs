// What the benchmarks share: texts of pages, a repository with a wiki, the public servers beside it, a client
// that keeps several requests in flight, and figures.
import { execFileSync, spawn } from 'node:child_process';
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { LATEST_WITH_INITIALIZE, numbers, program, randomNumbers } from '../tests/clients/wiki.mjs';

export { numbers, randomNumbers };

const WORDS =
  `parser token lock page writer reader commit draft queue buffer index chunk section digest row branch
  file folder link handle request answer client session timeout error retry state version manifest title source symbol
  keeps reads writes opens closes waits returns checks takes gives holds drops moves builds finds counts merges splits
  until before after while unless because with without into from over under between each every another first last only
  again never always small large old new shared empty broken whole plain ordered bounded`.split(/\s+/);

function sentence(random) {
  const words = numbers(9 + random(8)).map(() => WORDS[random(WORDS.length)]);
  return `${words[0][0].toUpperCase()}${words.join(' ').slice(1)}.`;
}

// About 6 KB in ten sections, a citation in each; another `edition` shares no sentence with this one.
export function pageText(source, edition = 0) {
  let seed = edition + 1;
  for (const c of source) seed = Math.imul(seed, 31) + c.charCodeAt(0);
  const random = randomNumbers(seed);
  const prose = () =>
    numbers(6)
      .map(() => sentence(random))
      .join(' ');
  const section = (s) => `## Part ${s}\n\n${prose()} [${source}:L${s + 1}]\n`;
  return `${sentence(random)}\n\n${numbers(10).map(section).join('\n')}`;
}

export function write(path, text) {
  mkdirSync(dirname(path), { recursive: true });
  writeFileSync(path, text);
}

export const name = (i) => `unit${String(i).padStart(2, '0')}`;
export const sourceOf = (i) => `src/${name(i)}.cpp`;

// A wiki at `root` whose page unitNN is about src/unitNN.cpp.
export function makeRepository(root, pages) {
  const lines = (i) => numbers(50).map((line) => `int ${name(i)}_${line}();\n`);
  const page = (i) => `[[page]]\nid = "${name(i)}"\ntype = "module"\nsources = ["${sourceOf(i)}"]\n`;
  for (const i of numbers(pages)) write(join(root, sourceOf(i)), lines(i).join(''));
  write(join(root, 'ossilar.toml'), numbers(pages).map(page).join(''));
  execFileSync(program, ['--repo', root, 'init'], { stdio: 'pipe' });
}

export const wikiServer = (root) => ({ command: program, args: ['--repo', root, 'mcp'] });

// A public server by the path of its script.
export const peerServer = (file, ...args) => ({
  command: process.execPath,
  args: [
    fileURLToPath(new URL(`peers/node_modules/@modelcontextprotocol/${file}`, import.meta.url)),
    ...args,
  ],
});

// Speaks in lines, and keeps nothing of what has been answered.
export class Client {
  constructor({ command, args }) {
    this.process = spawn(command, args, { stdio: ['pipe', 'pipe', 'ignore'] });
    this.waiting = new Map();
    this.nextId = 1;
    this.closed = new Promise((resolve) => this.process.once('close', resolve));
    let rest = '';
    this.process.stdout.setEncoding('utf8').on('data', (data) => {
      const lines = (rest + data).split('\n');
      rest = lines.pop();
      for (const line of lines) this.take(JSON.parse(line));
    });
  }

  take(message) {
    this.waiting.get(message.id)?.(message);
    this.waiting.delete(message.id);
  }

  send(message) {
    this.process.stdin.write(`${JSON.stringify({ jsonrpc: '2.0', ...message })}\n`);
  }

  request(method, params = {}) {
    const id = this.nextId++;
    const reply = new Promise((resolve, reject) => {
      this.waiting.set(id, resolve);
      this.closed.then(() => reject(new Error('the server has ended')));
    });
    this.send({ id, method, params });
    return reply;
  }

  async begin() {
    const clientInfo = { name: 'bench', version: '1' };
    await this.request('initialize', {
      protocolVersion: LATEST_WITH_INITIALIZE,
      capabilities: {},
      clientInfo,
    });
    this.send({ method: 'notifications/initialized' });
  }

  async call(tool, given) {
    const reply = await this.request('tools/call', { name: tool, arguments: given });
    if (reply.error || reply.result.isError)
      throw new Error(`${tool}: ${JSON.stringify(reply).slice(0, 400)}`);
    return reply.result;
  }

  memory(field) {
    const status = readFileSync(`/proc/${this.process.pid}/status`, 'utf8');
    return Number(new RegExp(`${field}:\\s+(\\d+) kB`).exec(status)[1]) / 1024;
  }

  async end() {
    this.process.stdin.end();
    await this.closed;
  }
}

export async function timed(work) {
  const begun = performance.now();
  await work();
  return performance.now() - begun;
}

// The durations of `count` calls of work(i), of which `inFlight` are under way at any time.
export async function timedCalls(count, inFlight, work) {
  const durations = [];
  let next = 0;
  const worker = async () => {
    while (next < count) {
      const i = next++;
      durations.push(await timed(() => work(i)));
    }
  };
  await Promise.all(numbers(inFlight).map(worker));
  return durations;
}

export function percentile(values, percent) {
  const sorted = values.toSorted((a, b) => a - b);
  return sorted[Math.min(sorted.length - 1, Math.floor((sorted.length * percent) / 100))];
}

export const median = (values) => percentile(values, 50);

export function printTable(rows) {
  const columns = Object.keys(rows[0]);
  const cell = (value) => (typeof value === 'number' ? value.toFixed(value < 10 ? 2 : 1) : String(value));
  const lines = [columns, ...rows.map((row) => columns.map((column) => cell(row[column])))];
  const width = (column) => Math.max(...lines.map((line) => line[column].length));
  for (const line of lines)
    console.log(line.map((text, i) => (i ? text.padStart(width(i)) : text.padEnd(width(i)))).join('  '));
}
