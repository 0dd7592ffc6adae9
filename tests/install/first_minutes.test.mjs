// What a stranger meets: the bare name, init, and a machine that lacks something.
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { readdirSync, rmSync, symlinkSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { makeFolder, makeWiki, program } from '../clients/wiki.mjs';

function ossilar(root, args, env = {}) {
  const { status, stdout, stderr } = spawnSync(program, ['--repo', root, ...args], {
    encoding: 'utf8',
    env: { ...process.env, ...env },
  });
  return { status, stdout, stderr };
}

test('the bare name says what this is and the one next step', (t) => {
  for (const [root, next] of [[makeFolder(t), 'init'], [makeWiki(t).root, 'status']]) {
    const { status, stdout } = ossilar(root, []);
    assert.equal(status, 2, 'a script whose command is empty fails');
    assert.match(stdout, /keeps a wiki about a code repository/);
    assert.deepEqual(stdout.match(/^ {2}ossilar \w+$/gm), [`  ossilar ${next}`]);
  }
});

test('init ends with a page to write, and the command that it names works', (t) => {
  const { root } = makeWiki(t);
  const { stdout } = ossilar(root, ['init']);
  const [, page] = /\nThe first page to write is (\S+), ".*":\n {2}ossilar context \1 .*\n.*save \1.*\n$/.exec(stdout);
  const context = ossilar(root, ['context', page, '--json']);
  assert.ok(JSON.parse(context.stdout).source_files.length > 0, 'it is about code');
});

// A folder with the programs that a machine has, for PATH.
function machine(t, { ctags = true } = {}) {
  const bin = makeFolder(t);
  symlinkSync(program, join(bin, 'ossilar'));
  if (ctags) for (const folder of process.env.PATH.split(':')) {
    try {
      symlinkSync(join(folder, readdirSync(folder).find((name) => name === 'ctags')), join(bin, 'ctags'));
      break;
    } catch {
      continue; // not in this folder, or no folder
    }
  }
  return bin;
}

const ODD = [
  ['symbols', 'no symbol tool', () => {}, /universal-ctags/, { ctags: false }],
  ['configuration', 'a key that is none', ({ root }) => writeFileSync(join(root, 'ossilar.toml'), '[wiki]\nx = 1\n'), /ossilar\.toml:2/],
  [
    'configuration',
    'no key for the service',
    ({ root }) =>
      writeFileSync(
        join(root, 'ossilar.toml'),
        '[embedding]\nprovider = "http"\nurl = "http://localhost/v1"\nmodel = "m"\napi_key_env = "OSSILAR_NO_KEY"\n',
      ),
    /export OSSILAR_NO_KEY=/,
  ],
  ['wiki', 'no wiki', ({ root }) => rmSync(join(root, '.ossilar'), { recursive: true }), /ossilar init/],
  ['git', 'a broken repository', ({ root }) => writeFileSync(join(root, '.git/HEAD'), '?\n'), /git repository/],
  ['clients', "a client's file without us", ({ root }) => writeFileSync(join(root, '.mcp.json'), '{}\n'), /ossilar init --client claude-code/],
  ['file system', 'no place to write', ({ root }) => {
    rmSync(join(root, '.ossilar'), { recursive: true });
    writeFileSync(join(root, '.ossilar'), '');
  }, /cannot write/],
];

test('doctor names what is odd, how to mend it, and nothing else', (t) => {
  for (const [about, why, spoil, says, lacks] of ODD) {
    const wiki = makeWiki(t);
    spoil(wiki);
    const { status, stdout } = ossilar(wiki.root, ['doctor', '--json'], { PATH: machine(t, lacks) });
    const { ok, examined } = JSON.parse(stdout);
    assert.equal(status, 1, why);
    assert.equal(ok, false, why);
    const odd = examined.filter((each) => !each.ok);
    const one = odd.find((each) => each.about === about);
    assert.ok(one, `${why}: ${stdout}`);
    assert.match(`${one.found} ${one.advice}`, says, why);
    assert.ok(one.advice, why);
  }
});

test('doctor finds nothing odd on a machine that has all, and leaves nothing', (t) => {
  const wiki = makeWiki(t);
  const state = () => readdirSync(join(wiki.root, '.ossilar')).filter((name) => !name.includes('index.db'));
  const before = state();
  ossilar(wiki.root, ['init', '--client', 'claude-code']);
  const { status, stdout } = ossilar(wiki.root, ['doctor'], { PATH: machine(t) });
  assert.equal(status, 0, stdout);
  assert.doesNotMatch(stdout, /^odd/m);
  assert.match(stdout, /^ok +clients +claude-code$/m);
  assert.deepEqual(state(), before);
});
