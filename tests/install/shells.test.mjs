// Three real shells complete command lines with the installed scripts, as somebody at a keyboard has it.
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { existsSync, mkdirSync, renameSync, writeFileSync } from 'node:fs';
import { delimiter, join } from 'node:path';
import { test } from 'node:test';
import { makeFolder, makeWiki, pageAbout } from '../clients/wiki.mjs';
import { without } from '../clients/needs.mjs';
import { install } from './installed.mjs';

const HEADING = 'How $it works, "truly"';

function makeStage(t) {
  const installed = install(t);
  const wiki = makeWiki(t);
  wiki.save('alpha', pageAbout('alpha').replace('## Section 1', `## ${HEADING}`));
  const home = makeFolder(t);
  const env = { ...process.env, PATH: join(installed.prefix, 'bin') + delimiter + process.env.PATH, HOME: home };
  return { installed, wiki, home, env: { ...env, TERM: 'dumb', HISTFILE: '', LC_ALL: 'C.UTF-8' } };
}

// A shell on a terminal of its own. Its `ossilar` prints its words instead of running the program, so a test sees what
// the shell completed and not how it draws it.
class Terminal {
  constructor(shell, { wiki, env }) {
    this.seen = '';
    this.look = () => {};
    this.child = spawn('script', ['-qefc', shell, '/dev/null'], { cwd: wiki.root, env, stdio: ['pipe', 'pipe', 'pipe'] });
    this.child.stdout.on('data', (data) => {
      this.seen += data;
      this.look();
    });
  }

  // What the shell prints from now on, once `pattern` matches it.
  async sees(pattern) {
    let timer;
    const found = new Promise((resolve, reject) => {
      timer = setTimeout(() => reject(new Error(`no ${pattern} in: ${this.seen}`)), 20000);
      this.look = () => {
        const match = pattern.exec(this.seen);
        if (match) resolve(match);
      };
    });
    this.look();
    const match = await found.finally(() => clearTimeout(timer));
    this.seen = '';
    return match;
  }

  // In quotes, as what is typed is echoed: only what it prints has the word.
  async setUp(line) {
    this.child.stdin.write(`${line}; ${SHOW}; echo rea""dy\r`);
    await this.sees(/ready/);
  }

  // The words of the line once the key was pressed. The shell reads on only when it has completed.
  async wordsOf(line) {
    this.child.stdin.write(`${line}\t\r`);
    const [, words] = await this.sees(/>>([^]*?)<</);
    return words.replace(/\/$/, '').split('|');
  }

  close() {
    this.child.stdin.end('exit\r');
    this.child.kill();
  }
}

// A line, and the words that the shell makes of it when the key is pressed. `ossilar` stands for a function then.
const LINES = [
  ['a command with one candidate', 'ossilar conf', ['confirm']],
  ['a page', 'ossilar show al', ['show', 'alpha']],
  ['a page that is not written', 'ossilar context be', ['context', 'beta']],
  ['an option', 'ossilar show alpha --auth', ['show', 'alpha', '--authored']],
  ['an option of the program', 'ossilar show alpha --js', ['show', 'alpha', '--json']],
  ['a value of an option', 'ossilar --color alw', ['--color', 'always']],
  ['a client', 'ossilar init --client claude', ['init', '--client', 'claude-code']],
  ['a kind of finding', 'ossilar check --only orph', ['check', '--only', 'orphaned']],
  ['a state', 'ossilar plan --state sta', ['plan', '--state', 'stale']],
  ['a heading', 'ossilar show alpha --section How', ['show', 'alpha', '--section', HEADING]],
  ['a heading in quotes', 'ossilar show alpha --section "Section', ['show', 'alpha', '--section', 'Section 0']],
  ['a page after another option', 'ossilar --json save be', ['--json', 'save', 'beta']],
  ['a file', 'ossilar save alpha ossilar.to', ['save', 'alpha', 'ossilar.toml']],
  ['a folder', 'ossilar export wik', ['export', 'wiki']],
];

// Stands for the program on the lines above; the scripts ask the program all the same.
const SHOW = `ossilar() { local IFS='|'; printf '>%s%s<<\\n' '>' "$*"; }`;

for (const [shell, command, setup] of [
  [
    'bash',
    'bash --norc --noprofile -i',
    ({ installed }) => `bind 'set bell-style none'; source ${installed.file('share/bash-completion/completions/ossilar')}`,
  ],
  [
    'zsh',
    'zsh -f -i',
    ({ installed }) =>
      `unsetopt zle_bracketed_paste prompt_sp; fpath=(${installed.file('share/zsh/vendor-completions')} $fpath); autoload -U compinit; compinit -u -D`,
  ],
]) {
  test(`${shell} completes`, { skip: without(shell, 'script') }, async (t) => {
    const stage = makeStage(t);
    const terminal = new Terminal(command, stage);
    t.after(() => terminal.close());
    await terminal.setUp(setup(stage));
    for (const [why, line, words] of LINES) assert.deepEqual(await terminal.wordsOf(line), words, `${why}: ${line}`);
  });
}

test('fish completes', { skip: without('fish') }, (t) => {
  const stage = makeStage(t);
  const file = stage.installed.file('share/fish/vendor_completions.d/ossilar.fish');
  for (const [why, line, words] of LINES) {
    const out = execFileSync('fish', ['--no-config', '-c', `source ${file}; complete --do-complete ${JSON.stringify(line)}`], {
      cwd: stage.wiki.root,
      env: stage.env,
      encoding: 'utf8',
    });
    const offered = out.split('\n').map((each) => each.split('\t')[0].replace(/\/$/, ''));
    assert.ok(offered.includes(words.at(-1)), `${why}: ${line}: ${out}`);
  }
});

// What the scripts ask, where the answer must be quick, or nothing.
test('nothing is printed where nothing can be known', (t) => {
  const { installed, wiki, home } = makeStage(t);
  const ask = (cwd, ...words) => {
    try {
      return execFileSync(installed.program, ['complete', '--', ...words], { cwd, encoding: 'utf8', stdio: 'pipe' });
    } catch (error) {
      return error.stdout + error.stderr;
    }
  };
  assert.equal(ask(home, 'show', ''), '', 'no repository');
  writeFileSync(join(wiki.root, 'ossilar.toml'), '[wiki\n');
  assert.equal(ask(wiki.root, 'show', ''), '', 'a configuration that is wrong');
  assert.equal(ask(wiki.root, 'frobnicate', ''), 'words\n', 'no such command');
  assert.match(ask(wiki.root, ''), /^init\t/m, 'commands need no wiki');
});

test('a clone that was never set up completes its stored pages', (t) => {
  const { installed, wiki } = makeStage(t);
  const ask = () => execFileSync(installed.program, ['complete', '--', 'show', ''], { cwd: wiki.root, encoding: 'utf8' });
  assert.match(ask(), /^beta\t/m);
  mkdirSync(join(wiki.root, 'elsewhere'));
  renameSync(join(wiki.root, '.ossilar'), join(wiki.root, 'elsewhere/state'));
  assert.equal(ask(), 'words\nalpha\n');
  assert.ok(!existsSync(join(wiki.root, '.ossilar')), 'asking writes nothing');
});
