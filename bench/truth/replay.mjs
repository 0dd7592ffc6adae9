// Goes through one history with a wiki in its working tree, and sends the parent process what it counted. One process a
// history, so that several run at a time.
//
// Three kinds of pages. The pages `unit` are what a wiki is: a step is put in place, ossilar is asked for the states of
// its pages, `sync` is run, and each page that was named stale is written anew from the present source. The pages
// `left` cite other symbols of the same files, are only synced, and are all written anew every ten steps, after it was
// asked how many still stood. The pages `random` cite lines taken at random, and are written anew every five steps; they
// count for the places of citations only. Pages about the whole repository are not written: the truth about them is not
// a matter of single lines.
import { createHash } from 'node:crypto';
import { existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { numbers } from '../support.mjs';
import { histories, historyRepository } from './histories.mjs';
import {
  chooseRanges,
  chooseSymbols,
  groupsOf,
  label,
  pageText,
  readPage,
  seedOf,
  spread,
  symbolsOf,
} from './pages.mjs';
import { Truth } from './truth.mjs';
import { hasCommand, World } from './world.mjs';

const MOST_PAGES = 24;
const MOST_SOURCES = 8; // of a page whose files went
const RANDOM_PAGES = 6;
const LEFT_STEPS = 10;
const RANDOM_STEPS = 5;
const CLONE_STEPS = 4;
const QUICK_STEPS = 12;
const STATES = new Set('missing ok moved drifted stale unverified orphaned'.split(' '));
const TOP_TYPES = new Set(['overview', 'architecture']);

const isSame = (a, b) => a.path === b.path && a.first === b.first && a.last === b.last;
const hasPlace = ({ verdict }) => verdict === 'same' || verdict === 'moved';
const sha256 = (bytes) => createHash('sha256').update(bytes).digest('hex');
const tomlText = (text) => JSON.stringify(text);
const tomlPage = ({ id, pattern }) =>
  `[[page]]\nid = ${tomlText(id)}\ntitle = ${tomlText(`About ${id}`)}\ntype = "module"\n` +
  `sources = [${pattern.map(tomlText).join(', ')}]\n`;

const newPlaces = () => ({
  cited: 0,
  undecided: 0,
  moved: 0,
  synced: 0,
  cloneMoved: 0,
  cloneSynced: 0,
  otherText: 0,
  otherPlace: 0,
  otherFile: 0,
  cloneOtherText: 0,
  links: 0,
  wrongLinks: 0,
});

export class Replay {
  constructor(history, quick) {
    this.history = history;
    const { folder, steps } = historyRepository(history);
    this.steps = quick ? steps.slice(0, QUICK_STEPS) : steps;
    this.truth = new Truth(folder);
    this.scratch = mkdtempSync(join(tmpdir(), 'ossilar-truth-'));
    this.world = new World(join(this.scratch, 'world'), folder);
    this.canSync = hasCommand('sync');
    this.pages = [];
    this.entries = []; // of the configuration
    this.counts = {
      steps: this.steps.length,
      writes: 0,
      retired: 0,
      changed: 0,
      changedNamed: 0,
      named: 0,
      namedWithout: 0,
      namedForOthers: 0, // for a page that they build on alone, which says other things now
      namedUndecided: 0,
      lost: 0,
      left: 0,
      leftOld: 0,
      leftNew: 0,
      states: {},
      named_places: newPlaces(),
      random_places: newPlaces(),
    };
    this.notes = []; // what --verbose prints
    this.troubles = new Map(); // what went wrong, and how often
  }

  note(kind, text) {
    this.notes.push(`${kind}  step ${this.step} (${this.steps[this.step].name})  ${text}`);
  }

  trouble(what, answer) {
    const said = answer?.document?.error ?? answer?.stderr?.trim().split('\n').at(-1) ?? '';
    this.troubles.set(what, this.troubles.get(what) ?? { count: 0, first: `step ${this.step}: ${said}`.slice(0, 300) });
    this.troubles.get(what).count += 1;
  }

  get commit() {
    return this.steps[this.step].commit;
  }

  present() {
    return [...this.truth.tree(this.commit).keys()];
  }

  linesOf = (path) => this.truth.lines(this.commit, path);

  symbols() {
    if (this.symbolsAt !== this.commit) {
      this.symbolsAt = this.commit;
      this.symbolsNow = symbolsOf(this.world.root, this.present(), this.linesOf);
    }
    return this.symbolsNow;
  }

  // The files that a page is about: those that ossilar plans for it, or when there are none any more those that it cited, by
  // their present paths, or what stands beside them now, as an author would go after them.
  filesFor(page, context) {
    const here = this.truth.tree(this.commit);
    const planned = (context?.source_files ?? []).filter((path) => here.has(path));
    const isEnough = (paths) => paths.reduce((sum, path) => sum + (this.symbols().get(path)?.length ?? 0), 0) >= 2;
    if (isEnough(planned)) return planned;
    const now = page.citations.map((c) => this.truth.pathAt(c.base.commit, c.base.path, this.commit));
    const cited = [...new Set(now.filter(Boolean))];
    if (isEnough(cited)) return cited;
    const folders = new Set(page.citations.map(({ path }) => dirname(path)));
    return spread(
      this.present().filter((path) => folders.has(dirname(path))),
      MOST_SOURCES,
    );
  }

  choose(page, files) {
    const seed = seedOf(page.id, this.commit);
    if (page.kind === 'random') return chooseRanges(this.present(), this.linesOf, seed);
    return chooseSymbols(this.symbols(), files, page.outside ? this.present() : [], seed);
  }

  // Writes a page from the present source; one that cannot be written is no longer counted.
  write(page) {
    let context = this.world.ossilar('context', [page.id]);
    const files = this.filesFor(page, context.document);
    const isElsewhere = files.length > 0 && !files.some((path) => context.document?.source_files?.includes(path));
    if (isElsewhere && !page.planned) {
      page.pattern = files; // whoever writes about files that moved also enters them into the configuration
      this.configure();
      context = this.world.ossilar('context', [page.id]);
    }
    const chosen = context.document?.page_id ? this.choose(page, files) : [];
    if (chosen.length < 2) return this.retire(page, context.status === 0 ? 'nothing to cite' : 'no context', context);
    const seed = seedOf('prose', page.id);
    const text = pageText(page.id, context.document.required_sections ?? [], chosen, seed);
    const title = page.planned ? ['--title', `About ${page.id}`] : [];
    const saved = this.world.ossilar('save', [page.id, ...title], text);
    if (!saved.document?.saved) return this.retire(page, 'a page was refused', saved);
    // A sentence that comes out as it was keeps what it cited: its author says that it was read again.
    if (hasCommand('confirm')) this.world.ossilar('confirm', [page.id]);
    const found = readPage(this.world.page(page.id), this.world.pagePath(page.id));
    page.sources = found.sources;
    if (page.sources.size === 0) this.trouble('a saved page has no record of its sources');
    page.since = this.step;
    page.seen = new Set();
    page.citations = chosen.map(({ path, first, last }) => ({
      path,
      first,
      last,
      agreed: { path, first, last },
      base: { commit: this.commit, path, first, last },
    }));
    const places = this.places(page);
    places.cited += chosen.length;
    this.counts.writes += 1;
    if (found.citations.length !== chosen.length) this.trouble('a saved page has other citations than were written');
    return true;
  }

  retire(page, why, answer) {
    this.pages = this.pages.filter((each) => each !== page);
    this.counts.retired += 1;
    if (why !== 'nothing to cite') this.trouble(why, answer);
    this.note('retired', `${page.id}: ${why}`);
    return false;
  }

  places(page) {
    return page.kind === 'random' ? this.counts.random_places : this.counts.named_places;
  }

  plan() {
    const answer = this.world.ossilar('plan');
    if (!answer.document?.pages) {
      this.trouble('plan gave no pages', answer);
      return new Map();
    }
    return new Map(answer.document.pages.map((page) => [page.page_id, page]));
  }

  // The configuration has an entry for each page that is not derived, and those that were retired keep theirs.
  add(kind, groups) {
    const pages = groups.map(({ id, pattern }) => ({
      kind,
      id: kind === 'unit' ? id : `${kind}/${id.replace(/^unit\//, '')}`,
      pattern,
      citations: [],
    }));
    const known = new Set(this.entries.map(({ id }) => id));
    const added = pages.filter(({ id }) => !known.has(id));
    this.entries.push(...added);
    this.configure();
    return added;
  }

  configure() {
    this.world.configure(`[wiki]\nmin_citations_per_page = 2\n${this.entries.map(tomlPage).join('')}`);
  }

  writeAll(pages) {
    for (const [i, page] of pages.entries()) {
      page.outside = (this.pages.length + i) % 3 === 2;
      this.pages.push(page);
      this.write(page);
    }
  }

  // Groups of the present files that have something to cite and that no page is about.
  openGroups() {
    const count = (group) => group.files.reduce((sum, path) => sum + (this.symbols().get(path)?.length ?? 0), 0);
    const covered = new Set(
      this.pages.filter(({ kind }) => kind === 'unit').flatMap(({ citations }) => citations.map(({ path }) => path)),
    );
    return groupsOf(this.present())
      .filter((group) => count(group) >= 4 && !group.files.some((path) => covered.has(path)))
      .map((group) => ({ ...group, id: this.step === 0 ? group.id : `${group.id}-from-${this.step}` }));
  }

  // As people do, pages are added for what came while others went: from the plan, or by the configuration.
  populate() {
    const units = this.pages.filter(({ kind }) => kind === 'unit');
    if (this.history.derived) {
      const written = new Set(units.map(({ id }) => id));
      const missing = [...this.plan().values()].filter(
        (page) => page.state === 'missing' && !TOP_TYPES.has(page.type) && !written.has(page.page_id),
      );
      this.refused ??= new Set(); // a page without anything to cite is not tried at every step
      const fresh = missing
        .filter(({ page_id }) => !page_id.startsWith('random/') && !this.refused.has(page_id))
        .slice(0, MOST_PAGES - units.length);
      this.writeAll(
        fresh.map(({ page_id }) => ({ kind: 'unit', id: page_id, planned: true, citations: [], pattern: [] })),
      );
      for (const { page_id } of fresh)
        if (!this.pages.some(({ id }) => id === page_id)) this.refused.add(page_id);
    } else if (this.step === 0 || units.length < MOST_PAGES / 2) {
      const groups = spread(this.openGroups(), MOST_PAGES - units.length);
      this.writeAll(this.add('unit', groups));
      this.writeAll(this.add('left', groups));
    }
  }

  begin() {
    this.step = 0;
    this.world.put(this.commit);
    this.configure();
    this.world.commit('source');
    const init = this.world.ossilar('init');
    if (init.status !== 0) this.trouble('init failed', init);
    this.populate();
    const files = this.present().filter((path) => this.linesOf(path).length >= 10);
    const some = spread(files, RANDOM_PAGES).map((path, i) => ({ id: `${i + 1}`, pattern: [path] }));
    this.writeAll(this.add('random', some));
    this.world.commit('wiki');
  }

  verdict(citation) {
    const { commit, path, first, last } = citation.base;
    return this.truth.of(commit, path, first, last, this.commit);
  }

  textAt({ path, first, last }) {
    return this.linesOf(path).slice(first - 1, last).join('\n');
  }

  citedText({ base }) {
    return this.truth.lines(base.commit, base.path).slice(base.first - 1, base.last).join('\n');
  }

  // Holds the state that ossilar gives a page against what is true of its citations.
  compare(page, said) {
    const verdicts = page.citations.map((citation) => this.verdict(citation));
    const state = said?.state ?? 'absent';
    this.counts.states[state] = (this.counts.states[state] ?? 0) + 1;
    if (!STATES.has(state) && state !== 'absent') this.trouble(`a page has the unknown state ${state}`);
    const kept = page.citations.filter((c) => this.truth.pathAt(c.base.commit, c.base.path, this.commit)).length;
    if (state === 'orphaned' || state === 'absent') {
      if (kept * 2 > page.citations.length) {
        this.counts.lost += 1;
        this.note('lost', `${page.id}: ${state}, though ${kept} of ${page.citations.length} citations have their file`);
      }
      return 'lost';
    }
    const changed = numbers(verdicts.length).filter((k) => verdicts[k].verdict === 'changed');
    const fresh = changed.filter((k) => !page.seen.has(k));
    const named = state === 'stale';
    if (fresh.length > 0) {
      for (const k of fresh) page.seen.add(k);
      this.counts.changed += 1;
      if (named) this.counts.changedNamed += 1;
      else {
        const lines = fresh.map((k) => `${label(page.citations[k])} written as ${label(page.citations[k].base)}`);
        this.note('missed', `${page.id} is ${state}: ${lines.join(', ')}`);
      }
    }
    if (!named) return 'kept';
    this.counts.named += 1;
    if (changed.length > 0) return 'stale';
    if (verdicts.some(({ verdict }) => verdict === 'undecided')) {
      this.counts.namedUndecided += 1;
    } else if (/^pages it builds on changed: [^;]*$/.test(said.reason)) {
      this.counts.namedForOthers += 1;
    } else {
      this.counts.namedWithout += 1;
      const doubts = (said.doubts ?? []).map((doubt) => `${doubt.citation} ${doubt.state}`);
      this.note('without', `${page.id}: ${[said.reason, ...doubts].filter(Boolean).join('; ')}`);
    }
    return 'stale';
  }

  // The citations that moved in this step, for which the program has a place to find: each as {page, k, truth}.
  movedNow() {
    return this.pages.flatMap((page) =>
      page.citations.flatMap((citation, k) => {
        const truth = this.verdict(citation);
        const isNew = hasPlace(truth) && !isSame(truth, citation.agreed) && !isSame(truth, citation);
        return isNew ? [{ page, k, truth }] : [];
      }),
    );
  }

  // What each page file of a tree says now, by page.
  readAll(world) {
    return new Map(
      this.pages.map((page) => [page, readPage(world.page(page.id) ?? '', world.pagePath(page.id))]),
    );
  }

  // How many of `moved` a tree's pages now cite at the agreed place, and how many citations were given another text.
  measureClone(moved) {
    const clone = this.world.clone(join(this.scratch, 'clone'));
    const init = clone.ossilar('init');
    if (init.status !== 0) this.trouble('init in a clone failed', init);
    const sync = clone.ossilar('sync');
    if (!sync.document?.pages) this.trouble('sync in a clone gave no pages', sync);
    const files = this.readAll(clone);
    for (const { page, k, truth } of moved) {
      const places = this.places(page);
      places.cloneMoved += 1;
      const now = files.get(page).citations[k];
      if (now && isSame(now, truth)) places.cloneSynced += 1;
    }
    for (const page of this.pages)
      page.citations.forEach((citation, k) => {
        const now = files.get(page).citations[k];
        if (!now || isSame(now, citation) || this.textAt(now) === this.citedText(citation)) return;
        this.places(page).cloneOtherText += 1;
        this.note('clone, other text', `${page.id}: ${label(citation)} became ${label(now)}`);
      });
  }

  sync() {
    if (!this.canSync) return;
    const answer = this.world.ossilar('sync');
    if (!answer.document?.pages) this.trouble('sync gave no pages', answer);
  }

  // Looks at what `sync` wrote, and takes it over as where the citations are now.
  measureSync(moved) {
    const files = this.readAll(this.world);
    for (const page of this.pages)
      if (files.get(page).citations.length !== page.citations.length)
        this.trouble('a page lost or gained citations without a save');
    for (const { page, k, truth } of moved) {
      const places = this.places(page);
      places.moved += 1;
      const now = files.get(page).citations[k];
      if (now && isSame(now, truth)) places.synced += 1;
      else if (this.canSync) this.note('not re-anchored', `${page.id}: ${label(page.citations[k])} is at ${label(truth)}`);
    }
    for (const page of this.pages)
      page.citations.forEach((citation, k) => this.measureCitation(page, citation, files.get(page), k));
  }

  measureCitation(page, citation, file, k) {
    const places = this.places(page);
    const truth = this.verdict(citation);
    const now = file.citations[k];
    if (truth.verdict === 'undecided' && !citation.undecided) {
      citation.undecided = true;
      places.undecided += 1;
    }
    if (now && !isSame(now, citation)) {
      const change = `${page.id}: ${label(citation)} became ${label(now)}`;
      if (this.textAt(now) !== this.citedText(citation)) {
        places.otherText += 1;
        this.note('other text', change);
      } else if (hasPlace(truth) && !isSame(now, truth)) {
        places.otherPlace += 1;
        this.note('other place', `${change}, and is at ${label(truth)}`);
      } else if (truth.verdict === 'changed') {
        places.otherFile += 1;
        this.note('other file', change);
      }
      Object.assign(citation, now);
    }
    if (!hasPlace(truth)) return;
    citation.agreed = { path: truth.path, first: truth.first, last: truth.last };
    // A link is followed as a reader does, from the label in the prose, and counts once for each citation.
    const target = now && file.links.get(label(now));
    if (!citation.linked) {
      citation.linked = true;
      places.links += 1;
    }
    if (!citation.wrongLink && !(target && isSame(target, truth))) {
      citation.wrongLink = true;
      places.wrongLinks += 1;
    }
  }

  // The rule that the hash of each source at the time of the save alone decides.
  isStaleByHash(page) {
    return [...page.sources].some(([path, hash]) => {
      const file = join(this.world.root, path);
      if (path.includes(' ')) return false; // the steering, which nobody changes here
      return !existsSync(file) || sha256(readFileSync(file)) !== hash;
    });
  }

  measureLeft() {
    const plan = this.plan();
    for (const page of this.pages.filter(({ kind, since }) => kind === 'left' && this.step - since === LEFT_STEPS)) {
      const state = plan.get(page.id)?.state;
      this.counts.left += 1;
      if (!this.isStaleByHash(page)) this.counts.leftOld += 1;
      if (state === 'ok' || state === 'drifted') this.counts.leftNew += 1;
    }
  }

  next(step) {
    this.step = step;
    this.world.put(this.commit);
    this.world.commit(`source ${step}`);
    const plan = this.plan();
    const stale = [];
    for (const page of this.pages.filter(({ kind }) => kind === 'unit')) {
      const is = this.compare(page, plan.get(page.id));
      if (is === 'lost') this.retire(page, 'nothing to cite');
      if (is === 'stale') stale.push(page);
    }
    const moved = this.movedNow();
    if (this.canSync && step % CLONE_STEPS === 0) this.measureClone(moved);
    this.sync();
    this.measureSync(moved);
    if (step % LEFT_STEPS === 0) this.measureLeft();
    for (const page of stale) this.write(page);
    const isDue = ({ kind }) =>
      (kind === 'left' && step % LEFT_STEPS === 0) || (kind === 'random' && step % RANDOM_STEPS === 0);
    for (const page of this.pages.filter(isDue)) this.write(page);
    this.populate();
    this.world.commit(`wiki ${step}`);
  }

  run() {
    const begun = performance.now();
    try {
      this.begin();
      for (let step = 1; step < this.steps.length; ++step) this.next(step);
      return {
        name: this.history.name,
        group: this.history.group,
        counts: this.counts,
        canSync: this.canSync,
        notes: this.notes,
        troubles: [...this.troubles].map(([what, { count, first }]) => ({ what, count, first })),
        times: this.world.times,
        seconds: (performance.now() - begun) / 1000,
      };
    } finally {
      this.world.end();
      rmSync(this.scratch, { recursive: true, force: true });
    }
  }
}

if (process.send) {
  const [name, quick] = process.argv.slice(2);
  const history = histories().find((each) => each.name === name);
  process.send(new Replay(history, quick === 'quick').run(), () => process.disconnect());
}
