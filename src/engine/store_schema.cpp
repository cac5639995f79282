// The schema, as numbered steps; PRAGMA user_version says how many were taken.
#include "engine/store.h"

namespace rq::engine {

namespace {

constexpr const char* kStep1 = R"sql(
CREATE TABLE tasks (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  public_id TEXT UNIQUE,
  type INTEGER NOT NULL,
  name TEXT NOT NULL,
  origin TEXT NOT NULL,
  text TEXT NOT NULL,
  state TEXT NOT NULL,
  reason TEXT,
  created_us INTEGER NOT NULL,
  started_us INTEGER,
  finished_us INTEGER,
  cancel_us INTEGER,
  attempts INTEGER NOT NULL DEFAULT 0,
  last_attempt INTEGER
) STRICT;
CREATE INDEX tasks_by_state ON tasks (state, id);

CREATE TABLE attempts (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  task INTEGER NOT NULL REFERENCES tasks (id),
  number INTEGER NOT NULL,
  token TEXT NOT NULL UNIQUE,
  state TEXT NOT NULL,
  session INTEGER,
  pid INTEGER,
  worker_version TEXT NOT NULL DEFAULT '',
  worker_guid TEXT NOT NULL DEFAULT '',
  reported_task TEXT NOT NULL DEFAULT '',
  created_us INTEGER NOT NULL,
  connected_us INTEGER,
  started_us INTEGER,
  finished_us INTEGER,
  last_seen_us INTEGER,
  exited_us INTEGER,
  exit_code INTEGER,
  exit_signal INTEGER,
  percent REAL NOT NULL DEFAULT 0,
  speed REAL NOT NULL DEFAULT 0,
  noted_percent INTEGER NOT NULL DEFAULT -1,
  noted_us INTEGER NOT NULL DEFAULT 0,
  status INTEGER,
  detail_code INTEGER NOT NULL DEFAULT 0,
  detail_text TEXT NOT NULL DEFAULT '',
  error_code INTEGER NOT NULL DEFAULT 0,
  error_text TEXT NOT NULL DEFAULT '',
  further_text TEXT NOT NULL DEFAULT '',
  reason TEXT,
  output TEXT NOT NULL DEFAULT '',
  UNIQUE (task, number)
) STRICT;

CREATE TABLE results (
  attempt INTEGER PRIMARY KEY REFERENCES attempts (id),
  json TEXT NOT NULL
) STRICT;

CREATE TABLE events (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  task INTEGER NOT NULL REFERENCES tasks (id),
  attempt INTEGER REFERENCES attempts (id),
  time_us INTEGER NOT NULL,
  kind TEXT NOT NULL,
  json TEXT NOT NULL
) STRICT;
CREATE INDEX events_by_task ON events (task, id);
CREATE TRIGGER events_stay_as_they_are BEFORE UPDATE ON events
  BEGIN SELECT RAISE(ABORT, 'events are only ever added'); END;
CREATE TRIGGER events_stay BEFORE DELETE ON events
  BEGIN SELECT RAISE(ABORT, 'events are only ever added'); END;

PRAGMA user_version = 1;
)sql";

constexpr const char* kStep2 = R"sql(
ALTER TABLE attempts ADD COLUMN average_speed REAL NOT NULL DEFAULT 0;

PRAGMA user_version = 2;
)sql";

// Waiting for another attempt, suspended in the queue, attempts before the latest retry order; types that are
// stopped. Events go with their task alone.
constexpr const char* kStep3 = R"sql(
ALTER TABLE tasks ADD COLUMN not_before_us INTEGER;
ALTER TABLE tasks ADD COLUMN waits_since_us INTEGER;
ALTER TABLE tasks ADD COLUMN suspended_us INTEGER;
ALTER TABLE tasks ADD COLUMN spent INTEGER NOT NULL DEFAULT 0;
ALTER TABLE tasks ADD COLUMN deleted INTEGER NOT NULL DEFAULT 0;
CREATE INDEX events_by_attempt ON events (attempt);
CREATE INDEX tasks_by_time ON tasks (not_before_us) WHERE not_before_us IS NOT NULL;

CREATE TABLE stops (
  type INTEGER PRIMARY KEY,
  failures INTEGER NOT NULL DEFAULT 0,
  since_us INTEGER,
  until_us INTEGER,
  reason TEXT NOT NULL DEFAULT ''
) STRICT;

DROP TRIGGER events_stay;
CREATE TRIGGER events_stay BEFORE DELETE ON events
  WHEN (SELECT deleted FROM tasks WHERE id = OLD.task) = 0
  BEGIN SELECT RAISE(ABORT, 'events are only ever added'); END;

PRAGMA user_version = 3;
)sql";

