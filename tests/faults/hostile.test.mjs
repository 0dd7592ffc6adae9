// Repositories, pages and clients that mean harm. Whatever they hold, every command ends with a documented exit code
// and in bounded time, changes nothing but the wiki and .ossilar, and shows no byte of what lies outside.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { createHash } from 'node:crypto';
import * as fs from 'node:fs';
import { createServer } from 'node:net';
import { join } from 'node:path';
import { test } from 'node:test';
import { LATEST, lineClient, makeFolder, numbers, pageAbout, program, sectionText } from '../clients/wiki.mjs';
import { run, wikiWithAlpha } from './sweep.mjs';
import { without } from '../clients/needs.mjs';

const SECRET = 'TheSecretOfTheNeighbour';
const HANG_S = 60; // far beyond what any of these takes

// A folder beside the repository whose content must not be seen, and must not change.
function makeOutside(t) {
  const folder = makeFolder(t);
  fs.mkdirSync(join(folder, 'folder'));
  const files = {
    'secret.md': `# ${SECRET}\n\n## ${SECRET}\n\n${SECRET} [src/alpha.cpp:L1]\n`,
    'secret.toml': `[wiki]\n${SECRET} = 1\n`,
    'secret.json': `{"format": 1, "pages": [{"page_id": "${SECRET}"}]}\n`,
    'index.db': SECRET.repeat(1000),
    'folder/secret.cpp': `int ${SECRET}();\n`,
  };
  for (const [name, text] of Object.entries(files)) fs.writeFileSync(join(folder, name), text);
  return folder;
}

const isOwn = (path) => /^(wiki|\.ossilar|\.git)(\/|$)/.test(path);
const isForeign = (path) => !isOwn(path);

// Every path below `root` with what is there, links not followed.
function contentOf(root, wanted = () => true) {
  const found = {};
  const options = { encoding: 'latin1', maxBuffer: 1 << 28 };
  const list = execFileSync('find', [root, '-mindepth', '1', '-printf', '%P\\0'], options);
  for (const path of list.split('\0')) {
    if (path === '' || !wanted(path)) continue;
    const file = Buffer.concat([Buffer.from(`${root}/`), Buffer.from(path, 'latin1')]);
    const info = fs.lstatSync(file);
    if (info.isSymbolicLink()) found[path] = `link ${fs.readlinkSync(file)}`;
    else if (info.isFile()) found[path] = createHash('sha256').update(fs.readFileSync(file)).digest('hex');
    else found[path] = 'other';
  }
  return found;
}

function filesThatHold(root, text) {
  return Object.keys(contentOf(root, (path) => isOwn(path) && !path.startsWith('.git'))).filter((path) => {
    const file = join(root, path);
    return fs.lstatSync(file).isFile() && fs.readFileSync(file).includes(text);
  });
}

const COMMANDS = [
  ['status', []],
  ['plan', []],
  ['context', ['alpha']],
  ['show', ['alpha']],
  ['search', ['first']],
  ['check', []],
  ['save', ['alpha'], pageAbout('alpha', 3, 'again')],
  ['save', ['alpha', '--section', 'Section 1'], sectionText('alpha', 1, 'section')],
  ['check', ['--fix']],
  ['init', []],
];

// What is wrong with how the command ended, or "".
function faultOf(what, { code, signal, stdout, stderr }) {
  const said = `${what}: exit ${code}, signal ${signal}\n${stdout.slice(0, 500)}\n${stderr.slice(0, 500)}`;
  if (signal !== null || ![0, 1, 2, 3].includes(code)) return said;
  if (code > 1 && !/^ossilar: .{10}/m.test(stderr)) return `no message: ${said}`;
  return (stdout + stderr).includes(SECRET) ? `the secret: ${said}` : '';
}

// Runs every command and gives what went wrong, and each command's exit code.
async function tryEverything(root, commands = COMMANDS) {
  const faults = [];
  const codes = {};
  for (const [command, args, input] of commands) {
    const what = [command, ...args].join(' ');
    const limited = ['--signal=KILL', `${HANG_S}`, program, '--repo', root, command, ...args];
    const result = await run('timeout', limited, { input });
    const fault = faultOf(what, result);
    if (fault) faults.push(fault);
    codes[what] = result.code;
    codes.said = `${codes.said ?? ''}${result.stdout}${result.stderr}`;
  }
  return { faults, codes };
}

