#include "schema.h"

#include <fmt/format.h>

#include "statements.h"

namespace ship {
namespace {

// {0}: the version
constexpr const char* kBeginning =
    R"(-- The schema of zorv-ship, version {0}. Can be run again at any time.
\set ON_ERROR_STOP on
BEGIN;
SET LOCAL client_min_messages = warning;
SELECT pg_advisory_xact_lock(hashtext('zorv schema'));

DO $$
BEGIN
  IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'zorv_writer') THEN
    CREATE ROLE zorv_writer NOLOGIN;
  END IF;
  IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'zorv_reader') THEN
    CREATE ROLE zorv_reader NOLOGIN;
  END IF;
  EXECUTE format('GRANT TEMPORARY ON DATABASE %I TO zorv_writer', current_database());
END $$;

CREATE SCHEMA IF NOT EXISTS zorv;
GRANT USAGE ON SCHEMA zorv TO zorv_writer, zorv_reader;

CREATE TABLE IF NOT EXISTS zorv.schema_version (version integer NOT NULL, applied timestamptz NOT NULL DEFAULT now());
DO $$
BEGIN
  IF EXISTS (SELECT FROM zorv.schema_version WHERE version > {0}) THEN
    RAISE EXCEPTION 'the database has a newer schema of zorv-ship';
  END IF;
END $$;
DELETE FROM zorv.schema_version;
INSERT INTO zorv.schema_version VALUES ({0});
GRANT SELECT ON zorv.schema_version TO zorv_writer, zorv_reader;

-- How far each log of each NAS is. A NAS sees and moves its own only.
CREATE TABLE IF NOT EXISTS zorv.place (
  nas text NOT NULL, log text NOT NULL, origin text NOT NULL, generation bigint NOT NULL DEFAULT 1,
  last_id bigint NOT NULL DEFAULT 0, digest text NOT NULL DEFAULT '', last_time timestamptz,
  shipped bigint NOT NULL DEFAULT 0, lost bigint NOT NULL DEFAULT 0, seen timestamptz NOT NULL DEFAULT now(),
  PRIMARY KEY (nas, log)) WITH (fillfactor = 50);
ALTER TABLE zorv.place ENABLE ROW LEVEL SECURITY;
DROP POLICY IF EXISTS own ON zorv.place;
CREATE POLICY own ON zorv.place TO zorv_writer USING (nas = current_user) WITH CHECK (nas = current_user);
DROP POLICY IF EXISTS reading ON zorv.place;
CREATE POLICY reading ON zorv.place FOR SELECT TO zorv_reader USING (true);
GRANT SELECT, INSERT, UPDATE ON zorv.place TO zorv_writer;
GRANT SELECT ON zorv.place TO zorv_reader;
)";

// {0}: the log, {1}: definitions of columns
constexpr const char* kMonths = R"(
CREATE TABLE IF NOT EXISTS zorv.{0} (nas text NOT NULL, generation bigint NOT NULL, {1},
  arrived timestamptz NOT NULL DEFAULT now(), PRIMARY KEY (nas, generation, id, time)) PARTITION BY RANGE (time);
CREATE TABLE IF NOT EXISTS zorv.{0}_default PARTITION OF zorv.{0} DEFAULT;
CREATE INDEX IF NOT EXISTS {0}_username ON zorv.{0} (username, time);
CREATE INDEX IF NOT EXISTS {0}_time ON zorv.{0} (time);
)";

// Row-level security does not check what goes to foreign tables: a trigger does.
constexpr const char* kSpread = R"(
CREATE TABLE IF NOT EXISTS zorv.{0} (nas text NOT NULL, generation bigint NOT NULL, {1},
  arrived timestamptz NOT NULL DEFAULT now()) PARTITION BY HASH (nas);
CREATE OR REPLACE FUNCTION zorv.refuse_name() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  RAISE insufficient_privilege USING MESSAGE = 'rows of "' || NEW.nas || '" are refused from another role';
END $$;
CREATE OR REPLACE TRIGGER own BEFORE INSERT ON zorv.{0} FOR EACH ROW
  WHEN (NEW.nas IS DISTINCT FROM current_user) EXECUTE FUNCTION zorv.refuse_name();
)";

// {0}: the log, {1}: how many shards, {2}: which
constexpr const char* kShard =
    R"(CREATE FOREIGN TABLE IF NOT EXISTS zorv.{0}_shard_{2} PARTITION OF zorv.{0}
  FOR VALUES WITH (MODULUS {1}, REMAINDER {2}) SERVER zorv_shard_{2} OPTIONS (schema_name 'zorv', table_name '{0}');
)";

