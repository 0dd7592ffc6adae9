// Replays the kept versions of pages beside what their savers were answered. Every save puts a mark of its own, a text
// that ends in ";", at the beginning of each section that it writes.
import { numbers } from '../clients/wiki.mjs';

// The mark of each section, by its heading.
export function marksOf(text) {
  const parts = text.split(/^<!-- ossilar/m)[0].split(/^## /m).slice(1);
  return new Map(parts.map((part) => [part.slice(0, part.indexOf('\n')), /^\n+([^;\n]*;)/.exec(part.slice(part.indexOf('\n')))?.[1]]));
}

const changedSections = (before, after) =>
  [...new Set([...before.keys(), ...after.keys()])].filter((heading) => before.get(heading) !== after.get(heading));

// What is wrong with the step from one version to the next, as a text, or "". What was done to a page beside saving it,
// as giving it another id, must leave the marks alone.
function faultOfStep(before, after, saves, seen) {
  const [was, is] = [before, after].map(({ text }) => marksOf(text));
  const changed = changedSections(was, is);
  const marks = new Set(changed.map((heading) => is.get(heading)));
  if (marks.size === 0 && (after.action ?? 'saved') !== 'saved') return '';
  if (marks.size !== 1) return `${marks.size} saves in one version`;
  const [said] = marks;
  const save = saves.get(said);
  if (!save) return `nobody saved "${said}"`;
  if (seen.has(said)) return `"${said}" is stored twice`;
  seen.add(said);
  if (save.outcome === false) return `"${said}" was refused and is stored`;
  if (save.version && save.version !== after.version) return `"${said}" was answered with ${save.version}`;
  if (save.onto && save.onto !== before.version) return `"${said}" was made onto ${save.onto} and is stored onto ${before.version}`;
  if (save.base && changed.some((heading) => was.get(heading) !== save.base))
    return `"${said}" was made onto "${save.base}" and is stored onto "${was.get(changed[0])}"`;
  return '';
}

// Of the saves of a page in the order in which they are stored: none comes after one that began when it was answered
// already.
function faultsOfOrder(stored) {
  const faults = [];
  let latest = { began: -Infinity };
  for (const save of stored) {
    if (save.outcome === true && save.ended < latest.began) faults.push(`"${save.said}" is stored after "${latest.said}"`);
    if (save.began > latest.began) latest = save;
  }
  return faults;
}

// What is wrong with `histories` ({ name, versions }, of each page on each branch) beside `saves`, all of whose marks
// differ. Versions are { version, text, action? }, the oldest first; the first was there before. Saves are
//   { said, began, ended, outcome, version?, onto?, base? }
// `outcome` is true for an acknowledged save, false for one that says that it is not stored, null where nobody knows;
// `version` is what it was answered; `onto` the version of the whole page that it was made onto, or `base` the mark that
// its section had then. Times grow by one with each answer and each beginning.
export function faultsOfHistories(histories, saves) {
  const bySaid = new Map(saves.map((save) => [save.said, save]));
  const seen = new Set();
  const faults = [];
  for (const { name, versions } of histories) {
    const before = seen.size;
    for (const i of numbers(Math.max(versions.length - 1, 0))) {
      const fault = faultOfStep(versions[i], versions[i + 1], bySaid, seen);
      if (fault) faults.push(`${name}, version ${i + 1}: ${fault}`);
    }
    const stored = [...seen].slice(before).map((said) => bySaid.get(said));
    faults.push(...faultsOfOrder(stored).map((fault) => `${name}: ${fault}`));
  }
  const lost = saves.filter((save) => save.outcome === true && !seen.has(save.said));
  return [...faults, ...lost.map(({ said }) => `"${said}" was acknowledged and is not stored`)];
}

// Those of the texts, as they stood in page files at some moment, that are neither a version of the page nor what a save
// at work made of one.
export function mixedTexts(texts, versions, saves) {
  const stored = new Set(versions.map(({ text }) => text));
  const marked = versions.map(({ text }) => marksOf(text));
  const said = new Set(saves.map((save) => save.said));
  const isAttempt = (text) => {
    const marks = marksOf(text);
    return marked.some((version) => {
      const changed = new Set(changedSections(version, marks).map((heading) => marks.get(heading)));
      return changed.size === 1 && said.has([...changed][0]);
    });
  };
  return [...texts].filter((text) => !stored.has(text) && !isAttempt(text));
}
