// The safety net, taken down one thread at a time: every sync, every term of the version check, every lock. Each
// mutant is built and its tests run; a test must fail for each. Run by scripts/mutants, in a copy of the project.
//
//   mutants.mjs TREE [WORDS]   those whose name holds WORDS; TREE is the copy, configured and built in TREE/build/dev
import { spawnSync } from 'node:child_process';
import { readFileSync, writeFileSync } from 'node:fs';
import { join, resolve } from 'node:path';

const FILES = 'utils/files.cc';
const ATOMIC = 'utils/atomic_file.cc';
const LOCK = 'store/write_lock.cc';
const STORE = 'store/sqlite/sqlite_store.cc';
const CONNECTION = 'store/sqlite/connection.cc';
const SAVE = 'workers/wiki/agent_save.cc';
const HOST = 'workers/wiki/host/orchestrator.cc';
const WIKI = 'workers/wiki/host/wiki.cc';
const CHECK = 'workers/wiki/check/wiki_check.cc';

// What is taken away: its name, the file below src/ossilar, the text there and what takes its place, and the tests
// that are to see it, as an expression for ctest.
const MUTANTS = [
  // On disk before the answer.
  [
    'sync of a file before it takes its place',
    ATOMIC,
    '    if (when == Sync::now) sync();\n',
    '    static_cast<void>(when);\n',
    'faults.durability',
  ],
  [
    'sync of the folder after that',
    ATOMIC,
    '  file.place();\n  file.sync_directory();\n',
    '  file.place();\n',
    'faults.durability',
  ],
  [
    'sync of the folder of the lists',
    ATOMIC,
    '  if (!staged.empty()) staged.front().sync_directory();\n',
    '',
    'faults.durability',
  ],
  [
    'sync of the folder of a new folder',
    FILES,
    '    sync_or_throw(parent, so_far.parent_path());\n',
    '    static_cast<void>(so_far);\n',
    'faults.durability',
  ],
  [
    'sync of the lists before they take their places',
    ATOMIC,
    '  for (StagedFile& file : staged) file.sync();\n',
    '',
    'faults.durability',
  ],
  [
    'sync of the folder of a page',
    ATOMIC,
    '  file.exchange(former_file(path).filename().string());\n  file.sync_directory();\n',
    '  file.exchange(former_file(path).filename().string());\n',
    'faults.durability',
  ],
  [
    'time for a writer to lock its file',
    'workers/wiki/check/inspection.cc',
    'if (!may_go || waited >= kTimeToLock) break;',
    'if (may_go || waited >= kTimeToLock) break;',
    'check.WikiCheck',
  ],
  ['failure of a sync', 'utils/file_calls.h', 'if (fsync(fd) != 0) throw', 'if (fsync(fd) > 0) throw', 'faults.durability'],
  [
    'sync of each commit',
    'store/sqlite/schema.cc',
    'PRAGMA synchronous = FULL',
    'PRAGMA synchronous = NORMAL',
    'faults.durability',
  ],
  [
    'a page takes its place whole',
    ATOMIC,
    '  file.exchange(former_file(path).filename().string());\n',
    '  file.exchange(former_file(path).filename().string());\n  truncate(path.c_str(), 5);\n',
    'host|check',
  ],

  // The version check.
  [
    'hash in the version',
    SAVE,
    'return std::pair(basis_part(*row, "content_hash"), ',
    'return std::pair(std::string(), ',
    'agent_save',
  ],
  ['title in the version', SAVE, 'basis_part(*row, "title"));', 'std::string());', 'agent_save'],
  [
    'no row as a version of its own',
    SAVE,
    'if (row == nullptr) return std::nullopt;\n  return std::pair(',
    'if (row == nullptr) return std::pair(std::string(), std::string());\n  return std::pair(',
    'agent_save',
  ],
  [
    'rows read again under the lock',
    SAVE,
    '  PagePlan& plan = *draft.plan;\n  _reread_existing();\n',
    '  PagePlan& plan = *draft.plan;\n',
    'agent_save',
  ],
  [
    'version compared under the lock',
    SAVE,
    '  if (_basis(existing.find(plan.page_id)) != draft.basis) return std::nullopt;\n',
    '',
    'agent_save',
  ],
  [
    'title compared again under the lock',
    SAVE,
    '  if (Answer refused = retitle(plan, draft.title, draft.plans, existing); utils::truthy(refused))\n    return refused;\n\n  _atomic_write',
    '  _atomic_write',
    'agent_save',
  ],
  [
    'version that was asked for, first look',
    HOST,
    '    if (auto refusal = refuse_other_version(content)) return *std::move(refusal);\n  }\n',
    '  }\n',
    'host|check|faults',
  ],
  [
    'version that was asked for, once the page was drafted',
    HOST,
    '  if (draft == nullptr) return drafted;\n  if (auto refusal = refuse_other_version(content)) return *std::move(refusal);\n',
    '  if (draft == nullptr) return drafted;\n',
    'host|check',
  ],
  [
    'page file that the draft was made from, under the lock',
    HOST,
    '  if (read_standing_page(pages_dir(), file).version() != draft_->standing.version()) return std::nullopt;\n',
    '',
    'host|check|faults.moments',
  ],
  [
    'text that no row knows',
    HOST,
    '    return hash == draft || hash == row;\n',
    '    return hash == draft || hash == row || true;\n',
    'host|check',
  ],

  // What others wrote.
  [
    'a file that a save replaced is put away before the next',
    HOST,
    '  settle_former(file, draft_->page_id, is_known, wiki_.replaced_texts());\n  commit_->transaction =',
    '  commit_->transaction =',
    'host|check',
  ],
  [
    'no former file is overwritten',
    ATOMIC,
    'rename_to(former, RENAME_NOREPLACE)',
    'rename_to(former, 0)',
    'utils',
  ],
  [
    'a step that failed leaves no snapshot',
    STORE,
    '      Snapshots changed = last_;  // what is taken back was never read\n',
    '      Snapshots& changed = last_;\n',
    'host|check',
  ],

  // Locks.
  ['lock of a save', SAVE, '      _acquire_write_lock({.wait = true});\n', '', 'agent_save'],
  ['release after a commit', SAVE, '  _release_write_lock();\n  return answer;\n', '  return answer;\n', 'agent_save'],
  [
    'release after a commit that failed',
    SAVE,
    '  } catch (...) {\n    _release_write_lock();\n    throw;\n',
    '  } catch (...) {\n    throw;\n',
    'agent_save',
  ],
  [
    'lock of check, repair and adoption',
    WIKI,
    '  acquire_write_lock(wait, utils::Task());\n  try {\n',
    '  static_cast<void>(wait);\n  try {\n',
    'faults.holders',
  ],
  [
    'release after them',
    WIKI,
    '    throw;\n  }\n  release_write_lock();\n}',
    '    throw;\n  }\n}',
    'host|check',
  ],
  [
    'release after they failed',
    WIKI,
    '    work();\n  } catch (...) {\n    release_write_lock();\n',
    '    work();\n  } catch (...) {\n',
    'host|check',
  ],
  [
    'lock of the file',
    LOCK,
    'if (flock_uninterrupted(files.file.get(), LOCK_EX | LOCK_NB) != 0) {',
    'if (flock_uninterrupted(files.file.get(), LOCK_SH | LOCK_NB) != 0) {',
    'store.WriteLock|faults.holders',
  ],
  [
    'lock of the folder',
    LOCK,
    'return flock_uninterrupted(files.folder.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;',
    'return true;',
    'faults.holders',
  ],
  [
    'look whether the locked file is still there',
    LOCK,
    '  if (!is_at(files.file.get(), options_.path)) return false;\n',
    '  static_cast<void>(is_at);\n',
    'store.WriteLock|faults.moments',
  ],
  [
    'unlock that a child cannot outlast',
    LOCK,
    '  const int result = flock_uninterrupted(files.file.get(), LOCK_UN);\n',
    '  const int result = 0;\n',
    'store.WriteLock',
  ],
  ['one holder in a process', LOCK, '[this] { return !entered_; }', '[] { return true; }', 'store.WriteLock'],
  [
    'lock around the setting aside of a database',
    CHECK,
    '  lock.acquire(true);\n  try {\n',
    '  if (utils::stamp_of(paths.database()).is_same_file(found)) kept = set_aside_database(paths.database());\n' +
      '  lock.acquire(true);\n  try {\n',
    'faults.moments',
  ],
  [
    'second look at a damaged database',
    CHECK,
    '.is_same_file(found) && is_damaged(database))',
    '.is_same_file(found) && (true || is_damaged(database)))',
    'faults.moments',
  ],
  [
    'lock of a temporary file at work',
    ATOMIC,
    '  retry_interrupted([&] { return flock(fd_.get(), LOCK_EX); });\n',
    '',
    'faults.moments',
  ],
  [
    'look whether a temporary file is at work',
    ATOMIC,
    'if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) each',
    'each',
    'faults.moments',
  ],
  [
    'look whether a temporary file was tidied up',
    ATOMIC,
    '  } while (!has_name(fd_.get()));\n',
    '  } while (false);\n  static_cast<void>(has_name);\n',
    'faults.moments',
  ],
  [
    'lock of the database before it is read to be written',
    STORE,
    'TransactionBehavior::IMMEDIATE',
    'TransactionBehavior::DEFERRED',
    'store|sqlite',
  ],
  [
    'lock of the database before a save reads it',
    STORE,
    'Query(connections_.writer, "BEGIN IMMEDIATE")',
    'Query(connections_.writer, "BEGIN DEFERRED")',
    'store|sqlite',
  ],
  [
    'look whether what a save wrote was taken back',
    STORE,
    '        require_open();\n        doing',
    '        doing',
    'store|sqlite',
  ],
  [
    'rows of a save are committed before its answer',
    HOST,
    '  transaction->commit();\n',
    '',
    'host|check',
  ],
  [
    'rows before the lists',
    HOST,
    '  put_on_disk();\n  task_.begin_stage("publishing");\n  AgentSaveMixin::_publish_agent_save();\n',
    '  task_.begin_stage("publishing");\n  AgentSaveMixin::_publish_agent_save();\n  put_on_disk();\n',
    'host|check',
  ],
  [
    'manifest of our own vouches for nothing',
    'workers/wiki/pages/list_files.cc',
    'known->second != utils::sha256_hex(text))',
    'true)',
    'host|check',
  ],
  [
    'patience with another that writes the database',
    'store/sqlite/connection.h',
    'kBusyTimeoutMs = ',
    'kBusyTimeoutMs = 0 * ',
    'store|faults.races',
  ],
  [
    'database that is where it was opened',
    CONNECTION,
    'if (moved != 0) throw',
    'if (moved > 1) throw',
    'faults.holders',
  ],
  [
    'turns of those who save one page',
    'workers/wiki/host/saving.cc',
    '    const PageTurn turn(wiki.paths().turns(), request.page_id,\n                        std::min(wiki.config().lock_timeout, kTurnPatience), task);\n',
    '    static_cast<void>(kTurnPatience);\n',
    'faults.moments|clients',
  ],

  // Nobody is led elsewhere.
  [
    'reading stays below its folder',
    FILES,
    'kReadFlags, RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS);',
    'kReadFlags, 0);',
    'utils|faults.hostile',
  ],
  [
    'folders are not links where the kernel looks at the whole way',
    FILES,
    'O_DIRECTORY | O_CLOEXEC, RESOLVE_NO_SYMLINKS',
    'O_DIRECTORY | O_CLOEXEC, 0',
    'utils|faults.hostile',
  ],
  [
    'folders are not links',
    FILES,
    'O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });\n  if (fd >= 0)',
    'O_RDONLY | O_DIRECTORY | O_CLOEXEC); });\n  if (fd >= 0)',
    'utils|faults.hostile',
  ],
  [
    'the lock file is no link',
    LOCK,
    'O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK',
    'O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK',
    'faults.hostile',
  ],
  [
    'the database is no link',
    CONNECTION,
    'SQLite::OPEN_NOMUTEX | SQLite::OPEN_NOFOLLOW',
    'SQLite::OPEN_NOMUTEX',
    'faults.hostile',
  ],
];

