// An installation in a folder of its own, and whether a tool is here to try it with.
import { execFileSync, spawnSync } from 'node:child_process';
import { join } from 'node:path';
import { makeFolder } from '../clients/wiki.mjs';

// Installs as a user would, and gives the prefix; removed when test `t` ends.
export function install(t) {
  const prefix = makeFolder(t);
  execFileSync(process.env.OSSILAR_CMAKE, ['--install', process.env.OSSILAR_BUILD, '--prefix', prefix], {
    stdio: 'pipe',
  });
  return { prefix, program: join(prefix, 'bin/ossilar'), file: (path) => join(prefix, path) };
}

// The reason to skip what needs these programs, or false: for the option `skip` of a test.
export function without(...tools) {
  const missing = tools.filter((tool) => spawnSync(tool, ['--version'], { stdio: 'ignore' }).error);
  return missing.length > 0 && `${missing.join(', ')} not installed (scripts/setup test)`;
}
