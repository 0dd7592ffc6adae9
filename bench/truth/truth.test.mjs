// Cases made by hand for the rules of truth.mjs.
//   tests/clients/node --test bench/truth/truth.test.mjs
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { test } from 'node:test';
import { hunksOf, judge, keptAt, linesOf, places, Truth } from './truth.mjs';

const body = (word) =>
  [`int ${word}(int given) {`, `  const int ${word}_doubled = given * 2;`, `  return ${word}_doubled + 1;`, '}'];
const one = body('first_function');
const two = body('second_function');
const three = body('third_function');
const file = (...parts) => `${parts.flat().join('\n')}\n`;

// A repository of two commits with these files, removed when test `t` ends.
function history(t, before, after) {
  const root = mkdtempSync(join(tmpdir(), 'ossilar-truth-'));
  t.after(() => rmSync(root, { recursive: true, force: true }));
  const git = (...args) =>
    execFileSync('git', ['-C', root, '-c', 'user.name=t', '-c', 'user.email=t@example.org', ...args], {
      encoding: 'utf8',
    });
  const commit = (files) => {
    for (const [path, text] of Object.entries(files)) {
      mkdirSync(dirname(join(root, path)), { recursive: true });
      writeFileSync(join(root, path), text);
    }
    git('add', '--all');
    git('commit', '--quiet', '--no-gpg-sign', '--allow-empty', '--message=step');
    const hash = git('rev-parse', 'HEAD').trim();
    git('rm', '--quiet', '-r', '--ignore-unmatch', '.');
    return hash;
  };
  git('init', '--quiet');
  return { truth: new Truth(root), a: commit(before), b: commit(after) };
}

// Each row: why it is here, the text cited at A as path and lines, the files of both commits, and what is true.
const CASES = [
  ['nothing changed', ['a.c', 1, 4], { 'a.c': file(one) }, { 'a.c': file(one) }, 'same a.c:1-4'],
  ['a line above', ['a.c', 1, 4], { 'a.c': file(one) }, { 'a.c': file('// new', one) }, 'moved a.c:2-5'],
  ['a line below', ['a.c', 1, 4], { 'a.c': file(one) }, { 'a.c': file(one, '// new') }, 'same a.c:1-4'],
  [
    'a line of it changed',
    ['a.c', 1, 4],
    { 'a.c': file(one, two) },
    { 'a.c': file(one.with(1, '  other'), two) },
    'changed a.c',
  ],
  [
    'a line put between its lines',
    ['a.c', 1, 4],
    { 'a.c': file(one, two) },
    { 'a.c': file(one.toSpliced(2, 0, '  log();'), two) },
    'changed a.c',
  ],
  ['the file is gone', ['a.c', 1, 4], { 'a.c': file(one) }, { 'b.c': file(three) }, 'changed'],
  [
    'the file was renamed',
    ['a.c', 5, 8],
    { 'a.c': file(one, two) },
    { 'lib/a.c': file(one, two) },
    'moved lib/a.c:5-8',
  ],
  [
    'renamed, and a line above',
    ['a.c', 5, 8],
    { 'a.c': file(one, two, three) },
    { 'lib/a.c': file('// new', one, two, three) },
    'moved lib/a.c:6-9',
  ],
  [
    'the same path wins over a copy elsewhere',
    ['a.c', 1, 4],
    { 'a.c': file(one, two) },
    { 'a.c': file(two), 'b.c': file(one, two) },
    'changed a.c',
  ],
  [
    'two functions changed places',
    ['a.c', 1, 4],
    { 'a.c': file(one, two, three) },
    { 'a.c': file(two, three, one) },
    'moved a.c:9-12',
  ],
  ['line ends alone changed', ['a.c', 1, 4], { 'a.c': file(one) }, { 'a.c': file(one).replaceAll('\n', '\r\n') }, 'same a.c:1-4'],
  [
    'a short line that changed places with long ones',
    ['a.c', 1, 1],
    { 'a.c': file('short();', one, two) },
    { 'a.c': file(one, two, 'short();') },
    'undecided a.c',
  ],
  [
    'one of two identical bodies was taken away, so the diffs may choose either',
    ['a.c', 1, 4],
    { 'a.c': file(one, 'int x;', one) },
    { 'a.c': file('int x;', one) },
    'undecided a.c',
  ],
];

for (const [why, [path, first, last], before, after, wanted] of CASES)
  test(why, (t) => {
    const { truth, a, b } = history(t, before, after);
    const found = truth.of(a, path, first, last, b);
    const where = found.path ? ` ${found.path}` : '';
    assert.equal(`${found.verdict}${where}${found.first ? `:${found.first}-${found.last}` : ''}`, wanted);
  });

test('a range is kept only when no hunk touches it', () => {
  const hunks = hunksOf('@@ -2 +2,3 @@\n-a\n+b\n@@ -6,2 +8,0 @@\n@@ -10,0 +11 @@ int f()\n');
  assert.deepEqual(hunks, [
    { from: 2, removed: 1, added: 3 },
    { from: 6, removed: 2, added: 0 },
    { from: 10, removed: 0, added: 1 },
  ]);
  const kept = (first, last) => keptAt(hunks, first, last);
  assert.equal(kept(1, 1), 1);
  assert.equal(kept(1, 2), null);
  assert.equal(kept(3, 5), 5);
  assert.equal(kept(7, 8), null);
  assert.equal(kept(8, 10), 8, 'a line put in after the last one is outside');
  assert.equal(kept(10, 11), null, 'a line put in between two is inside');
  assert.equal(kept(11, 12), 12);
});

test('where the algorithms do not agree, one place decides and two do not', () => {
  const [a, once, twice] = [linesOf(file(one)), linesOf(file('x', one)), linesOf(file(one, 'x', one))];
  assert.deepEqual(judge(a, once, 1, 4, [2, null, 2]), { at: 2 });
  assert.deepEqual(judge(a, twice, 1, 4, [1, 6, 1]), { verdict: 'undecided' });
});

test('a text is relocated only when it is long and alone in both files', () => {
  const none = [null, null, null];
  const lines = (...parts) => linesOf(file(...parts));
  assert.deepEqual(judge(lines(one), lines('x', one), 1, 4, none), { at: 2, relocated: true });
  assert.deepEqual(judge(lines(one), lines('x', one), 1, 2, none), { verdict: 'undecided' }, 'two lines');
  assert.deepEqual(judge(lines('a', 'b', 'c'), lines('x', 'a', 'b', 'c'), 1, 3, none), { verdict: 'undecided' });
  assert.deepEqual(judge(lines(one, one), lines('x', one), 1, 4, none), { verdict: 'undecided' }, 'twice at A');
  assert.deepEqual(places(['a', 'a', 'a'], ['a', 'a']), [1, 2]);
});