// {0}: the log, {1}: columns, codes as words
constexpr const char* kAccess = R"(
ALTER TABLE zorv.{0} ENABLE ROW LEVEL SECURITY;
DROP POLICY IF EXISTS own ON zorv.{0};
CREATE POLICY own ON zorv.{0} FOR INSERT TO zorv_writer WITH CHECK (nas = current_user);
DROP POLICY IF EXISTS reading ON zorv.{0};
CREATE POLICY reading ON zorv.{0} FOR SELECT TO zorv_reader USING (true);
GRANT INSERT ON zorv.{0} TO zorv_writer;
GRANT SELECT ON zorv.{0} TO zorv_reader;
CREATE OR REPLACE VIEW zorv.{0}_words WITH (security_invoker) AS
  SELECT nas, generation, {1}, arrived FROM zorv.{0};
GRANT SELECT ON zorv.{0}_words TO zorv_reader;
)";

constexpr const char* kPartitions = R"(
CREATE INDEX IF NOT EXISTS server_log_failures ON zorv.server_log (source_ip, time) WHERE action = 1;

-- Makes the partitions of the last month up to three months ahead, and those of older months that the
-- default partition has rows of. Rows without a month of their own wait there.
CREATE OR REPLACE FUNCTION zorv.make_months() RETURNS SETOF text LANGUAGE plpgsql SET timezone = 'UTC' AS $$
DECLARE
  log text;
  month timestamptz;
  part text;
BEGIN
  FOREACH log IN ARRAY ARRAY['server_log', 'client_log'] LOOP
    FOR month IN EXECUTE format(
        'SELECT generate_series(date_trunc(''month'', now()) - interval ''1 month'', '
        'date_trunc(''month'', now()) + interval ''3 months'', ''1 month'') UNION '
        'SELECT DISTINCT date_trunc(''month'', time) FROM zorv.%I '
        'WHERE time >= ''2000-01-01'' AND time < now() + interval ''3 months'' ORDER BY 1', log || '_default') LOOP
      part := log || to_char(month, '_YYYY_MM');
      CONTINUE WHEN to_regclass(format('zorv.%I', part)) IS NOT NULL;
      EXECUTE format('LOCK TABLE zorv.%I IN ACCESS EXCLUSIVE MODE', log || '_default');
      EXECUTE format('CREATE TABLE zorv.%I (LIKE zorv.%I INCLUDING ALL)', part, log);
      EXECUTE format('WITH moved AS (DELETE FROM zorv.%I WHERE time >= %L AND time < %L RETURNING *) '
                     'INSERT INTO zorv.%I SELECT * FROM moved',
                     log || '_default', month, month + interval '1 month', part);
      EXECUTE format('ALTER TABLE zorv.%I ATTACH PARTITION zorv.%I FOR VALUES FROM (%L) TO (%L)',
                     log, part, month, month + interval '1 month');
      RETURN NEXT part;
    END LOOP;
  END LOOP;
END $$;

-- Drops the months that ended so long ago, and rows of the default partition that are or came so long ago.
CREATE OR REPLACE FUNCTION zorv.prune(keep interval) RETURNS SETOF text LANGUAGE plpgsql SET timezone = 'UTC' AS $$
DECLARE
  log text;
  part text;
BEGIN
  FOREACH log IN ARRAY ARRAY['server_log', 'client_log'] LOOP
    FOR part IN SELECT relname FROM pg_inherits JOIN pg_class ON pg_class.oid = inhrelid
        WHERE inhparent = format('zorv.%I', log)::regclass AND relname ~ '_\d{4}_\d\d$'
          AND to_date(right(relname, 7), 'YYYY_MM')::timestamptz + interval '1 month' <= now() - keep ORDER BY 1 LOOP
      EXECUTE format('DROP TABLE zorv.%I', part);
      RETURN NEXT part;
    END LOOP;
    EXECUTE format('DELETE FROM zorv.%I WHERE time < now() - $1 OR arrived < now() - $1', log || '_default')
      USING keep;
  END LOOP;
END $$;
REVOKE ALL ON FUNCTION zorv.make_months(), zorv.prune(interval) FROM PUBLIC;
SELECT count(*) AS months_made FROM zorv.make_months();
)";

// {0}, {1}, {2}: the codes of a failed login, a login and a logout
constexpr const char* kQuestions = R"(
-- Sessions at the NASes' servers. One without an end is connected still, or its logout was not recorded.
CREATE OR REPLACE VIEW zorv.sessions WITH (security_invoker) AS
  SELECT nas, generation, username, vpn_type, source_ip, vpn_ip,
    time - least(uptime, 3155760000) * interval '1 second' AS started, time AS ended, tx_total, rx_total
  FROM zorv.server_log WHERE action = {2}
  UNION ALL
  SELECT nas, generation, username, vpn_type, source_ip, vpn_ip, time, NULL, NULL, NULL
  FROM zorv.server_log AS login WHERE action = {1} AND NOT EXISTS (
    SELECT FROM zorv.server_log AS logout WHERE logout.action = {2} AND logout.nas = login.nas
      AND logout.generation = login.generation AND logout.username = login.username
      AND logout.vpn_type = login.vpn_type AND logout.vpn_ip = login.vpn_ip AND logout.id > login.id);

