// What a test needs of a machine and not every machine has: tried, since a tool may be there and not be allowed to work.
import { spawnSync } from 'node:child_process';

const TRIALS = {
  losetup: [['--find'], 'no loop device'],
  'mkfs.ext4': [['-V'], 'no mkfs.ext4 (package e2fsprogs)'],
  script: [['-qec', 'true', '/dev/null'], 'no pseudo-terminal, or no script(1)'],
  sqlite3: [['--version'], 'no sqlite3'],
  strace: [['-f', '-o', '/dev/null', 'true'], 'no strace, or nothing may be traced here'],
};

const worked = new Map(); // by tool; each is tried once

function works(tool, args) {
  if (!worked.has(tool)) worked.set(tool, spawnSync(tool, args, { stdio: 'ignore' }).status === 0);
  return worked.get(tool);
}

// The reason to skip what needs these, or false: for the option `skip` of a test.
export function without(...tools) {
  const reasons = tools
    .map((tool) => [tool, ...(TRIALS[tool] ?? [['--version'], `no ${tool}`])])
    .filter(([tool, args]) => !works(tool, args))
    .map(([, , reason]) => reason);
  return reasons.length > 0 && `${reasons.join('; ')} (scripts/setup test installs what can be installed)`;
}
