// A person reads the wiki in a browser.
import assert from 'node:assert/strict';
import { readFileSync, readdirSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test from 'node:test';
import { pathToFileURL } from 'node:url';
import { HtmlValidate } from 'html-validate';
import { alphaText, browse, makeWiki, serve, violations } from './reader.mjs';

const KINDS = ['', 'pages/alpha.html', 'pages/gamma.html', 'pages/delta.html', 'source/src/alpha.cpp.html', 'state.html', 'search.html?q=numbers', 'nothing'];

test('read, search, follow citations and old titles', async (t) => {
  const wiki = makeWiki();
  const url = await serve(t, wiki.root);
  const { open, faults } = await browse(t);
  const page = await open();

  await page.goto(url);
  await page.click('.cards >> text=Alpha');
  assert.equal(await page.textContent('h1'), 'Alpha');
  await page.waitForSelector('.hljs-comment'); // code in colour
  await page.waitForSelector('.mermaid-drawn svg');
  await page.locator('.diagram svg text', { hasText: 'Beta' }).waitFor(); // the module diagram
  await page.shot('page');

  await page.fill('#q', 'largest');
  await page.waitForSelector('#hits a');
  assert.match(await page.textContent('#hits'), /Alpha/);
  await page.shot('search-as-one-types');
  await page.keyboard.press('ArrowDown');
  await page.keyboard.press('Enter');
  await page.waitForURL(/pages\/alpha\.html/);
  await page.waitForSelector('.hljs-comment'); // the scripts of the page have run

  await page.click('a.cite >> nth=0');
  const frame = page.frameLocator('.panel iframe');
  await frame.locator('#L2-L4').waitFor();
  assert.notEqual(await frame.locator('#L2-L4').evaluate((range) => getComputedStyle(range).backgroundColor), 'rgba(0, 0, 0, 0)', 'the cited lines are marked');
  const top = (id) => frame.locator(id).evaluate((part) => part.getBoundingClientRect().top);
  assert.ok(Math.abs((await top('#L2-L4')) - (await top('#L2'))) < 4, 'the mark is at its lines');
  await page.shot('citation-beside-the-page');
  await page.keyboard.press('Escape');
  await page.waitForSelector('.panel', { state: 'detached' });

  await page.goto(url + 'source/src/alpha.cpp.html');
  assert.match(await page.textContent('.cited'), /Alpha/);
  await page.goto(url + 'pages/Sums of old');
  assert.equal(await page.textContent('h1'), 'Beta');
  await page.goto(url + 'titles/sums-of-old.html');
  assert.equal(await page.textContent('h1'), 'Beta');

  await page.goto(url + 'pages/delta.html');
  await page.waitForTimeout(200);
  assert.equal(await page.evaluate(() => window.hacked), undefined);
  assert.deepEqual(faults, []);
});

test('a save and a changed source appear in the open page', async (t) => {
  const wiki = makeWiki({ isHostile: false });
  const url = await serve(t, wiki.root);
  const { open, faults } = await browse(t);
  const page = await open();
  await page.goto(url + 'pages/alpha.html');
  wiki.save('alpha', alphaText('Saved while it was open.'));
  await page.waitForSelector('text=Saved while it was open.');
  await page.shot('live-save');

  const alpha = readFileSync(join(wiki.root, 'src/alpha.cpp'), 'utf8');
  wiki.write('src/alpha.cpp', alpha.replace('int alpha10(', 'long alpha10('));
  await page.waitForSelector('.doubt-changed');
  assert.match(await page.textContent('.doubt-changed'), /^\s*The tenth is the largest one/);
  await page.click('.change summary');
  assert.match(await page.textContent('.change del'), /int alpha10/);
  assert.match(await page.textContent('.change ins'), /long alpha10/);
  await page.evaluate(() => scrollTo(0, 0));
  await page.shot('stale');
  assert.deepEqual(faults, []);
});

test('every kind of page is accessible and valid, in both schemes and at both widths', async (t) => {
  const wiki = makeWiki();
  const alpha = readFileSync(join(wiki.root, 'src/alpha.cpp'), 'utf8');
  wiki.write('src/alpha.cpp', '\n' + alpha.replace('int alpha10(', 'long alpha10('));
  const url = await serve(t, wiki.root);
  const { open, faults } = await browse(t);
  const html = new HtmlValidate({ extends: ['html-validate:standard'], rules: { 'long-title': 'off', 'no-inline-style': 'off', 'no-trailing-whitespace': 'off', 'void-style': 'off', 'doctype-style': 'off' } });
  for (const colorScheme of ['light', 'dark']) {
    for (const width of [1440, 360]) {
      const page = await open({ colorScheme, viewport: { width, height: 900 } });
      for (const kind of KINDS) {
        await page.goto(url + kind);
        const name = `${kind.replaceAll(/\W+/g, '-') || 'home'}-${colorScheme}-${width}`;
        for (const details of await page.locator('details').all()) await details.evaluate((each) => { each.open = true; });
        assert.deepEqual(await violations(page), [], name);
        const overflow = await page.evaluate(() => document.documentElement.scrollWidth - innerWidth);
        assert.ok(overflow <= 0, `${name} is ${overflow} pixels too wide`);
        await page.shot(name);
      }
      await page.close();
    }
  }
  for (const kind of KINDS) {
    const text = await (await fetch(url + kind)).text();
    const report = await html.validateString(text);
    const messages = report.results.flatMap((result) => result.messages.map((each) => `${each.ruleId} ${each.line}: ${each.message}`));
    assert.deepEqual(messages, [], kind);
  }
  assert.deepEqual(faults, []);
});

test('by keyboard alone', async (t) => {
  const wiki = makeWiki();
  const url = await serve(t, wiki.root);
  const { open, faults } = await browse(t);
  const page = await open();
  await page.goto(url + 'pages/alpha.html');
  await page.keyboard.press('Tab');
  assert.equal(await page.evaluate(() => document.activeElement.className), 'skip');
  await page.keyboard.press('Enter');
  assert.equal(await page.evaluate(() => document.activeElement.id), 'content');
  for (let i = 0; i < 30 && !(await page.evaluate(() => document.activeElement.matches('a.cite'))); ++i) await page.keyboard.press('Tab');
  await page.keyboard.press('Enter');
  await page.waitForSelector('.panel');
  await page.shot('keyboard');
  await page.keyboard.press('Escape');
  await page.waitForSelector('.panel', { state: 'detached' });
  assert.ok(await page.evaluate(() => document.activeElement.matches('a.cite')), 'the focus is back at the citation');
  await page.keyboard.press('/');
  assert.equal(await page.evaluate(() => document.activeElement.id), 'q');
  await page.keyboard.type('numbers');
  await page.keyboard.press('Enter');
  await page.waitForURL(/search\.html\?q=numbers/);
  assert.deepEqual(faults, []);
});

test('without scripts everything but the search as one types works', async (t) => {
  const wiki = makeWiki();
  const url = await serve(t, wiki.root);
  const { open, faults } = await browse(t);
  const page = await open({ javaScriptEnabled: false, viewport: { width: 360, height: 800 } });
  await page.goto(url + 'pages/alpha.html');
  await page.click('.menu');
  await page.locator('.pages').getByText('Beta').click();
  assert.equal(await page.textContent('h1'), 'Beta');
  await page.click('a.cite >> nth=0');
  assert.match(page.url(), /source\/src\/beta\.cpp\.html#L2-L5$/);
  await page.locator('#L2-L5:target').waitFor({ state: 'attached' });
  await page.shot('no-script');
  await page.fill('#q', 'largest');
  await page.press('#q', 'Enter');
  assert.match(await page.textContent('.results'), /Alpha/);
  assert.deepEqual(faults, []);
});

test('an export is read from the disk', async (t) => {
  const wiki = makeWiki();
  const folder = mkdtempSync(join(tmpdir(), 'ossilar-site-'));
  t.after(() => rmSync(folder, { recursive: true, force: true }));
  wiki.ossilar(['export', folder]);
  assert.ok(readdirSync(folder).includes('index.html'));
  const { open, faults } = await browse(t);
  const page = await open();
  await page.goto(pathToFileURL(join(folder, 'index.html')).href);
  await page.click('.cards >> text=Alpha');
  assert.equal(await page.textContent('h1'), 'Alpha');
  await page.waitForSelector('.mermaid-drawn svg');
  await page.waitForSelector('.hljs-comment'); // code in colour
  await page.fill('#q', 'largest');
  await page.waitForSelector('#hits a');
  await page.shot('export-search');
  await page.press('#q', 'Enter');
  await page.waitForSelector('#results a');
  await page.click('#results a >> nth=0');
  await page.waitForSelector('.hljs-comment'); // the scripts of the page have run
  await page.click('a.cite >> nth=0');
  await page.locator('.panel iframe').waitFor();
  await page.frameLocator('.panel iframe').locator('#L2-L4').waitFor();
  await page.shot('export');
  await page.goto(pathToFileURL(join(folder, 'titles/sums-of-old.html')).href);
  await page.waitForURL(/pages\/beta\.html/);
  assert.deepEqual(faults, []);
});