async function assertHarmless(wiki, outside, commands) {
  const [before, there] = [contentOf(wiki.root, isForeign), contentOf(outside)];
  const { faults, codes } = await tryEverything(wiki.root, commands);
  assert.deepEqual(faults, []);
  assert.deepEqual(contentOf(outside), there, 'nothing outside changed');
  assert.deepEqual(contentOf(wiki.root, isForeign), before, 'nothing in the repository but the wiki changed');
  assert.deepEqual(filesThatHold(wiki.root, SECRET), [], 'nothing from outside was taken in');
  return codes;
}

const world = (t) => ({ wiki: wikiWithAlpha(t), outside: makeOutside(t) });

const LINKS = [
  ['wiki/pages/alpha.md', 'secret.md'],
  ['wiki/pages/beta.md', 'none.md'],
  ['wiki/pages', 'folder'],
  ['wiki', 'folder'],
  ['wiki/index.md', 'secret.md'],
  ['wiki/manifest.json', 'secret.json'],
  ['.ossilar', 'folder'],
  ['.ossilar/index.db', 'index.db'],
  ['.ossilar/index.db', 'none.db'],
  ['.ossilar/index.db-wal', 'index.db'],
  ['.ossilar/write.lock', 'secret.md'],
  ['.ossilar/write.lock', 'none.md'],
  ['.ossilar/drafts', 'folder'],
  ['.ossilar/replaced', 'folder'],
  ['.ossilar/.gitignore', 'secret.md'],
  ['wiki/pages/alpha.md', './alpha.md'],
  ['ossilar.toml', 'secret.toml'],
  ['src/alpha.cpp', 'folder/secret.cpp'],
  ['src', 'folder'],
];

for (const [path, target] of LINKS) {
  test(`${path} is a link to ${target}`, async (t) => {
    const { wiki, outside } = world(t);
    fs.rmSync(join(wiki.root, path), { recursive: true, force: true });
    fs.symlinkSync(target.startsWith('.') ? target : join(outside, target), join(wiki.root, path));
    await assertHarmless(wiki, outside);
    await assertHarmless(wiki, outside, [['save', ['alpha'], 'a text that is refused'], ...COMMANDS]);
  });
}

test('a kernel that cannot be told to stay below a folder', { skip: without('strace') }, async (t) => {
  const { wiki, outside } = world(t);
  fs.appendFileSync(join(wiki.root, 'ossilar.toml'), '[[page]]\nid = "topics/secret"\nsources = ["src/alpha.cpp"]\n');
  wiki.save('topics/secret', pageAbout('alpha'));
  fs.rmSync(join(wiki.root, 'wiki/pages/topics'), { recursive: true });
  fs.symlinkSync(outside, join(wiki.root, 'wiki/pages/topics'));
  for (const error of ['ENOSYS', 'EPERM']) {
    const inject = ['-f', '-o', join(wiki.root, '.git/calls'), '-e', `inject=openat2:error=${error}`];
    const show = (id) => run('strace', [...inject, program, '--repo', wiki.root, 'show', id]);
    const { code, stdout } = await show('topics/secret');
    assert.notEqual(code, 0);
    assert.ok(!stdout.includes(SECRET));
    assert.equal((await show('alpha')).code, 0);
  }
});

const WIKI_FILES = ['pages/alpha.md', 'index.md', 'manifest.json'].map((name) => `wiki/${name}`);

for (const path of [...WIKI_FILES, '.ossilar/index.db', '.ossilar/write.lock', 'src/alpha.cpp']) {
  test(`${path} is a pipe`, async (t) => {
    const { wiki, outside } = world(t);
    fs.rmSync(join(wiki.root, path));
    execFileSync('mkfifo', [join(wiki.root, path)]);
    await assertHarmless(wiki, outside);
  });
}

