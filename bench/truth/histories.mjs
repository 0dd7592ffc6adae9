// Makes a git repository of each history: one commit a step, the same ones wherever it is made. What a step holds comes
// from a release that npm packs, or from a commit of this project. Source files alone are kept: what was built, bundled or
// minified is not text that anybody writes pages about.
import { execFileSync } from 'node:child_process';
import { createHash } from 'node:crypto';
import { existsSync, mkdirSync, readdirSync, readFileSync, renameSync, rmSync } from 'node:fs';
import { homedir } from 'node:os';
import { dirname, extname, join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { write } from '../support.mjs';

const PROJECT = fileURLToPath(new URL('../..', import.meta.url));
const RECIPE = 1; // raise it when the same history would be made differently
const CODE = new Set('.c .cc .cpp .cxx .h .hpp .js .mjs .cjs .jsx .ts .tsx .sh'.split(' '));
const LARGEST = 512 * 1024;
const LONGEST_LINE = 2000;

export const cacheFolder = () =>
  process.env.OSSILAR_TRUTH_CACHE ??
  join(process.env.XDG_CACHE_HOME ?? join(homedir(), '.cache'), 'ossilar-truth');

export const histories = () =>
  JSON.parse(readFileSync(new URL('histories.json', import.meta.url), 'utf8')).map((history) => ({
    ...history,
    versions: history.versions?.split(' '),
  }));

const run = (command, args, options = {}) =>
  execFileSync(command, args, { encoding: 'utf8', maxBuffer: 1 << 28, stdio: ['pipe', 'pipe', 'pipe'], ...options });

// `lib/` stands for all below it, `*.js` for such files of the top folder, and anything else for itself.
const isKept = (keep, path) =>
  keep.some((rule) => {
    if (rule.endsWith('/')) return path.startsWith(rule);
    return rule.startsWith('*') ? !path.includes('/') && path.endsWith(rule.slice(1)) : path === rule;
  });

// Paths that cannot stand in a citation as they are would only test how they are written.
const isPlain = (path) => /^[\w.@+/-]+$/.test(path);
const isBuilt = (path) => /(^|\/)(dist|build|node_modules|bundles|benchmarks?)\/|\.min\.js$|(^|\/)\.ossilar\//.test(path);

function isWritten(text) {
  if (text.length === 0 || text.length > LARGEST || text.includes('\0') || text.includes('\ufffd')) return false;
  return text.split('\n').every((line) => line.length <= LONGEST_LINE);
}

function* filesBelow(folder, prefix = '') {
  for (const entry of readdirSync(join(folder, prefix), { withFileTypes: true })) {
    const path = prefix ? `${prefix}/${entry.name}` : entry.name;
    if (entry.isDirectory()) yield* filesBelow(folder, path);
    else if (entry.isFile()) yield path;
  }
}

function tarball(name, version) {
  const folder = join(cacheFolder(), 'tarballs');
  const path = join(folder, `${name}-${version}.tgz`);
  if (!existsSync(path)) {
    const landing = join(folder, `.landing-${process.pid}`); // so that one that was cut short is never taken for whole
    mkdirSync(landing, { recursive: true });
    run('npm', ['pack', '--silent', '--pack-destination', landing, `${name}@${version}`], { cwd: landing });
    renameSync(join(landing, readdirSync(landing)[0]), path);
    rmSync(landing, { recursive: true });
  }
  return path;
}

// Each step: what it is called, and how it is unpacked into a folder, whose top is then returned.
function stepsOf(history) {
  if (history.versions)
    return history.versions.map((version) => ({
      name: version,
      unpack(folder) {
        run('tar', ['xzf', tarball(history.package, version), '-C', folder, '--no-same-permissions', '--mode=u+rwX']);
        return join(folder, readdirSync(folder)[0]);
      },
    }));
  const { until, every } = history.commits;
  const commits = run('git', ['-C', PROJECT, 'log', '--first-parent', '--reverse', '--format=%H', until]).split('\n');
  const taken = commits.filter((hash, i) => hash && (i % every === 0 || hash === until));
  return taken.map((hash) => ({
    name: hash.slice(0, 9),
    unpack(folder) {
      run('tar', ['x', '-C', folder], {
        input: execFileSync('git', ['-C', PROJECT, 'archive', hash], { maxBuffer: 1 << 28 }),
      });
      return folder;
    },
  }));
}

// Puts what is kept of the step into the working tree at `root`, with nothing else.
function place(history, step, root, scratch) {
  rmSync(scratch, { recursive: true, force: true });
  mkdirSync(scratch, { recursive: true });
  for (const entry of readdirSync(root))
    if (entry !== '.git') rmSync(join(root, entry), { recursive: true });
  const top = step.unpack(scratch);
  for (const path of filesBelow(top)) {
    if (!isPlain(path) || isBuilt(path) || !CODE.has(extname(path)) || !isKept(history.keep, path)) continue;
    const text = readFileSync(join(top, path), 'utf8');
    if (isWritten(text)) write(join(root, path), text);
  }
}

const SAME_AUTHOR = Object.fromEntries(
  ['AUTHOR', 'COMMITTER'].flatMap((who) => [
    [`GIT_${who}_NAME`, 'bench'],
    [`GIT_${who}_EMAIL`, 'bench@example.org'],
  ]),
);

// A commit's environment: its time is the number of the step, so that its hash is the same everywhere.
export const commitAs = (step) => ({
  ...process.env,
  ...SAME_AUTHOR,
  GIT_AUTHOR_DATE: `${1_700_000_000 + step * 3600} +0000`,
  GIT_COMMITTER_DATE: `${1_700_000_000 + step * 3600} +0000`,
});

// The repository of a history: {folder, steps: [{name, commit}]}. Made once, then kept. A release in which no kept file
// changed is no step.
export function historyRepository(history, note = () => {}) {
  const key = createHash('sha256').update(JSON.stringify([RECIPE, history])).digest('hex').slice(0, 12);
  const folder = join(cacheFolder(), 'histories', `${history.name}-${key}`);
  if (!existsSync(folder)) {
    const making = `${folder}.making-${process.pid}`;
    rmSync(making, { recursive: true, force: true });
    mkdirSync(making, { recursive: true });
    const git = (args, step = 0) => run('git', ['-C', making, ...args], { env: commitAs(step) });
    git(['init', '--quiet', '--initial-branch=main']);
    git(['config', 'core.autocrlf', 'false']);
    for (const [i, step] of stepsOf(history).entries()) {
      note(`${history.name}: step ${step.name}`);
      place(history, step, making, `${making}.scratch`);
      git(['add', '--all', '.']);
      if (git(['status', '--porcelain']) !== '')
        git(['commit', '--quiet', '--no-gpg-sign', `--message=${step.name}`], i);
    }
    rmSync(`${making}.scratch`, { recursive: true, force: true });
    mkdirSync(dirname(folder), { recursive: true });
    renameSync(making, folder);
  }
  const lines = run('git', ['-C', folder, 'log', '--reverse', '--format=%H %s']).trim().split('\n');
  return { folder, steps: lines.map((line) => ({ commit: line.split(' ')[0], name: line.split(' ')[1] })) };
}
