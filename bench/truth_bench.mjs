// How well ossilar knows whether its pages are still true: real histories are gone through step by step with a wiki in
// the working tree, and what ossilar says of its pages, and what `sync` makes of their citations, is held against what git
// alone says (truth/truth.mjs has the rules, truth/replay.mjs what happens in a step). The rules of the program are
// tuned on the histories marked `tune`; those marked `held` are looked at for the figures alone.
//
// The histories (truth/histories.json) are releases that npm packs, kept in OSSILAR_TRUTH_CACHE (ossilar-truth in the
// user's cache folder when it is not set), and this project's own commits. Prints figures and asserts nothing.
//   OSSILAR_PROGRAM=... tests/clients/node bench/truth_bench.mjs [--quick] [--verbose] [HISTORY | tune | held]...
//     --quick    the first twelve steps of each history
//     --verbose  also every page and citation that ossilar and git see differently, and the time of the calls
import { fork } from 'node:child_process';
import { availableParallelism } from 'node:os';
import { fileURLToPath } from 'node:url';
import { cacheFolder, histories } from './truth/histories.mjs';
import { printReport } from './truth/table.mjs';

const given = process.argv.slice(2);
const flags = new Set(given.filter((word) => word.startsWith('--')));
const names = given.filter((word) => !word.startsWith('--'));
const chosen = histories().filter(
  ({ name, group }) => names.length === 0 || names.includes(name) || names.includes(group),
);
if (chosen.length === 0) throw new Error(`no history is called ${names.join(' or ')}`);

// The result of a replay in a process of its own, or why there is none.
const replay = ({ name, group }) =>
  new Promise((resolve) => {
    const script = fileURLToPath(new URL('truth/replay.mjs', import.meta.url));
    const child = fork(script, [name, flags.has('--quick') ? 'quick' : 'whole'], {
      stdio: ['ignore', 'inherit', 'pipe', 'ipc'],
    });
    let result;
    let said = '';
    child.stderr.on('data', (data) => (said += data));
    child.on('message', (message) => (result = message));
    child.on('close', () => resolve(result ?? { name, group, failed: said.trim().slice(0, 2000) || 'it ended early' }));
  });

console.error(`histories and releases are kept in ${cacheFolder()}`);
const waiting = [...chosen];
const results = [];
const worker = async () => {
  while (waiting.length > 0) {
    const result = await replay(waiting.shift());
    results.push(result);
    console.error(`${result.name}: ${result.failed ? 'failed' : `${result.seconds.toFixed(0)} s`}`);
  }
};
await Promise.all(Array.from({ length: Math.min(availableParallelism(), chosen.length) }, worker));
const order = chosen.map(({ name }) => name);
results.sort((a, b) => order.indexOf(a.name) - order.indexOf(b.name));
printReport(results, flags.has('--verbose'));
