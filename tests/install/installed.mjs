// An installation in a folder of its own.
import { execFileSync } from 'node:child_process';
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
