// Builds each mutant of mutants.txt and runs the tests named there: one of them must fail. Run by scripts/mutants, in a
// copy of the project.
//
//   mutants.mjs TREE [WORDS]   those whose name holds WORDS; TREE is the copy, configured and built in TREE/build/dev
import { spawnSync } from 'node:child_process';
import { readFileSync, writeFileSync } from 'node:fs';
import { join, resolve } from 'node:path';

const linesMarked = (mark, lines) => lines.filter((line) => line[0] === mark).map((line) => line.slice(1)).join('\n');

function readMutant(block) {
  const [name, where, ...lines] = block.split('\n');
  const [, path, tests] = /^@ (\S+) (\S+)$/.exec(where);
  return { name, path, tests, from: linesMarked('-', lines), to: linesMarked('+', lines) };
}

const table = readFileSync(new URL('mutants.txt', import.meta.url), 'utf8');
const MUTANTS = table.replace(/^#.*\n/gm, '').trim().split(/\n{2,}/).map(readMutant);

const [folder, words = ''] = process.argv.slice(2);
const tree = resolve(folder);
const build = join(tree, 'build/dev');

const run = (command, args) => spawnSync(command, args, { cwd: tree, encoding: 'utf8', maxBuffer: 1 << 28 });
const builds = () => run('cmake', ['--build', build]);
const runTests = (tests) =>
  run('ctest', ['--test-dir', build, '-j2', '--timeout', '180', '--no-tests=error', '-LE', 'root', '-R', `^(${tests})`]);

// The tests that failed; what ctest says when it could not run them.
function failuresOf(tests) {
  const { status, stdout, stderr } = runTests(tests);
  if (status === 0) return [];
  const failed = [...stdout.matchAll(/^\s+\d+ - (\S+) \(/gm)].map((match) => match[1]);
  if (failed.length === 0) throw new Error(`ctest: exit ${status}\n${stdout}${stderr}`);
  return failed;
}

// "caught by TEST", or what is wrong.
function outcomeOf(text, { from, tests }) {
  if (text.split(from).length !== 2) return 'NOT MADE: the text is not there once';
  const { status, stdout } = builds();
  if (status !== 0) return `NOT BUILT: ${/error: .*/.exec(stdout)?.[0]}`;
  const failed = failuresOf(tests);
  if (failed.length === 0) return 'SURVIVES';
  return `caught by ${failed[0]}${failed.length > 1 ? ` and ${failed.length - 1} more` : ''}`;
}

function tryMutant(mutant) {
  const { name, path, from, to } = mutant;
  const file = join(tree, 'src/ossilar', path);
  const text = readFileSync(file, 'utf8');
  const began = Date.now();
  writeFileSync(file, text.replace(from, () => to));
  try {
    const outcome = outcomeOf(text, mutant);
    console.log(`${name.padEnd(56)} ${String(Math.round((Date.now() - began) / 1000)).padStart(4)} s  ${outcome}`);
    return outcome.startsWith('caught');
  } finally {
    writeFileSync(file, text);
  }
}

const chosen = MUTANTS.filter(({ name }) => name.includes(words));
const suites = [...new Set(chosen.flatMap(({ tests }) => tests.split('|')))].join('|');
const untouched = failuresOf(suites);
if (untouched.length > 0) {
  console.error(`these fail without a mutant: ${untouched.join(', ')}`);
  process.exit(2);
}
const caught = chosen.filter(tryMutant).length;
console.log(`${chosen.length} mutants made, ${caught} caught`);
process.exitCode = caught === chosen.length && chosen.length > 0 ? 0 : 1;