const [folder, words = ''] = process.argv.slice(2);
const tree = resolve(folder);
const build = join(tree, 'build/dev');

const run = (command, args) => spawnSync(command, args, { cwd: tree, encoding: 'utf8', maxBuffer: 1 << 28 });
const builds = () => run('cmake', ['--build', build]);
const runTests = (tests) =>
  run('ctest', [
    '--test-dir',
    build,
    '-j2',
    '--timeout',
    '180',
    '--no-tests=error',
    '-LE',
    'root',
    '-R',
    `^(${tests})`,
  ]);

// The tests that failed; what ctest says when it could not run them.
function failuresOf(tests) {
  const { status, stdout, stderr } = runTests(tests);
  if (status === 0) return [];
  const failed = [...stdout.matchAll(/^\s+\d+ - (\S+) \(/gm)].map((match) => match[1]);
  if (failed.length === 0) throw new Error(`ctest: exit ${status}\n${stdout}${stderr}`);
  return failed;
}

// "caught by TEST", or what is wrong.
function outcomeOf(text, [, , from, to, tests]) {
  if (text.split(from).length !== 2) return 'NOT MADE: the text is not there once';
  const { status, stdout } = builds();
  if (status !== 0) return `NOT BUILT: ${/error: .*/.exec(stdout)?.[0]}`;
  const failed = failuresOf(tests);
  if (failed.length === 0) return 'SURVIVES';
  return `caught by ${failed[0]}${failed.length > 1 ? ` and ${failed.length - 1} more` : ''}`;
}

function tryMutant(mutant) {
  const [name, path, from, to] = mutant;
  const file = join(tree, 'src/ossilar', path);
  const text = readFileSync(file, 'utf8');
  const began = Date.now();
  writeFileSync(
    file,
    text.replace(from, () => to),
  );
  try {
    const outcome = outcomeOf(text, mutant);
    console.log(`${name.padEnd(56)} ${String(Math.round((Date.now() - began) / 1000)).padStart(4)} s  ${outcome}`);
    return outcome.startsWith('caught');
  } finally {
    writeFileSync(file, text);
  }
}

const chosen = MUTANTS.filter(([name]) => name.includes(words));
const suites = [...new Set(chosen.flatMap(([, , , , tests]) => tests.split('|')))].join('|');
const untouched = failuresOf(suites);
if (untouched.length > 0) {
  console.error(`these fail without a mutant: ${untouched.join(', ')}`);
  process.exit(2);
}
const caught = chosen.filter(tryMutant).length;
console.log(`${chosen.length} mutants made, ${caught} caught`);
process.exitCode = caught === chosen.length && chosen.length > 0 ? 0 : 1;
