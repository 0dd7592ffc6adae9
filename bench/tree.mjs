// Trees that imitate real ones, the same for the same size.
import { execFileSync } from 'node:child_process';
import { join } from 'node:path';
import { numbers, randomNumbers, write } from './support.mjs';

// The paths of the files: a folder takes the next file with a chance that grows with what it holds.
function treePaths(count) {
  const random = randomNumbers(7);
  const folders = ['src'];
  const folderOfFile = [];
  return numbers(count).map((i) => {
    if (random(20) === 0) folders.push(`${folders[random(folders.length)]}/part${folders.length}`);
    const old = folderOfFile.length > 0 && random(4) > 0;
    const folder = old ? folderOfFile[random(folderOfFile.length)] : random(folders.length);
    folderOfFile.push(folder);
    return `${folders[folder]}/unit${i}.cpp`;
  });
}

// Most files are short and a few are long.
function sourceText(i, paths, random) {
  const includes = numbers(random(5)).map(() => `#include "${paths[random(paths.length)]}"\n`);
  const functions = 10 + Math.floor(90 / (1 + random(12)));
  const body = (f) => `int Unit${i}::step${f}(int given) {\n  return given + ${f};\n}\n\n`;
  return `${includes.join('')}class Unit${i} {};\n\n${numbers(functions).map(body).join('')}`;
}

// Writes that many files below `root` and gives their paths.
export function writeTree(root, count) {
  const paths = treePaths(count);
  const random = randomNumbers(11);
  for (const [i, path] of paths.entries()) write(join(root, path), sourceText(i, paths, random));
  return paths;
}

// Commits all there is below `root`, in a new repository if there is none.
export function commitAll(root) {
  const git = (...args) => execFileSync('git', ['-C', root, ...args], { stdio: 'pipe', maxBuffer: 1 << 28 });
  git('init', '--quiet', '--initial-branch=main');
  git('add', '.');
  git(
    '-c',
    'user.name=b',
    '-c',
    'user.email=b@example.org',
    'commit',
    '--quiet',
    '--no-gpg-sign',
    '--message=tree',
  );
}
