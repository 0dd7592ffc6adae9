// An installation as its user finds it: where things are, and manual pages that say what `--help` says.
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { existsSync, readdirSync } from 'node:fs';
import { basename } from 'node:path';
import { test } from 'node:test';
import { makeFolder } from '../clients/wiki.mjs';
import { without } from '../clients/needs.mjs';
import { install } from './installed.mjs';

const output = (command, ...args) => execFileSync(command, args, { encoding: 'utf8', env: { ...process.env, MANWIDTH: '78' } });

// The commands that the program's help lists.
function commandsOf(program) {
  const [, list] = output(program, '--help').split('Subcommands:\n');
  return list.split('\n\n')[0].match(/^ {2}(\w+)/gm).map((line) => line.trim());
}

test('every thing is in its place', (t) => {
  const { program, file } = install(t);
  const commands = commandsOf(program);
  assert.ok(commands.length > 15 && !commands.includes('generate'), String(commands));
  const pages = readdirSync(file('share/man/man1'));
  assert.deepEqual(pages, ['ossilar', ...commands.map((name) => `ossilar-${name}`)].map((name) => `${name}.1`).sort());
  for (const path of ['share/man/man5/ossilar.toml.5', 'share/doc/ossilar/README.md', 'share/doc/ossilar/copyright'])
    assert.ok(existsSync(file(path)), path);
  const { version } = JSON.parse(output(program, '--version', '--json'));
  assert.equal(output(program, '--version'), `ossilar ${version}\n`);
});

test('the version tells what it was built with and what it reads', (t) => {
  const document = JSON.parse(output(install(t).program, '--json', '--version'));
  assert.match(document.compiler, /^(GCC|Clang) \d+/);
  for (const [name, version] of Object.entries(document.libraries)) assert.match(version, /^\d+\.\d+/, name);
  assert.ok(document.formats.protocol.includes('2025-11-25'));
  assert.equal(document.formats.manifest.writes, 2);
  assert.ok(document.formats.database.writes > document.formats.database.reads_from);
});

test('man shows what --help shows', { skip: without('man') }, (t) => {
  const { program, file } = install(t);
  const shown = (page) => output('man', '-l', '-P', 'cat', '--nh', '--nj', page);
  for (const page of readdirSync(file('share/man'), { recursive: true }).filter((name) => /\.\d$/.test(name))) {
    const warned = spawnSync('man', ['--warnings', '-l', '-P', 'cat', file(`share/man/${page}`)], { encoding: 'utf8' });
    assert.equal(warned.status, 0, page);
    assert.equal(warned.stderr, '', page);
    if (!page.endsWith('.1')) continue;
    const text = shown(file(`share/man/${page}`)).replaceAll(/\s+/g, ' ');
    const command = basename(page, '.1').split('-')[1];
    const help = output(program, ...(command ? [command] : []), '--help');
    for (const option of help.match(/--[a-z-]+/g)) assert.ok(text.includes(option), `${page}: ${option}`);
    for (const word of help.match(/^ {2,}ossilar .*$/gm) ?? []) assert.ok(text.includes(word.trim()), `${page}: ${word}`);
  }
});

test('the manual page of ossilar.toml names every key with its default', { skip: without('man') }, (t) => {
  const text = output('man', '-l', '-P', 'cat', install(t).file('share/man/man5/ossilar.toml.5'));
  for (const said of ['lock_timeout_s', 'Default: 30', '[[PAGE]]', 'min_citations_per_page'])
    assert.ok(text.toUpperCase().includes(said.toUpperCase()), said);
});

// As a package has it: nothing of what was installed needs the folder in which it was built.
test('an installation works from another folder, without a home', (t) => {
  const { program } = install(t);
  const root = makeFolder(t);
  const env = { PATH: process.env.PATH };
  const done = spawnSync(program, ['--repo', root, 'init'], { env, encoding: 'utf8' });
  assert.equal(done.status, 0, done.stderr);
});
