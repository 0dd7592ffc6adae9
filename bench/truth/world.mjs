// A working tree that goes through a history while ossilar keeps a wiki in it, and the calls of the program. What the
// program cannot do, or says differently, is an answer and never the end of the bench.
import { execFileSync, spawnSync } from 'node:child_process';
import { cpSync, existsSync, mkdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { program } from '../../tests/clients/wiki.mjs';
import { commitAs } from './histories.mjs';

const call = (root, args, input) => {
  const begun = performance.now();
  const { status, stdout, stderr } = spawnSync(program, ['--repo', root, '--json', ...args], {
    encoding: 'utf8',
    input: input ?? '',
    maxBuffer: 1 << 28,
  });
  let document;
  try {
    document = JSON.parse(stdout);
  } catch {
    document = undefined;
  }
  return { status, document, stderr, ms: performance.now() - begun };
};

// Whether the program has this command at all, by its list of them.
export const hasCommand = (name) =>
  new RegExp(`^  ${name}\\s`, 'm').test(spawnSync(program, ['--help'], { encoding: 'utf8' }).stdout ?? '');

export class World {
  constructor(root, history) {
    this.root = root;
    this.history = history;
    this.at = undefined;
    this.times = {};
    mkdirSync(root, { recursive: true });
    this.git('init', '--quiet', '--initial-branch=main');
    this.git('config', 'core.autocrlf', 'false');
  }

  git(...args) {
    return execFileSync('git', ['-C', this.root, ...args], {
      encoding: 'utf8',
      env: commitAs(0),
      maxBuffer: 1 << 28,
      stdio: ['ignore', 'pipe', 'pipe'],
    });
  }

  // Puts the source of a step in place: git touches the files that differ, and nothing of the wiki.
  put(commit) {
    const index = join(this.history, '.git', `index-of-${process.pid}`);
    execFileSync(
      'git',
      ['--git-dir', join(this.history, '.git'), '--work-tree', this.root, 'read-tree', '--reset', '-u', commit],
      { env: { ...process.env, GIT_INDEX_FILE: index }, stdio: 'pipe' },
    );
    this.at = commit;
  }

  commit(message) {
    this.git('add', '--all', '.');
    if (this.git('status', '--porcelain') !== '')
      this.git('commit', '--quiet', '--no-gpg-sign', `--message=${message}`);
  }

  // Runs a command of the program and gives its status and document, undefined when it printed none.
  ossilar(name, args = [], input = undefined) {
    const answer = call(this.root, [name, ...args], input);
    const times = (this.times[name] ??= { calls: 0, ms: 0 });
    times.calls += 1;
    times.ms += answer.ms;
    return answer;
  }

  pagePath(id) {
    return `wiki/pages/${id}.md`;
  }

  page(id) {
    const path = join(this.root, this.pagePath(id));
    return existsSync(path) ? readFileSync(path, 'utf8') : undefined;
  }

  configure(text) {
    writeFileSync(join(this.root, 'ossilar.toml'), text);
  }

  // What a clone is that has the files and not their past: one commit, and no state of ossilar's.
  clone(root) {
    rmSync(root, { recursive: true, force: true });
    const isLeft = (path) => path !== join(this.root, '.git') && path !== join(this.root, '.ossilar');
    cpSync(this.root, root, { recursive: true, filter: isLeft });
    const copy = Object.assign(Object.create(World.prototype), { root, history: this.history, at: this.at, times: {} });
    copy.git('init', '--quiet', '--initial-branch=main');
    copy.commit('clone');
    return copy;
  }

  // Leaves nothing behind in the history's folder.
  end() {
    rmSync(join(this.history, '.git', `index-of-${process.pid}`), { force: true });
  }
}
