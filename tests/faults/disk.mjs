// Disks of a test's own, which need root. The scripts that use them are run in a mount namespace of their own, so that
// nothing stays mounted however they end.
import { execFileSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, realpathSync, rmSync, statfsSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

const command = (name, ...args) => execFileSync(name, args, { stdio: 'pipe', encoding: 'utf8' });

// A folder for images and mount points; gone at the end of the test, with all that is mounted below.
export function scratchForDisks(t) {
  const folder = realpathSync(mkdtempSync(join(tmpdir(), 'ossilar-disks-')));
  t.after(() => {
    for (const line of readFileSync('/proc/self/mounts', 'utf8').split('\n')) {
      const place = line.split(' ')[1];
      if (place?.startsWith(`${folder}/`)) command('umount', '--lazy', place);
    }
    rmSync(folder, { recursive: true });
  });
  return folder;
}

// What is not synced stays in memory for as long as a test lasts, and renaming over a file does not sync it by the way.
const IMAGE_OPTIONS = 'loop,commit=600,noauto_da_alloc';

class Disk {
  constructor(folder) {
    this.folder = folder;
    mkdirSync(folder, { recursive: true });
  }

  unmount() {
    command('umount', this.folder);
  }

  setReadOnly(isReadOnly) {
    command('mount', '-o', `remount,${isReadOnly ? 'ro' : 'rw'}`, this.folder);
  }
}

// An ext4 file system in a file, which can be cut off its power.
export class Image extends Disk {
  constructor(file, folder) {
    super(folder);
    this.file = file;
  }

  static make(file, folder, ...options) {
    command('truncate', '--size=32M', file);
    command('mkfs.ext4', '-q', '-m', '0', ...options, file);
    return new Image(file, folder);
  }

  copy(file, folder) {
    command('cp', '--sparse=always', this.file, file);
    return new Image(file, folder);
  }

  mount() {
    command('mount', '-o', IMAGE_OPTIONS, this.file, this.folder);
  }

  cutPower(journal) {
    command(process.env.OSSILAR_SHUTDOWN_FS, this.folder, journal);
  }

  remove() {
    rmSync(this.file);
  }

  // Leaves so many blocks free, or all of them.
  leaveBlocks(blocks) {
    const filler = join(this.folder, 'filler');
    rmSync(filler, { force: true });
    const { bavail, bsize } = statfsSync(this.folder);
    if (blocks < bavail) command('fallocate', `--length=${(bavail - blocks) * bsize}`, filler);
  }

  // Leaves so many files to be made, or all of them.
  leaveInodes(inodes) {
    const folder = join(this.folder, 'fillers');
    rmSync(folder, { recursive: true, force: true });
    if (inodes === Infinity) return;
    mkdirSync(folder);
    const { ffree } = statfsSync(this.folder);
    for (let i = inodes; i < ffree; ++i) writeFileSync(join(folder, `${i}`), '');
  }
}

// A file system in memory.
export class Memory extends Disk {
  mount() {
    command('mount', '-t', 'tmpfs', '-o', 'size=64M,nr_inodes=100000', 'none', this.folder);
  }

  leaveBlocks(count) {
    const { blocks, bfree, bsize } = statfsSync(this.folder);
    const size = count === Infinity ? '64M' : (blocks - bfree + count) * bsize;
    command('mount', '-o', `remount,size=${size}`, this.folder);
  }

  leaveInodes(count) {
    const { files, ffree } = statfsSync(this.folder);
    command('mount', '-o', `remount,nr_inodes=${count === Infinity ? 100000 : files - ffree + count}`, this.folder);
  }
}
