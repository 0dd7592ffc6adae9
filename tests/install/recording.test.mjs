// The first minutes in a terminal, as README shows them: played anew, they must be what stands there. With
// OSSILAR_RECORD=1 what was played is written into README.
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { test } from 'node:test';
import { makeFolder, program } from '../clients/wiki.mjs';

const README = new URL('../../README.md', import.meta.url);
const BLOCK = /(<!-- played by tests\/install\/recording\.test\.mjs -->\n```\n)([^]*?)(```\n)/;

const FILES = {
  'greet.c': '#include <stdio.h>\n\n/* One line per name. */\nint greet(const char *name) {\n  return printf("Hello, %s!\\n", name);\n}\n',
  'main.c': 'int greet(const char *name);\n\nint main(int argc, char **argv) {\n  for (int i = 1; i < argc; ++i) greet(argv[i]);\n  return 0;\n}\n',
  'notes.md': 'It greets people.\n',
  'page.md':
    'A program that greets people.\n\n## Purpose\n\nEverybody who is named on the command line [main.c:L4] is greeted, with a line for\neach name [greet.c:L5].\n\n## Getting started\n\nCompile both files, and call the program with names: they are its arguments [main.c:L3].\n',
};

const SCENES = [
  'ossilar init | head -n 3',
  'ossilar save overview notes.md',
  'ossilar save overview page.md',
  'ossilar search "who is greeted" -n 1',
  'sed -i "s/Hello/Good day/" greet.c',
  'ossilar check',
];

function makeProject(t) {
  const home = makeFolder(t);
  const root = join(home, 'greeter');
  const bin = join(home, 'bin');
  for (const folder of [root, bin]) mkdirSync(folder);
  for (const [name, text] of Object.entries(FILES)) writeFileSync(join(root, name), text);
  const git = (...args) => execFileSync('git', ['-C', root, '-c', 'user.name=t', '-c', 'user.email=t@example.org', ...args], { stdio: 'pipe' });
  git('init', '--quiet', '--initial-branch=main');
  git('add', 'greet.c', 'main.c');
  git('commit', '--quiet', '--no-gpg-sign', '--message=sources');
  return { home, root };
}

function played({ home, root }) {
  const env = { ...process.env, PATH: `${dirname(program)}:${process.env.PATH}`, LC_ALL: 'C.UTF-8' };
  return SCENES.map((line) => {
    const { status, stdout, stderr } = spawnSync('bash', ['-o', 'pipefail', '-c', line], { cwd: root, env, encoding: 'utf8' });
    const end = status === 0 ? '' : `(exit status ${status})\n`;
    return `$ ${line}\n${stdout}${stderr}${end}`.replaceAll(home, '~');
  }).join('');
}

test('README shows what a terminal shows', (t) => {
  const readme = readFileSync(README, 'utf8');
  const now = played(makeProject(t));
  if (process.env.OSSILAR_RECORD) {
    writeFileSync(README, readme.replace(BLOCK, (_, before, old, after) => before + now + after));
    return;
  }
  assert.equal(BLOCK.exec(readme)?.[2], now);
});
