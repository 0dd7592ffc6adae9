// How much of a page's subject its context names: scripts/bench context FOLDER...
//
// Each folder is copied and gets a wiki. Of each page of it, the public symbols of its source files are looked
// for in what page_context gives within 12,000 tokens. Which symbols are public is told here by ctags and by
// rules of its own, so the figure is not made by the code that it measures. Also what a result takes on the wire
// for each token of its texts, counted as four bytes. MISSED=1 names the symbols that were not found.
import { execFileSync } from 'node:child_process';
import { cpSync, mkdtempSync, readdirSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { basename, join } from 'node:path';
import { program } from '../tests/clients/wiki.mjs';
import { Client, printTable, wikiServer } from './support.mjs';

const BUDGET = 12000;
const LARGEST = 1 << 20; // bytes of a file that the index reads symbols of
const run = (command, args, options) =>
  execFileSync(command, args, { encoding: 'utf8', stdio: 'pipe', maxBuffer: 1 << 28, ...options });

const isHeader = (path) => /\.(h|hh|hpp|hxx)$/.test(path);
const escaped = (name) => name.replace(/[$.*+?^()[\]{}|\\]/g, '\\$&');
const hasWord = (text, name) => new RegExp(`(?<![\\w$])${escaped(name)}(?![\\w$])`).test(text);

function tagsOf(root, path) {
  const options = ['--quiet', '--options=NONE', '--output-format=json', '--fields=NKnsapf'];
  const kinds = ['--kinds-C=+p', '--kinds-C++=+p', '--extras=-{anonymous}'];
  const lines = run('ctags', [...options, ...kinds, '-f', '-', path], { cwd: root }).split('\n');
  return lines
    .filter(Boolean)
    .map((line) => JSON.parse(line))
    .filter((tag) => tag._type === 'tag');
}

// Kinds that a reader calls by name.
const KINDS = new Set(
  `function prototype class struct union enum interface trait typedef type alias macro method member module generator
  func`.split(/\s+/),
);

function isPublicInPython(tag, { lines }) {
  const isNested = tag.scopeKind === 'function' || tag.scopeKind === 'member';
  const isImport = /^\s*(from|import)\b/.test(lines[tag.line - 1] ?? '');
  return !/^_/.test(tag.name) && !/(^|\.)_/.test(tag.scope ?? '') && !isNested && !isImport;
}

function isExported(tag, { lines, text }) {
  if (tag.scope) return false;
  const lists = text.matchAll(/(module\.exports\s*=|export)\s*\{([^}]*)\}/g);
  return (
    /^\s*export\b/.test(lines[tag.line - 1] ?? '') ||
    new RegExp(`exports(\\.${escaped(tag.name)}\\b|\\s*=\\s*${escaped(tag.name)}\\b)`).test(text) ||
    [...lists].some((found) => hasWord(found[2], tag.name))
  );
}

// What headers hold but guards and members, and of sources the functions that a header declares.
function isOffered(tag, { path, declared }) {
  if (tag.kind === 'member' || /^operator/.test(tag.name) || ['private', 'protected'].includes(tag.access))
    return false;
  if (isHeader(path)) return !/_H_?$|_H_INCLUDED/i.test(tag.name) && tag.scopeKind !== 'function';
  return tag.kind === 'function' && !tag.file && !tag.scope && declared.has(tag.name);
}

function ruleOf(path) {
  if (/\.py$/.test(path)) return isPublicInPython;
  if (/\.(c?js|mjs|ts)$/.test(path)) return isExported;
  return /\.(c|cc|cpp|cxx|h|hh|hpp|hxx)$/.test(path) ? isOffered : undefined;
}

function prototypesBelow(root) {
  const files = readdirSync(root, { recursive: true }).filter(isHeader);
  const tags = files.flatMap((path) => tagsOf(root, path));
  return new Set(tags.filter((tag) => tag.kind === 'prototype').map((tag) => tag.name));
}

function publicSymbols(root, path, declared) {
  const rule = ruleOf(path);
  const text = rule ? readFileSync(join(root, path), 'utf8') : '';
  if (!rule || text.length > LARGEST) return [];
  const file = { path, text, lines: text.split('\n'), declared };
  const tags = tagsOf(root, path).filter((tag) => KINDS.has(tag.kind) && /^[\w$]+$/.test(tag.name));
  return [...new Set(tags.filter((tag) => rule(tag, file)).map((tag) => tag.name))];
}

const ask = (root, ...args) => JSON.parse(run(program, ['--repo', root, '--json', ...args]));

async function measurePage(client, root, page, declared) {
  const { result } = await client.request('tools/call', {
    name: 'page_context',
    arguments: { page_id: page, budget: BUDGET },
  });
  const given = result.content[0].text;
  const document = JSON.parse(given);
  const texts = [document.text ?? '', document.changes ?? '', document.grounding, ...document.source_files];
  const symbols = ask(root, 'context', page).source_files.flatMap((path) => publicSymbols(root, path, declared));
  const missed = symbols.filter((name) => !hasWord(document.grounding, name));
  if (process.env.MISSED) for (const name of missed) console.log(`${page}: ${name}`);
  return {
    symbols: symbols.length,
    named: symbols.length - missed.length,
    wire: Buffer.byteLength(JSON.stringify({ jsonrpc: '2.0', id: 1, result })),
    tokens: Buffer.byteLength(texts.join('\n')) / 4,
    sent: Buffer.byteLength(given) / 4,
  };
}

async function measure(folder) {
  const root = mkdtempSync(join(tmpdir(), 'ossilar-bench-'));
  try {
    cpSync(folder, root, { recursive: true });
    run(program, ['--repo', root, 'init']);
    const declared = prototypesBelow(root);
    const client = new Client(wikiServer(root));
    await client.begin();
    const pages = [];
    for (const { page_id } of ask(root, 'plan').pages) pages.push(await measurePage(client, root, page_id, declared));
    await client.end();
    const sum = (field) => pages.reduce((all, page) => all + page[field], 0);
    const shares = pages.filter((page) => page.symbols >= 10).map((page) => (100 * page.named) / page.symbols);
    return {
      repository: basename(folder),
      pages: String(pages.length),
      symbols: String(sum('symbols')),
      'named %': (100 * sum('named')) / sum('symbols'),
      'worst page %': Math.min(100, ...shares),
      'wire bytes/token': sum('wire') / sum('tokens'),
      'tokens, most': Math.max(...pages.map((page) => page.sent)),
    };
  } finally {
    rmSync(root, { recursive: true, force: true });
  }
}

const rows = [];
for (const folder of process.argv.slice(2)) rows.push(await measure(folder));
if (rows.length > 0) printTable(rows);
else console.error('name folders of source to measure');