test('a source tree of links that leave it or go round, pipes, sockets, and names that nobody expects', async (t) => {
  const { wiki, outside } = world(t);
  const at = (name) => join(wiki.root, 'src', name);
  fs.symlinkSync('.', at('loop'));
  fs.symlinkSync(join(outside, 'folder'), at('leaves'));
  fs.symlinkSync(join(outside, 'secret.md'), at('leaves.md'));
  execFileSync('mkfifo', [at('pipe.cpp')]);
  const socket = createServer().listen(at('socket.cpp'));
  t.after(() => socket.close());
  const names = ['-rf.cpp', '--repo', 'new\nline.cpp', 'tab\t.cpp', '$(touch x).cpp', '`id`.cpp', "it's.cpp"];
  for (const name of [...names, 'ＷＩＤＥ.cpp', '\u202egpj.cpp']) fs.writeFileSync(at(name), 'int x();\n');
  fs.writeFileSync(Buffer.concat([Buffer.from(at('')), Buffer.from([0xff, 0xfe, 0x2e, 0x63])]), 'int y();\n');
  execFileSync('git', ['-C', wiki.root, 'add', '--all', '--ignore-errors'], { stdio: 'ignore' });
  const codes = await assertHarmless(wiki, outside);
  assert.equal(codes.status, 0);
  assert.doesNotMatch(codes.said, /\u202e/, 'no control of direction is shown raw');
});

test('a repository whose configuration would run programs', async (t) => {
  const { wiki, outside } = world(t);
  const ran = join(outside, 'ran');
  const script = join(wiki.root, '.git', 'evil.sh');
  fs.writeFileSync(script, `#!/bin/sh\ntouch ${ran}\n`);
  fs.chmodSync(script, 0o755);
  const settings = [
    ...['core.fsmonitor', 'core.sshCommand', 'core.editor', 'core.pager', 'diff.external', 'alias.status'],
    ...['filter.x.clean', 'filter.x.smudge', 'filter.x.process', 'credential.helper', 'gpg.program'],
    'uploadpack.packObjectsHook',
  ];
  for (const name of settings) execFileSync('git', ['-C', wiki.root, 'config', name, script]);
  execFileSync('git', ['-C', wiki.root, 'config', 'core.hooksPath', join(wiki.root, '.git')]);
  execFileSync('git', ['-C', wiki.root, 'config', 'include.path', join(outside, 'secret.toml')]);
  fs.writeFileSync(join(wiki.root, '.gitattributes'), '* filter=x diff=x\n');
  for (const name of ['.ctags', '.ctags.d'])
    fs.writeFileSync(join(wiki.root, name), `--options=${join(outside, 'secret.md')}\n`);
  await assertHarmless(wiki, outside);
  assert.ok(!fs.existsSync(ran), 'no program was run');
});

const CONFIGURATIONS = [
  ['[wiki]\ndir = "../outside"\n', 2],
  ['[wiki]\ndir = "/tmp/outside"\n', 2],
  ['[wiki]\ndir = ".git/hooks"\n', 2],
  ['[wiki]\ndir = "src/../.."\n', 2],
  ['[[page]]\nid = "../../x"\n', 2],
  ['[[page]]\nid = "/etc/x"\n', 2],
  ['[[page]]\nid = "%2e%2e/x"\n', 2],
  ['[[page]]\nid = "a\\u0000b"\n', 2],
  [`a = ${'['.repeat(100000)}\n`, 2],
  [`${'a.'.repeat(100000)}a = 1\n`, 2],
  ['[[page]]\nid = "p"\nsources = ["../**", "/etc/*"]\n', undefined],
];

for (const [text, code] of CONFIGURATIONS) {
  test(`ossilar.toml with ${JSON.stringify(text.slice(0, 40))}`, async (t) => {
    const { wiki, outside } = world(t);
    fs.writeFileSync(join(wiki.root, 'ossilar.toml'), text);
    const codes = await assertHarmless(wiki, outside);
    if (code !== undefined) assert.equal(codes.status, code);
  });
}

const sqlite = (file, statements) => execFileSync('sqlite3', [file, statements], { stdio: 'pipe' });
const page = (count, text) => `${text.repeat(count)}\n\n## A\n\n[src/alpha.cpp:L1] [src/alpha.cpp:L2]\n`;

