// The plan of a wiki over real repositories: scripts/bench plans FOLDER...
//
// Each folder is copied and gets a wiki. Printed are the pages about code: how many, how many of them have between
// 300 and 8,000 lines of source, how many are named by letters for want of anything better, the largest and the
// smallest. Then the plan itself, for the eye: no figure tells whether a maintainer would have drawn it so. PLAN=0
// leaves that out.
import { execFileSync } from 'node:child_process';
import { cpSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { basename, join } from 'node:path';
import { program } from '../tests/clients/wiki.mjs';
import { printTable } from './support.mjs';

const LEAST = 300;
const MOST = 8000;

const run = (root, ...args) =>
  execFileSync(program, ['--repo', root, ...args], { encoding: 'utf8', stdio: 'pipe', maxBuffer: 1 << 28 });
const ask = (root, ...args) => JSON.parse(run(root, '--json', ...args));

const linesOf = (root, path) => readFileSync(join(root, path)).filter((byte) => byte === 10).length;

// "src (a–m)" and "src (b*)", but not "src (t*)" where that is t_hash.c and t_list.c.
function isNamedByLetters({ title, paths }) {
  const letter = /\((\w)\*\)$/.exec(title)?.[1];
  const isWord = (path) => new RegExp(`^${letter}([_.-]|$)`, 'i').test(basename(path));
  return /\w–\w+\)$/.test(title) || (letter !== undefined && !paths.every(isWord));
}

function pagesOf(root) {
  const planned = ask(root, 'plan').pages.filter((page) => page.type === 'module');
  return planned.map(({ page_id, title, level }) => {
    const { source_files: paths } = ask(root, 'context', page_id);
    const lines = paths.reduce((sum, path) => sum + linesOf(root, path), 0);
    return { title, level, paths, lines };
  });
}

function printPlan(name, pages) {
  console.log(`\n${name}`);
  for (const { title, level, lines, paths } of pages) {
    const size = `${String(lines).padStart(7)} ${String(paths.length).padStart(4)}`;
    console.log(`${size}  ${'  '.repeat(level)}${title}`);
  }
}

function measure(folder) {
  const place = mkdtempSync(join(tmpdir(), 'ossilar-bench-'));
  const root = join(place, basename(folder)); // its name is in titles
  try {
    cpSync(folder, root, { recursive: true });
    for (const old of ['.ossilar', 'wiki', 'ossilar.toml']) rmSync(join(root, old), { recursive: true, force: true });
    run(root, 'init');
    return pagesOf(root);
  } finally {
    rmSync(place, { recursive: true, force: true });
  }
}

const rows = [];
for (const folder of process.argv.slice(2)) {
  const pages = measure(folder);
  if (process.env.PLAN !== '0') printPlan(basename(folder), pages);
  const sizes = pages.map((page) => page.lines);
  const even = sizes.filter((lines) => lines >= LEAST && lines <= MOST);
  rows.push({
    repository: basename(folder),
    pages: String(pages.length),
    'even %': (100 * even.length) / Math.max(1, pages.length),
    'by letters': String(pages.filter(isNamedByLetters).length),
    largest: String(Math.max(...sizes)),
    smallest: String(Math.min(...sizes)),
  });
}
console.log();
if (rows.length > 0) printTable(rows);
else console.error('name folders of source to plan');