// What an engine needs to take over the attempts that an earlier run of it left: which worker process each
// has (its mark tells it from a later one with its id), the highest number of the worker's that is here, the
// order 4004 or 4006 and the new text that it has not answered, and whether anything of the attempt is still
// there.
constexpr const char* kStep4 = R"sql(
ALTER TABLE attempts ADD COLUMN process_mark TEXT NOT NULL DEFAULT '';
ALTER TABLE attempts ADD COLUMN worker_seq INTEGER NOT NULL DEFAULT 0;
ALTER TABLE attempts ADD COLUMN is_open INTEGER NOT NULL DEFAULT 0;
ALTER TABLE attempts ADD COLUMN interruptions INTEGER NOT NULL DEFAULT 0;
ALTER TABLE attempts ADD COLUMN asked INTEGER NOT NULL DEFAULT 0;
ALTER TABLE attempts ADD COLUMN text_asked INTEGER NOT NULL DEFAULT 0;
UPDATE attempts SET is_open = 1 WHERE state IN ('starting', 'running', 'paused', 'finishing');
CREATE INDEX attempts_open ON attempts (id) WHERE is_open = 1;

CREATE TABLE facts (
  name TEXT PRIMARY KEY,
  value TEXT NOT NULL
) STRICT;

PRAGMA user_version = 4;
)sql";

// What a submission says of its turn, of time and of what it takes of the node; the client's own key. The
// turn's index has everything that the choice of the next task looks at.
constexpr const char* kStep5 = R"sql(
ALTER TABLE tasks ADD COLUMN priority INTEGER NOT NULL DEFAULT 50;
ALTER TABLE tasks ADD COLUMN deadline_us INTEGER;
ALTER TABLE tasks ADD COLUMN deadline_cancels INTEGER NOT NULL DEFAULT 0;
ALTER TABLE tasks ADD COLUMN deadline_noted INTEGER NOT NULL DEFAULT 0;
ALTER TABLE tasks ADD COLUMN memory_mib INTEGER NOT NULL DEFAULT 0;
ALTER TABLE tasks ADD COLUMN cores INTEGER NOT NULL DEFAULT 0;
ALTER TABLE tasks ADD COLUMN volumes TEXT NOT NULL DEFAULT '';
ALTER TABLE tasks ADD COLUMN client_key TEXT;
ALTER TABLE tasks ADD COLUMN submitted_text TEXT;
CREATE UNIQUE INDEX tasks_by_key ON tasks (client_key) WHERE client_key IS NOT NULL;
CREATE INDEX tasks_by_deadline ON tasks (deadline_us) WHERE deadline_us IS NOT NULL AND finished_us IS NULL;
CREATE INDEX tasks_by_turn ON tasks (priority DESC, id, type, memory_mib, cores, volumes, suspended_us,
  not_before_us, waits_since_us, state) WHERE state = 'queued';

PRAGMA user_version = 5;
)sql";

// For numbers over everything, without a look at the tasks themselves.
constexpr const char* kStep6 = R"sql(
CREATE INDEX tasks_by_type ON tasks (type, state, finished_us, started_us, created_us, attempts);
CREATE INDEX attempts_lost ON attempts (task) WHERE state = 'lost';

PRAGMA user_version = 6;
)sql";

// The attempt that an attempt's worker was started for, when that is another one: they share the worker.
constexpr const char* kStep7 = R"sql(
ALTER TABLE attempts ADD COLUMN worker INTEGER;
CREATE INDEX attempts_by_worker ON attempts (worker) WHERE worker IS NOT NULL;

PRAGMA user_version = 7;
)sql";

// How long the attempt's worker may say nothing, as it was when that was started; whether it has closed its
// session.
constexpr const char* kStep8 = R"sql(
ALTER TABLE attempts ADD COLUMN silence_ms INTEGER NOT NULL DEFAULT 0;
ALTER TABLE attempts ADD COLUMN said_bye INTEGER NOT NULL DEFAULT 0;

PRAGMA user_version = 8;
)sql";

// Of attempts that share a worker: the number of the order that brought the text; and, with the one that the
// worker was started for, which of them it was first told to stop for.
constexpr const char* kStep9 = R"sql(
ALTER TABLE attempts ADD COLUMN add_seq INTEGER;
ALTER TABLE attempts ADD COLUMN told INTEGER;

PRAGMA user_version = 9;
)sql";

// Whether the worker said that it closed the task, since its progress stood. Before, the codes told it.
constexpr const char* kStep10 = R"sql(
ALTER TABLE attempts ADD COLUMN stalled INTEGER NOT NULL DEFAULT 0;
UPDATE attempts SET stalled = 1 WHERE status = 4 AND detail_code = 0x80000001 AND error_code = 6;

PRAGMA user_version = 10;
)sql";

constexpr const char* kSteps[] = {kStep1, kStep2, kStep3, kStep4, kStep5,
                                  kStep6, kStep7, kStep8, kStep9, kStep10};
static_assert(std::size(kSteps) == kSchemaVersion);

}  // namespace

Result<void> MigrateSchema(Database& database, int to) {
    std::int64_t version = 0;
    {
        Statement query = database.Prepare("PRAGMA user_version");
        if (query.Row()) version = query.Number();
    }
    if (database.Failed()) return database.TakeError();
    if (version > kSchemaVersion) {
        return Fail(database.Path() + ": the store has schema version " + std::to_string(version) +
                    "; this program knows up to " + std::to_string(kSchemaVersion) +
                    ": use the newer program that made it");
    }
    for (auto step = version; step < to; ++step) {
        Transaction transaction(database);
        database.Execute(kSteps[step]);
        if (auto done = transaction.Commit(); !done) return done;
    }
    return {};
}

}  // namespace rq::engine