const DATABASES = [
  ['cut off', (file) => fs.truncateSync(file, 5000), 3],
  ['of no bytes', (file) => fs.truncateSync(file, 0), 0],
  ['noise', (file) => fs.writeFileSync(file, createHash('sha512').digest().toString('hex').repeat(500)), 3],
  ['a folder', (file) => (fs.rmSync(file), fs.mkdirSync(file)), 3],
  ['of another program', (file) => (fs.rmSync(file), sqlite(file, 'PRAGMA application_id = 7; CREATE TABLE t (x)')), 3],
  ['of a newer ossilar', 'PRAGMA user_version = 99', 3],
  ['with pages that lead out', "UPDATE pages SET page_id = '../../../x', rel_path = '/etc/passwd'", 0],
  ['with a trigger', "CREATE TRIGGER t AFTER UPDATE ON pages BEGIN UPDATE pages SET title = load_extension('x'); END"],
  ['with a view for a table', 'ALTER TABLE stale_marks RENAME TO m; CREATE VIEW stale_marks AS SELECT * FROM m'],
  ['with rows that are no rows', "UPDATE pages SET source_hashes = '[[[['", 3],
];

for (const [what, damage, code] of DATABASES) {
  test(`a database ${what}`, { skip: without('sqlite3') }, async (t) => {
    const { wiki, outside } = world(t);
    for (const end of ['-wal', '-shm']) fs.rmSync(join(wiki.root, `.ossilar/index.db${end}`), { force: true });
    const file = join(wiki.root, '.ossilar/index.db');
    typeof damage === 'string' ? sqlite(file, damage) : damage(file);
    const codes = await assertHarmless(wiki, outside);
    if (code !== undefined) assert.equal(codes.status, code, codes.said);
  });
}

const TEXTS = [
  ['100,000 quotes', '>'.repeat(100000)],
  ['100,000 brackets', '['.repeat(100000)],
  ['100,000 closing brackets', ']'.repeat(100000)],
  ['emphasis', '*a _b '.repeat(20000)],
  ['lists', numbers(500).map((i) => `${' '.repeat(i)}- a`).join('\n')],
  ['images', '!['.repeat(50000)],
  ['code marks', numbers(400).map((i) => '`'.repeat(i)).join(' ')],
  ['entities', '&#'.repeat(50000)],
  ['tables', '|a'.repeat(50000)],
  ['HTML', '<a '.repeat(50000)],
  ['comments', '<!--'.repeat(50000)],
  ['definitions', numbers(20000).map((i) => `[d${i}]: /u`).join('\n')],
  ['references', '[d1]: /u\n\n' + '[d1] '.repeat(50000)],
  ['citations', numbers(20000).map((i) => `[src/alpha.cpp:L${i}]`).join('\n')],
  ['one line of nearly 1 MiB', 'x'.repeat(1000000)],
  ['headings', '## A\n'.repeat(30000)],
  ['markers', '<!-- ossilar:generated -->\n'.repeat(20000)],
  ['conflict marks', '<<<<<<< a\n'.repeat(50000)],
  ['NUL', 'a\0b '.repeat(1000)],
];

test('page texts that are hard to read', async (t) => {
  const { wiki, outside } = world(t);
  for (const [what, text] of TEXTS) {
    const commands = [
      ['save', ['alpha'], page(1, text)],
      ['save', ['alpha', '--section', 'A'], text],
      ['check', []],
      ['show', ['alpha', '--section', 'A']],
    ];
    await assertHarmless(wiki, outside, commands).catch((error) => {
      throw new Error(what, { cause: error });
    });
  }
});

test('manifests that are hard to read', async (t) => {
  const { wiki, outside } = world(t);
  for (const text of [
    '['.repeat(1000000),
    '{"a":'.repeat(1000000),
    `{"format": 1, "pages": [${'{"page_id": "a"},\n'.repeat(50000)}`,
    '"'.repeat(1000000),
  ]) {
    fs.writeFileSync(join(wiki.root, 'wiki/manifest.json'), text);
    const codes = await assertHarmless(wiki, outside);
    assert.equal(codes['check --fix'], 0, 'it is written anew');
  }
});

// On a terminal, as script(1) gives one.
test('what controls a terminal does not reach it', { skip: without('script') }, async (t) => {
  const { wiki } = world(t);
  const controls = /[\x00-\x08\x0b\x0c\x0e-\x1f\x7f\u0080-\u009f\u061c\u200e\u200f\u202a-\u202e\u2066-\u2069]/;
  const nasty = 'red \x1b[31m bell \x07 title \x1b]0;x\x07 c1 \u009b2J bidi \u202e\u2066\u200f\u061c end';
  wiki.save('alpha', `${nasty} [src/alpha.cpp:L1]\n\n## ${nasty}\n\n[src/alpha.cpp:L2] ${nasty}\n`);
  fs.writeFileSync(join(wiki.root, 'wiki/pages/\x1b[31m\u202e.md'), nasty);
  const commands = ['show alpha', 'search red', 'plan', 'status', 'check', 'context alpha'];
  for (const command of [...commands, `show '\x1b[2J'`, `save '\x1b[2J' /dev/null`]) {
    // Not standard error, where the program itself draws its progress.
    const errors = join(wiki.root, '.git/errors');
    const line = `NO_COLOR=1 '${program}' --repo '${wiki.root}' ${command} 2>${errors}`;
    const shown = await run('script', ['-qec', line, '/dev/null']);
    assert.doesNotMatch(shown.stdout + fs.readFileSync(errors, 'utf8'), controls, command);
  }
});

