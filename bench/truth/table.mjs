// Prints what the replays counted: per history, per group and over all.
import { printTable } from '../support.mjs';

// The sums of the counts of several replays, at any depth.
function sum(a, b) {
  if (typeof a !== 'object' && typeof b !== 'object') return (a ?? 0) + (b ?? 0);
  const keys = new Set([...Object.keys(a ?? {}), ...Object.keys(b ?? {})]);
  return Object.fromEntries([...keys].map((key) => [key, sum(a?.[key], b?.[key])]));
}

const percent = (part, whole) => (whole ? `${((100 * part) / whole).toFixed(1)}%` : '-');
const whole = (number) => String(number);

const stale = (c) => ({
  steps: whole(c.steps),
  writes: whole(c.writes),
  'with a changed line': whole(c.changed),
  'named stale': whole(c.changedNamed),
  'of them': percent(c.changedNamed, c.changed),
  'all named': whole(c.named),
  'nothing changed': whole(c.namedWithout),
  'of all': percent(c.namedWithout, c.named - c.namedUndecided - c.namedForOthers),
  'for a page below': whole(c.namedForOthers),
  undecided: whole(c.namedUndecided),
  'lost ids': whole(c.lost),
});

const places = (p, canSync) => ({
  cited: whole(p.cited),
  undecided: whole(p.undecided),
  moved: whole(p.moved),
  synced: canSync ? percent(p.synced, p.moved) : '-',
  'moved, clone': whole(p.cloneMoved),
  'synced, clone': canSync ? percent(p.cloneSynced, p.cloneMoved) : '-',
  'other text': whole(p.otherText),
  'clone, other text': whole(p.cloneOtherText),
  'other place': whole(p.otherPlace),
  'other file': whole(p.otherFile),
  links: whole(p.links),
  'wrong links': whole(p.wrongLinks),
});

const left = (c) => ({
  pages: whole(c.left),
  'ok by hashes': whole(c.leftOld),
  'of all': percent(c.leftOld, c.left),
  'ok or drifted': whole(c.leftNew),
  'of all ': percent(c.leftNew, c.left),
});

function table(title, groups, row) {
  console.log(`\n${title}`);
  printTable(groups.map(({ name, counts, canSync }) => ({ history: name, ...row(counts, canSync) })));
}

export function printReport(results, verbose) {
  const done = results.filter(({ failed }) => !failed);
  for (const { name, failed } of results) if (failed) console.log(`${name} failed: ${failed}`);
  if (done.length === 0) return;
  const canSync = done.some((result) => result.canSync);
  const over = (name, some) =>
    some.length > 1 ? [{ name, counts: some.map(({ counts }) => counts).reduce(sum), canSync }] : [];
  const groups = [
    ...done.map(({ name, group, ...rest }) => ({ ...rest, name: `${name} (${group})` })),
    ...over('tune', done.filter(({ group }) => group === 'tune')),
    ...over('held', done.filter(({ group }) => group === 'held')),
    ...over('all', done),
  ];
  if (!canSync) console.log('This program has no sync: what `sync` would do is left out.');
  table('Pages with a cited line that changed or went, and pages named stale', groups, stale);
  table('Citations of functions and types', groups, (c, can) => places(c.named_places, can));
  table('Citations of random ranges', groups, (c, can) => places(c.random_places, can));
  table('Pages ten steps after they were written, only synced', groups, left);

  console.log('\nStates of pages, at every step');
  for (const { name, counts } of groups)
    console.log(`${name}: ${Object.entries(counts.states).map(([state, count]) => `${state} ${count}`).join(', ')}`);
  for (const { name, troubles } of done)
    for (const { what, count, first } of troubles) console.log(`trouble  ${name}: ${what} (${count}; ${first})`);
  if (verbose) {
    for (const { name, notes } of done) for (const note of notes) console.log(`${name}  ${note}`);
    for (const { name, seconds, times } of done) {
      const parts = Object.entries(times).map(
        ([command, { calls, ms }]) => `${command} ${calls} x ${(ms / calls).toFixed(0)} ms`,
      );
      console.log(`${name}: ${seconds.toFixed(0)} s, of them ${parts.join(', ')}`);
    }
  }
  console.log(JSON.stringify(done.map(({ notes, troubles, times, ...rest }) => rest)));
}
