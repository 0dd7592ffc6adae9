// Savers that go on until each save is stored, and what they were answered.
import assert from 'node:assert/strict';
import { setTimeout as sleep } from 'node:timers/promises';
import { isSaved } from '../clients/wiki.mjs';
import { marksOf } from './history.mjs';

// What was saved, with the order of beginnings and answers, as history.mjs replays it.
export class Journal {
  constructor() {
    this.time = 0;
    this.saves = [];
    this.goesOn = false; // whether savers go on though they have made their saves
    this.failures = []; // what else was answered than that others came first
    this.counts = { acknowledged: 0, overtaken: 0, raced: 0, repeated: 0, unknown: 0 };
  }

  begin(save) {
    const entry = { began: ++this.time, outcome: null, ...save };
    this.saves.push(entry);
    return entry;
  }

  summary() {
    const { acknowledged, overtaken, raced, repeated, unknown } = this.counts;
    return (
      `${acknowledged} saves acknowledged, ${overtaken} overtaken, ${raced} told that the page kept changing, ` +
      `${repeated} failed and repeated, ${unknown} of unknown outcome`
    );
  }
}

const MOST_TRIES = 200;

// What ends a save that is not stored, unless the caller knows more: another came in between.
const isOvertaken = (answer) => answer?.diff !== undefined || /already exists/.test(answer?.error ?? '');

// Makes the save again, with the same text onto the same version, until it is stored or its answer `isFinal`: any other
// says to.
async function saveAtLast(client, journal, entry, request, isFinal = isOvertaken) {
  let isUnknown = false;
  for (let tries = 0; tries < MOST_TRIES; ++tries) {
    const reply = await client.call('save_page', request);
    const answer = reply.result?.structuredContent;
    const isRace = /kept changing/.test(answer?.error ?? '');
    if (isSaved(reply)) {
      entry.outcome = true;
      entry.version = answer.version;
      ++journal.counts.acknowledged;
    } else if (!isRace && isFinal(answer)) {
      entry.outcome = isUnknown ? null : false;
      ++journal.counts[isUnknown ? 'unknown' : 'overtaken'];
    } else {
      isUnknown ||= /cannot tell whether/.test(JSON.stringify(reply));
      ++journal.counts[isRace ? 'raced' : 'repeated'];
      if (!isRace) journal.failures.push(answer?.error ?? JSON.stringify(reply));
      await sleep(50);
      continue;
    }
    entry.ended = ++journal.time;
    return;
  }
  assert.fail(`"${entry.said}" was tried ${MOST_TRIES} times`);
}

// The page as it is; read again while the database cannot be asked.
export async function readAtLast(client, page_id) {
  for (let tries = 0; tries < MOST_TRIES; ++tries) {
    const reply = await client.call('read_page', { page_id, part: 'authored' });
    if (reply.result && !reply.result.isError) return reply.result.structuredContent;
    if (/not written|no page/.test(JSON.stringify(reply))) return { version: 'new', text: '' };
    await sleep(50);
  }
  assert.fail(`${page_id} was read ${MOST_TRIES} times`);
}

// Saves onto the version that it read, until the save is stored. One of which nobody knows is when it is seen.
// `requestFor(read, said)` gives what the journal and what the call needs beside.
export async function saveOnto(client, journal, page, said, { requestFor, isFinal }) {
  for (let tries = 0; ; ++tries) {
    assert.ok(tries < MOST_TRIES, `"${said}" was made anew ${MOST_TRIES} times`);
    const read = await readAtLast(client, page);
    const own = `${said} try ${tries};`;
    const { entry, request } = requestFor(read, own);
    const save = journal.begin({ said: own, ...entry });
    await saveAtLast(client, journal, save, { page_id: read.page_id ?? page, if_version: read.version, ...request }, isFinal);
    if (save.outcome === true) return;
    const isSeen = save.outcome === null && [...marksOf((await readAtLast(client, page)).text).values()].includes(own);
    if (isSeen) return;
  }
}
