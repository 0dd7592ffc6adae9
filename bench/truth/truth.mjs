// Whether lines that a page cited still stand, worked out from two commits of a history with git alone. The program that
// is measured has no part in it. These rules were written down before anything was run by them, and stay as they are.
//
// A citation names the lines FIRST to LAST of PATH, as they were at the commit A when the page was written. What became
// of them at the commit B:
//
// 1. The file at B is the one at the same path, or else the one that the path was renamed to by
//    `git diff -M --diff-filter=R A B`, A and B compared directly. If there is neither, the citation is `changed`.
// 2. `git diff -U0 --ignore-cr-at-eol` says which lines are unchanged, once for each of the algorithms myers, patience
//    and histogram. An algorithm keeps the range at X when every line of it is unchanged and the lines stand at B
//    one after the other, from X on.
// 3. All three keep it at the same X: `same`, when path and lines are what they were; otherwise `moved` to X.
// 4. None keeps it: if its text stands exactly once in the file at B and exactly once in the file at A, has three lines
//    or more and sixty characters or more that are not blank, it is `moved` to there. If it stands nowhere in the file
//    at B, it is `changed`. Otherwise `undecided`: it is short, or stands in several places.
// 5. The algorithms do not agree: `moved` (or `same`) to where the text stands, if that is one place in the file at B;
//    otherwise `undecided`.
//
// Texts are compared line by line without a carriage return at the end. What is `undecided` is counted, printed, and left
// out of every rate. A page is truly stale when one of its citations is `changed`.
import { execFileSync } from 'node:child_process';

export const ALGORITHMS = ['myers', 'patience', 'histogram'];
const LEAST_LINES = 3;
const LEAST_CHARACTERS = 60;

export const linesOf = (text) => {
  const lines = text.split('\n').map((line) => (line.endsWith('\r') ? line.slice(0, -1) : line));
  if (lines.at(-1) === '') lines.pop();
  return lines;
};

// What `git diff -U0` says: per hunk how many lines from which on were taken away and put in. With none of them, the number
// is of the line after which the others are.
export function hunksOf(diff) {
  const hunk = /^@@ -(\d+)(?:,(\d+))? \+(\d+)(?:,(\d+))? @@/gm;
  return [...diff.matchAll(hunk)].map((match) => ({
    from: Number(match[1]),
    removed: Number(match[2] ?? 1),
    added: Number(match[4] ?? 1),
  }));
}

// Where the range begins now, or null when a hunk takes a line of it away or puts one between its lines.
export function keptAt(hunks, first, last) {
  let offset = 0;
  for (const { from, removed, added } of hunks) {
    const end = removed ? from + removed - 1 : from;
    if (end < first) offset += added - removed;
    else if (removed ? from <= last : from < last) return null;
    else break;
  }
  return first + offset;
}

// The numbers of the lines at which `text` begins in `lines`.
export function places(lines, text) {
  const found = [];
  for (let at = 0; at + text.length <= lines.length; ++at)
    if (text.every((line, i) => lines[at + i] === line)) found.push(at + 1);
  return found;
}

// The rules 2 to 5 for a file that is there: `kept` has what each algorithm says. Gives the first line now.
export function judge(linesA, linesB, first, last, kept) {
  const text = linesA.slice(first - 1, last);
  if (kept.every((at) => at !== null && at === kept[0])) return { at: kept[0] };
  const now = places(linesB, text);
  if (kept.some((at) => at !== null)) return now.length === 1 ? { at: now[0] } : { verdict: 'undecided' };
  if (now.length === 0) return { verdict: 'changed' };
  const characters = text.join('').replace(/\s/g, '').length;
  const alone = now.length === 1 && places(linesA, text).length === 1;
  return alone && text.length >= LEAST_LINES && characters >= LEAST_CHARACTERS
    ? { at: now[0], relocated: true }
    : { verdict: 'undecided' };
}

// The truth about one history, a git repository at `folder`.
export class Truth {
  constructor(folder) {
    this.folder = folder;
    this.caches = {};
  }

  git(...args) {
    return execFileSync('git', ['-C', this.folder, ...args], {
      encoding: 'utf8',
      maxBuffer: 1 << 28,
      stdio: ['ignore', 'pipe', 'pipe'],
    });
  }

  // What `make` gives, made once for each key.
  cached(kind, key, make) {
    const cache = (this.caches[kind] ??= new Map());
    if (!cache.has(key)) cache.set(key, make());
    return cache.get(key);
  }

  // The files of a commit: path to blob.
  tree(commit) {
    return this.cached('tree', commit, () => {
      const entries = this.git('ls-tree', '-r', '-z', commit).split('\0').filter(Boolean);
      return new Map(entries.map((entry) => [entry.slice(entry.indexOf('\t') + 1), entry.split(/[ \t]/)[2]]));
    });
  }

  blobLines(blob) {
    return this.cached('blob', blob, () => linesOf(this.git('cat-file', 'blob', blob)));
  }

  // The lines of a file at a commit; none when it is not there.
  lines(commit, path) {
    const blob = this.tree(commit).get(path);
    return blob ? this.blobLines(blob) : [];
  }

  renames(a, b) {
    return this.cached('renames', `${a} ${b}`, () => {
      const words = this.git('diff', '-M', '--diff-filter=R', '--name-status', '-z', a, b).split('\0');
      const renamed = new Map();
      for (let i = 0; i + 2 < words.length; i += 3) renamed.set(words[i + 1], words[i + 2]);
      return renamed;
    });
  }

  // The path at B of the file at A, or undefined when it is gone.
  pathAt(a, path, b) {
    return this.tree(b).has(path) ? path : this.renames(a, b).get(path);
  }

  hunks(algorithm, blobA, blobB) {
    return this.cached('hunks', `${algorithm} ${blobA} ${blobB}`, () =>
      hunksOf(
        this.git(
          'diff',
          '-U0',
          `--diff-algorithm=${algorithm}`,
          '--ignore-cr-at-eol',
          '--no-color',
          '--no-ext-diff',
          blobA,
          blobB,
        ),
      ),
    );
  }

  // What became of the lines `first` to `last` of `path` at A: {verdict, path, first, last}; the lines only when the
  // verdict is `same` or `moved`.
  of(a, path, first, last, b) {
    return this.cached('verdict', `${a} ${b} ${first} ${last} ${path}`, () => {
      const now = this.pathAt(a, path, b);
      if (now === undefined) return { verdict: 'changed', gone: true };
      const [blobA, blobB] = [this.tree(a).get(path), this.tree(b).get(now)];
      const kept =
        blobA === blobB
          ? ALGORITHMS.map(() => first)
          : ALGORITHMS.map((algorithm) => keptAt(this.hunks(algorithm, blobA, blobB), first, last));
      const found = judge(this.blobLines(blobA), this.blobLines(blobB), first, last, kept);
      if (found.verdict) return { verdict: found.verdict, path: now };
      const verdict = now === path && found.at === first ? 'same' : 'moved';
      return { verdict, path: now, first: found.at, last: found.at + last - first, relocated: found.relocated };
    });
  }
}
