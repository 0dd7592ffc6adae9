// Writes pages without an author: sentences that each end with a citation of a whole function or type, or of lines taken
// at random. The same page comes out for the same seed and the same source.
import { execFileSync } from 'node:child_process';
import { createHash } from 'node:crypto';
import { dirname, posix } from 'node:path';
import { numbers, randomNumbers } from '../support.mjs';

const KINDS = new Set('class enum function generator getter interface method namespace setter struct union'.split(' '));
const MOST_LINES = 200;
const LEAST_LINES = 2;

export const seedOf = (...words) => createHash('sha256').update(words.join('\0')).digest().readUInt32LE(0);

const indent = (line) => /^\s*/.exec(line)[0].length;

// Where a body ends for which ctags says nothing, as of scripts: at the first closing bracket that stands as far in as its
// beginning.
export function endOf(lines, first) {
  if (!/[{([]\s*$|[{([]\s*\/\//.test(lines[first - 1])) return undefined;
  const depth = indent(lines[first - 1]);
  for (let i = first; i < lines.length && i < first + MOST_LINES; ++i) {
    if (lines[i].trim() === '' || indent(lines[i]) > depth) continue;
    return /^\s*[})\]]/.test(lines[i]) ? i + 1 : undefined;
  }
  return undefined;
}

// The functions and types of the files below `root`, by file: {name, first, last}. Nothing without a name of its own.
export function symbolsOf(root, paths, linesOf) {
  const found = new Map(paths.map((path) => [path, []]));
  if (paths.length === 0) return found;
  const options = ['--options=NONE', '--quiet', '--fields=+ne', '--output-format=json', '-L', '-', '-f', '-'];
  const output = execFileSync('ctags', options, {
    cwd: root,
    input: `${paths.join('\n')}\n`,
    encoding: 'utf8',
    maxBuffer: 1 << 28,
    stdio: ['pipe', 'pipe', 'ignore'],
  });
  for (const line of output.split('\n')) {
    if (!line.startsWith('{')) continue;
    const { name, path, line: first, end, kind } = JSON.parse(line);
    if (!KINDS.has(kind) || /^Anonymous|^__anon/.test(name) || !found.has(path)) continue;
    const lines = linesOf(path);
    const last = end ?? endOf(lines, first);
    if (last && last <= lines.length && last - first + 1 >= LEAST_LINES && last - first < MOST_LINES)
      found.get(path).push({ name, first, last });
  }
  // ctags gives them by name; a constructor and its class may be one range.
  for (const [path, symbols] of found) {
    const ranges = new Map(symbols.map((symbol) => [`${symbol.first}-${symbol.last}`, symbol]));
    found.set(
      path,
      [...ranges.values()].sort((a, b) => a.first - b.first || a.last - b.last),
    );
  }
  return found;
}

function shuffled(items, random) {
  const rest = [...items];
  for (let i = rest.length - 1; i > 0; --i) {
    const j = random(i + 1);
    [rest[i], rest[j]] = [rest[j], rest[i]];
  }
  return rest;
}

// Five to twelve symbols of the files, in turn from each; and one of `others` where the page is to have one.
export function chooseSymbols(symbols, files, others, seed) {
  const random = randomNumbers(seed);
  const queues = shuffled(
    files.map((path) => shuffled((symbols.get(path) ?? []).map((symbol) => ({ path, ...symbol })), random)),
    random,
  ).filter((queue) => queue.length > 0);
  const wanted = 5 + random(8);
  const chosen = [];
  for (let round = 0; chosen.length < wanted && queues.some((queue) => queue.length > round); ++round)
    for (const queue of queues) if (queue[round] && chosen.length < wanted) chosen.push(queue[round]);
  const outside = others.filter((path) => symbols.get(path)?.length && !files.includes(path));
  if (outside.length > 0) {
    const path = outside[random(outside.length)];
    const list = symbols.get(path);
    chosen.push({ path, ...list[random(list.length)] });
  }
  return chosen;
}

// Ten ranges of one to forty lines anywhere in the files.
export function chooseRanges(files, linesOf, seed) {
  const random = randomNumbers(seed);
  const ranges = new Map();
  for (let tries = 0; ranges.size < 10 && tries < 40; ++tries) {
    const path = files[random(files.length)];
    const count = linesOf(path).length;
    if (count === 0) continue;
    const first = 1 + random(count);
    const last = Math.min(count, first + random(40));
    ranges.set(`${path} ${first} ${last}`, { path, name: 'these lines', first, last });
  }
  return [...ranges.values()];
}

export const label = ({ path, first, last }) => `${path}:L${first}${last === first ? '' : `-L${last}`}`;

const SAID = [
  'does one step of the work and hands its result on',
  'keeps the rule that its callers rely on',
  'is where the next part takes over',
  'decides what happens to what was given',
  'holds the state between two calls',
];

// A page in the required sections, a sentence for each citation, in order.
export function pageText(about, sections, citations, seed) {
  const random = randomNumbers(seed);
  const headings = sections.length > 0 ? sections : ['How it works'];
  const share = Math.ceil(citations.length / headings.length);
  const sentence = (citation) =>
    `Here \`${citation.name.replace(/[^\w$.~: ]/g, '')}\` ${SAID[random(SAID.length)]} [${label(citation)}].\n`;
  const part = (heading, i) =>
    `## ${heading}\n\n${citations.slice(i * share, (i + 1) * share).map(sentence).join('\n')}`;
  const rest = citations.slice(headings.length * share).map(sentence);
  return `What ${about} does, one statement for each part that was looked at.\n\n${headings.map(part).join('\n')}${rest.join('')}`;
}

const MARKER = '<!-- ossilar:generated -->';
const CITATION = /\[([\w.@+/-]+):L(\d+)(?:-L(\d+))?\]/g;
const RECORD = /^\{"source": .*\}$/gm;

const numbersOf = (first, last) => ({ first: Number(first), last: Number(last ?? first) });

// What a page file says: the citations of its prose in order, the targets of the links below it by their label, and the
// recorded hashes of its sources.
export function readPage(text, pagePath) {
  const cut = text.indexOf(MARKER);
  const [prose, below] = cut < 0 ? [text, ''] : [text.slice(0, cut), text.slice(cut)];
  const citations = [...prose.matchAll(CITATION)].map(([, path, first, last]) => ({ path, ...numbersOf(first, last) }));
  const links = new Map();
  for (const [, name, target] of below.matchAll(/^\[([^\]]+:L[^\]]+)\]: (\S+)$/gm)) {
    const [, file, first, last] = /^<?([^#>]*)(?:#L(\d+)(?:-L(\d+))?)?>?$/.exec(target) ?? [];
    const path = posix.normalize(posix.join(dirname(pagePath), decodeURI(file ?? '')));
    if (!links.has(name)) links.set(name, first ? { path, ...numbersOf(first, last) } : { path });
  }
  const sources = new Map([...below.matchAll(RECORD)].map(([line]) => JSON.parse(line)).map((s) => [s.source, s.hash]));
  return { citations, links, sources };
}

// Groups of files that a page each can be about: the files of a small folder, or four at a time of a large one. `pattern` is
// how a configuration names them.
export function groupsOf(paths) {
  const folders = Map.groupBy(paths, (path) => dirname(path));
  return [...folders.keys()].sort().flatMap((folder) => {
    const files = folders.get(folder).sort();
    const id = folder === '.' ? 'top' : folder.toLowerCase().replace(/[^a-z0-9/]+/g, '-').replace(/^-|-$/g, '');
    if (files.length <= 6) {
      const pattern = folder === '.' ? files : [`${folder}/*`];
      return [{ id: `unit/${id}`, files, pattern }];
    }
    return numbers(Math.ceil(files.length / 4)).map((i) => {
      const part = files.slice(i * 4, i * 4 + 4);
      return { id: `unit/${id}-part-${i + 1}`, files: part, pattern: part };
    });
  });
}

// Evenly spread over a list, `most` of its items.
export const spread = (items, most) =>
  items.length <= most ? items : numbers(most).map((i) => items[Math.floor((i * items.length) / most)]);
