// The checker that the suites of many savers rest on finds what it should.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { faultsOfHistories, mixedTexts } from './history.mjs';

test('the replay finds what is lost, stored twice, overwritten or mixed', () => {
  const text = (one, two) => `About.\n\n## One\n\n${one} x\n\n## Two\n\n${two} x\n`;
  const versions = (...pairs) => pairs.map(([one, two], i) => ({ version: `v${i}`, text: text(one, two) }));
  const save = (said, base, began, more = {}) => ({ said, base, began, ended: began + 1, outcome: true, ...more });
  const good = versions(['a;', 'b;'], ['c;', 'b;'], ['c;', 'd;']);
  const saves = [save('c;', 'a;', 1), save('d;', 'b;', 3)];
  const rows = [
    ['each once', good, saves, 0],
    ['one that is lost', good, [...saves, save('e;', 'd;', 5)], 1],
    ['one that is stored twice', [...good, ...versions(['c;', 'b;'], ['c;', 'd;'])], saves, 2],
    ['one that took the place of another', good, [saves[0], save('d;', 'z;', 3)], 1],
    ['one that was refused', good, [saves[0], save('d;', 'b;', 3, { outcome: false })], 1],
    ['one of which nobody knows', good, [saves[0], save('d;', 'b;', 3, { outcome: null })], 0],
    ['two in one version', [good[0], good[2]], saves, 3],
    ['one before another that was answered before', good, [save('c;', 'a;', 3), save('d;', 'b;', 1)], 1],
    ['one that was answered with another version', good, [saves[0], save('d;', 'b;', 3, { version: 'v1' })], 1],
  ];
  const adopted = (pair) => [...good, { ...versions(pair)[0], action: 'adopted' }];
  rows.push(['a text that was taken over and says the same', adopted(['c;', 'd;']), saves, 0]);
  rows.push(['one that says something else', adopted(['c;', 'b;']), saves, 1]);
  for (const [why, chain, made, faults] of rows) assert.equal(faultsOfHistories([{ name: 'page', versions: chain }], made).length, faults, why);
  const texts = [text('c;', 'b;'), text('a;', 'd;'), text('c;', 'z;'), text('c;', 'd;').slice(0, 30)];
  assert.deepEqual(mixedTexts(texts, good.slice(0, 2), saves), texts.slice(2));
});