const IDS = [
  ...['../../secret', '..', '/etc/passwd', '%2e%2e/x', 'alpha/../../x', 'ALPHA', 'alpha\0', 'alpha\n', './alpha'],
  ...['alpha.md', '-x', '', 'a'.repeat(5000), '\u202ealpha'],
];

test('page ids and addresses that lead elsewhere', async (t) => {
  const { wiki, outside } = world(t);
  fs.symlinkSync(join(outside, 'secret.md'), join(wiki.root, 'secret.md'));
  const before = contentOf(wiki.root, isForeign);
  const client = await lineClient(t, wiki, LATEST);
  for (const id of IDS) {
    for (const [tool, more] of [['read_page'], ['page_context'], ['save_page', { content: pageAbout('alpha') }]]) {
      const reply = await client.call(tool, { page_id: id, ...more });
      assert.ok(reply.error || reply.result.isError, `${tool} ${JSON.stringify({ id, reply }).slice(0, 200)}`);
    }
    for (const uri of [`ossilar://pages/${id}`, `ossilar://drafts/${id}`, `file://${outside}/secret.md`]) {
      const reply = await client.request('resources/read', { uri });
      assert.ok(reply.error, `${uri}: ${JSON.stringify(reply).slice(0, 200)}`);
    }
    if (id.includes('\0')) continue; // no argument can hold it
    const { faults } = await tryEverything(wiki.root, [
      ['show', ['--', id]],
      ['context', ['--', id]],
      ['save', ['--', id], pageAbout('alpha')],
    ]);
    assert.deepEqual(faults, []);
  }
  await client.end();
  assert.ok(!JSON.stringify(client.messages).includes(SECRET) && !client.stderr.includes(SECRET));
  assert.deepEqual(contentOf(wiki.root, isForeign), before);
});

test('lines that nest a million deep', async (t) => {
  const { wiki } = world(t);
  const client = await lineClient(t, wiki, LATEST);
  const deep = '['.repeat(1000000);
  for (const line of [deep, '{"a":'.repeat(1000000), `{"jsonrpc":"2.0","id":"deep","method":"ping","params":${deep}`])
    client.send(line);
  const reply = await client.call('read_page', { page_id: 'alpha' });
  assert.equal(reply.result.isError ?? false, false, 'the session goes on');
  await client.end();
});

function restore(file, aside) {
  fs.rmSync(file, { force: true, recursive: !fs.lstatSync(file, { throwIfNoEntry: false })?.isSymbolicLink() });
  fs.renameSync(aside, file);
}

// Files, pages and folders that change into something else and back while commands run.
test('a page and a source that change while they are read', async (t) => {
  const { wiki, outside } = world(t);
  const flips = [
    ['wiki/pages/alpha.md', 'secret.md'],
    ['src/alpha.cpp', 'folder/secret.cpp'],
    ['wiki/pages', 'folder'],
  ];
  for (const [path, target] of flips) {
    const file = join(wiki.root, path);
    const aside = `${file}.aside`;
    const flip = setInterval(() => {
      try {
        if (fs.existsSync(aside)) restore(file, aside);
        else {
          fs.renameSync(file, aside);
          fs.symlinkSync(join(outside, target), file);
        }
      } catch {
        // A save has put a file there in between.
      }
    }, 1);
    const rounds = [];
    for (let round = 0; round < 4; ++round) rounds.push(await tryEverything(wiki.root));
    clearInterval(flip);
    if (fs.existsSync(aside)) restore(file, aside);
    assert.deepEqual(rounds.flatMap((round) => round.faults), []);
    assert.deepEqual(filesThatHold(wiki.root, SECRET), []);
  }
});
