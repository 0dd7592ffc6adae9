// A PostgreSQL server of the scripts' own: a temporary cluster that answers on a socket in its folder alone, and ends
// with this process. PostgreSQL refuses to run as root, so root runs it as the user nobody.
import { execFileSync, spawn, spawnSync } from 'node:child_process';
import { chmodSync, chownSync, existsSync, mkdtempSync, openSync, readFileSync, realpathSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

// Debian keeps the server's programs out of PATH.
const FOLDERS = ['15', '16', '17'].map((version) => `/usr/lib/postgresql/${version}/bin`);
const bin = FOLDERS.find((folder) => existsSync(join(folder, 'initdb')));

// The reason to skip what needs a server, or false.
export const withoutPostgres = () => !bin && 'no PostgreSQL server (scripts/setup test installs it)';

const isRoot = process.geteuid() === 0;
const idOf = (kind, name) => Number(execFileSync('getent', [kind, name], { encoding: 'utf8' }).split(':')[2]);
const AS_NOBODY = isRoot ? ['--reuid=nobody', '--regid=nogroup', '--clear-groups'] : [];

// With `syncs` off, a crash of the machine would lose what was committed; one of the server does not.
export class PostgresServer {
  constructor({ syncs = false, settings = [] } = {}) {
    this.folder = realpathSync(mkdtempSync(join(tmpdir(), 'ossilar-postgres-')));
    this.options = ['listen_addresses=', `fsync=${syncs ? 'on' : 'off'}`, 'log_min_messages=fatal', ...settings];
    chmodSync(this.folder, 0o700);
    if (isRoot) chownSync(this.folder, idOf('passwd', 'nobody'), idOf('group', 'nogroup'));
    this.log = openSync(join(this.folder, 'log'), 'a');
    const [command, args] = this.command('initdb', '-D', this.data, '-N', '--auth=trust', '--username=wiki', '--encoding=UTF8', '--locale=C.UTF-8');
    execFileSync(command, args, { cwd: '/', stdio: ['ignore', 'ignore', this.log] });
  }

  get data() {
    return join(this.folder, 'data');
  }

  command(name, ...args) {
    return ['setpriv', [...AS_NOBODY, '--pdeathsig=QUIT', '--', join(bin, name), ...args]];
  }

  // The address of a database; `socket` is the folder of another one that leads here.
  url(database, socket = this.folder) {
    return `postgresql:///${database}?user=wiki&host=${socket}`;
  }

  // What a query of this server's gives, as text.
  sql(database, query) {
    const args = ['--no-psqlrc', '--quiet', '--tuples-only', '--no-align', '--set=ON_ERROR_STOP=1', '--command', query];
    return execFileSync(join(bin, 'psql'), [this.url(database), ...args], { encoding: 'utf8', maxBuffer: 1 << 28 });
  }

  createDatabase(name) {
    this.sql('postgres', `CREATE DATABASE ${name}`);
    return this.url(name);
  }

  // Returns when it takes connections. A server that was killed may have left processes that end by and by, and none
  // starts before they have; so it is tried again.
  async start() {
    for (let tries = 0; tries < 600; ++tries) {
      if (!this.process || this.process.exitCode !== null || this.process.signalCode !== null) this.spawn();
      if (spawnSync(join(bin, 'pg_isready'), ['-q', '-h', this.folder, '-d', 'postgres']).status === 0) return this;
      await sleep(50);
    }
    throw new Error(`the PostgreSQL server does not start: ${readFileSync(join(this.folder, 'log'), 'utf8')}`);
  }

  spawn() {
    const settings = this.options.flatMap((each) => ['-c', each]);
    const [command, args] = this.command('postgres', '-D', this.data, '-k', this.folder, ...settings);
    this.process = spawn(command, args, { cwd: '/', stdio: ['ignore', 'ignore', this.log] });
    this.ended = new Promise((resolve) => this.process.once('exit', resolve));
  }

  // Kills all of its processes at once, as when the machine's memory runs out. The first is stopped before, so that it
  // starts no other.
  async kill() {
    const { pid } = this.process;
    process.kill(pid, 'SIGSTOP');
    const children = readFileSync(`/proc/${pid}/task/${pid}/children`, 'utf8').split(' ').filter(Boolean);
    for (const each of [pid, ...children.map(Number)]) {
      try {
        process.kill(each, 'SIGKILL');
      } catch (error) {
        if (error.code !== 'ESRCH') throw error; // it had ended by itself
      }
    }
    await this.ended;
  }

  // Ends it, and removes all that it has stored.
  async remove() {
    this.process?.kill('SIGINT');
    await this.ended;
    rmSync(this.folder, { recursive: true, force: true });
  }
}

// A server for the tests of a file, removed when test `t` ends.
export async function postgresServer(t, options) {
  const server = new PostgresServer(options);
  t.after(() => server.remove());
  return server.start();
}