-- Who was connected then, of sessions that last no longer than said.
CREATE OR REPLACE FUNCTION zorv.connected_at(moment timestamptz, longest interval DEFAULT '2 days')
RETURNS TABLE (nas text, username text, vpn_type integer, source_ip text, vpn_ip text, started timestamptz, ended timestamptz)
LANGUAGE sql STABLE AS $$
  SELECT nas, username, vpn_type, source_ip, vpn_ip, time - least(uptime, 3155760000) * interval '1 second', time
  FROM zorv.server_log WHERE action = {2} AND time > moment AND time <= moment + longest
    AND time - least(uptime, 3155760000) * interval '1 second' <= moment
  UNION ALL
  SELECT nas, username, vpn_type, source_ip, vpn_ip, time, NULL
  FROM zorv.server_log AS login WHERE action = {1} AND time <= moment AND time > moment - longest AND NOT EXISTS (
    SELECT FROM zorv.server_log AS later WHERE later.time > moment - longest AND later.time <= moment + longest
      AND later.nas = login.nas AND later.generation = login.generation AND later.vpn_type = login.vpn_type
      AND later.vpn_ip = login.vpn_ip AND later.id > login.id
      AND (later.action = {2} OR later.action = {1} AND later.time <= moment))
$$;

-- Sources of failed logins, those of most NASes first.
CREATE OR REPLACE FUNCTION zorv.failures(since timestamptz, until timestamptz DEFAULT 'infinity')
RETURNS TABLE (source_ip text, nases bigint, users bigint, failures bigint, first timestamptz, last timestamptz)
LANGUAGE sql STABLE AS $$
  SELECT source_ip, count(DISTINCT nas), count(DISTINCT username), count(*), min(time), max(time)
  FROM zorv.server_log WHERE action = {0} AND time >= since AND time < until
  GROUP BY source_ip ORDER BY 2 DESC, 4 DESC, 1
$$;

CREATE OR REPLACE FUNCTION zorv.traffic(since timestamptz, until timestamptz)
RETURNS TABLE (nas text, username text, sessions bigint, sent numeric, received numeric)
LANGUAGE sql STABLE AS $$
  SELECT nas, username, count(*), sum(tx_total), sum(rx_total)
  FROM zorv.server_log WHERE action = {2} AND time >= since AND time < until
  GROUP BY nas, username
$$;

-- NASes whose shipper was not heard of for a quarter of an hour; one that lives says so every five minutes.
CREATE OR REPLACE VIEW zorv.silent WITH (security_invoker) AS
  SELECT nas, max(seen) AS seen, max(last_time) AS last_row FROM zorv.place
  GROUP BY nas HAVING max(seen) < now() - interval '15 minutes';

GRANT SELECT ON zorv.sessions, zorv.silent TO zorv_reader;
COMMIT;
)";

// Codes as their words, and codes that have none as digits.
std::string columns_in_words(const ShippedLog& log) {
  std::string columns;
  for (const zorv::Field& field : log.table->fields) {
    columns += columns.empty() ? "" : ", ";
    if (field.words.empty()) {
      columns += field.name;
      continue;
    }
    columns += fmt::format("CASE {}", field.name);
    for (const zorv::CodeWord& word : field.words) {
      columns += fmt::format(" WHEN {} THEN '{}'", word.code, word.word);
    }
    columns += fmt::format(" ELSE {0}::text END AS {0}", field.name);
  }
  return columns;
}

}  // namespace

std::string schema_text(unsigned shards) {
  std::string text = fmt::format(fmt::runtime(kBeginning), kSchemaVersion);
  for (const ShippedLog& log : kLogs) {
    text += fmt::format(fmt::runtime(shards == 0 ? kMonths : kSpread), log.name,
                        column_definitions(log));
    for (unsigned shard = 0; shard < shards; ++shard) {
      text += fmt::format(fmt::runtime(kShard), log.name, shards, shard);
    }
    text += fmt::format(fmt::runtime(kAccess), log.name, columns_in_words(log));
  }
  if (shards == 0) {
    text += kPartitions;
  }
  return text + fmt::format(fmt::runtime(kQuestions), static_cast<int>(zorv::kLoginFail),
                            static_cast<int>(zorv::kLoginOk), static_cast<int>(zorv::kLogout));
}

}  // namespace ship
