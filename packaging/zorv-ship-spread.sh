#!/usr/bin/env bash
# Spreads the tables of zorv-ship over several PostgreSQL servers: zorv-ship-spread COORDINATOR SHARD ...
#
# Each is the connection string of an owner of a database, of words like "host=a port=5432 dbname=vpn user=postgres";
# on the coordinator that has to be a superuser. Every shard gets the whole schema and keeps the rows of the NASes whose
# names it is given by their hash. The coordinator has the same tables without rows, as foreign ones, and the
# places; shippers and readers connect to it alone. Can be run again, with the same shards in the same order.
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: zorv-ship-spread COORDINATOR SHARD ..." >&2; exit 2; }
coordinator=$1
shift
ship=${ZORV_SHIP:-zorv-ship}
sql() { psql "$1" -Xqtv ON_ERROR_STOP=1 >/dev/null; }
# The coordinator's password for the shards is made here and kept by the servers alone.
password=$(psql "$coordinator" -XqAtc 'SELECT md5(gen_random_uuid()::text) || md5(gen_random_uuid()::text)')

number=0
for shard in "$@"; do
  "$ship" --schema | sql "$shard"
  sql "$shard" <<SQL
DO \$\$ BEGIN
  IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'zorv_coordinator') THEN CREATE ROLE zorv_coordinator; END IF;
END \$\$;
ALTER ROLE zorv_coordinator LOGIN PASSWORD '$password';
GRANT zorv_reader TO zorv_coordinator;
GRANT INSERT ON zorv.server_log, zorv.client_log TO zorv_coordinator;
DROP POLICY IF EXISTS spreading ON zorv.server_log;
DROP POLICY IF EXISTS spreading ON zorv.client_log;
CREATE POLICY spreading ON zorv.server_log FOR INSERT TO zorv_coordinator WITH CHECK (true);
CREATE POLICY spreading ON zorv.client_log FOR INSERT TO zorv_coordinator WITH CHECK (true);
SQL
  options=
  for word in $shard; do
    case "$word" in
      user=* | password=* | passfile=*) ;; # of whoever runs this
      *) options+="${options:+, }${word%%=*} '${word#*=}'" ;;
    esac
  done
  sql "$coordinator" <<SQL
CREATE EXTENSION IF NOT EXISTS postgres_fdw;
DO \$\$ BEGIN
  IF NOT EXISTS (SELECT FROM pg_foreign_server WHERE srvname = 'zorv_shard_$number') THEN
    CREATE SERVER zorv_shard_$number FOREIGN DATA WRAPPER postgres_fdw
      OPTIONS ($options, async_capable 'true', fetch_size '10000');
  END IF;
END \$\$;
DROP USER MAPPING IF EXISTS FOR PUBLIC SERVER zorv_shard_$number;
CREATE USER MAPPING FOR PUBLIC SERVER zorv_shard_$number OPTIONS (user 'zorv_coordinator', password '$password');
SQL
  number=$((number + 1))
done

"$ship" --schema --shards $# | sql "$coordinator"
sql "$coordinator" <<'SQL'
DO $$ BEGIN
  EXECUTE format('ALTER DATABASE %I SET enable_partitionwise_aggregate = on', current_database());
  EXECUTE format('ALTER DATABASE %I SET enable_partitionwise_join = on', current_database());
END $$;
SQL
