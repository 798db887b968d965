#!/usr/bin/env python3
"""ship_bench.py BUILD_FOLDER [rate|cost|crowd|questions ...]: what shipping to PostgreSQL costs, and what its questions do.

Each with real servers of its own in a folder below /var/tmp, with PostgreSQL's own settings for durability:
  rate       100,000 rows by zorv-ship, beside psql's \\copy of the same rows into the same table, and by way of a temporary one
  cost       processor time and memory of shipper and daemon, at one row a second and at a backlog
  crowd      200 shippers at once
  questions  the questions of docs/many.md on 1,000,000 and 10,000,000 rows of 10,000 NASes; plans go to
             BUILD_FOLDER/ship-plans.txt
"""
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, f"{os.path.dirname(os.path.abspath(__file__))}/../tests/ship")
from lab import Cluster, Nas, run, server_rows  # noqa: E402

TICKS = os.sysconf("SC_CLK_TCK")
DURABLE = "fsync = on\nshared_buffers = 512MB\nmax_wal_size = 4GB"


def load():
    return open("/proc/loadavg").read().split()[0]


def processor_seconds(pid):
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def peak_memory(pid):
    return int(re.search(r"VmHWM:\s+(\d+)", open(f"/proc/{pid}/status").read())[1]) / 1024


class Shipper(subprocess.Popen):
    def __init__(self, nas, cluster, name, *options):
        super().__init__([f"{BIN}/zorv-ship", "--to", f"{cluster.to} user={name}", "--name", name, *options],
                         env=nas.environment)

    def finish(self):
        """Processor time and peak memory of a shipper that ends by itself."""
        peak, spent = 0, 0
        while self.poll() is None:
            try:
                peak, spent = peak_memory(self.pid), processor_seconds(self.pid)
            except (OSError, TypeError, IndexError):
                pass
            time.sleep(0.005)
        assert self.returncode == 0
        return spent, peak


def rate(folder):
    cluster, nas = Cluster(f"{folder}/pg", 0, DURABLE), Nas(f"{folder}/nas-1", BIN)
    cluster.prepare(BIN, "nas-1")
    nas.add("server_log", server_rows(100_000))
    rows, pages = f"{folder}/rows", (2000, 5000, 10_000)
    columns = cluster.sql("SELECT string_agg(quote_ident(attname), ', ' ORDER BY attnum) FROM pg_attribute WHERE attrelid = "
                          "'zorv.server_log'::regclass AND attnum > 0 AND attname NOT IN ('nas', 'arrived')")[0][0]
    by_hand = (f"CREATE TEMPORARY TABLE new AS SELECT {columns} FROM zorv.server_log LIMIT 0;\nBEGIN;\n\\copy new FROM '{rows}.new'\n"
               f"INSERT INTO zorv.server_log (nas, {columns}) SELECT 'nas-1', * FROM new ON CONFLICT DO NOTHING; COMMIT")
    floor, rates, costs = [], {page: [] for page in (*pages, 0)}, {page: [] for page in pages}
    for turn in range(4):
        for page in pages:
            cluster.sql("TRUNCATE zorv.server_log; DELETE FROM zorv.place; CHECKPOINT")
            daemon = processor_seconds(nas.daemon.pid)
            start = time.monotonic()
            spent, peak = Shipper(nas, cluster, "nas-1", "--page", str(page)).finish()
            if turn:  # the first one warms up
                rates[page].append(100_000 / (time.monotonic() - start))
                costs[page].append((spent, peak, processor_seconds(nas.daemon.pid) - daemon))
            assert cluster.sql("SELECT count(*) FROM zorv.server_log") == [["100000"]]
        run("psql", f"{cluster.to} user=owner", "-Xqc", rf"\copy (SELECT * FROM zorv.server_log ORDER BY id) TO '{rows}'")
        run("psql", f"{cluster.to} user=owner", "-Xqc", rf"\copy (SELECT {columns} FROM zorv.server_log ORDER BY id) TO '{rows}.new'")
        cluster.sql("TRUNCATE zorv.server_log; CHECKPOINT")
        start = time.monotonic()
        run("psql", f"{cluster.to} user=owner", "-Xqc", rf"\copy zorv.server_log FROM '{rows}'")
        if turn:
            rates[0].append(100_000 / (time.monotonic() - start))
        cluster.sql("TRUNCATE zorv.server_log; CHECKPOINT")
        start = time.monotonic()
        run("psql", f"{cluster.to} user=owner", "-Xq", "-v", "ON_ERROR_STOP=1", input=by_hand.encode())
        if turn:
            floor.append(100_000 / (time.monotonic() - start))
    copy = statistics.median(rates[0])
    print(f"psql \\copy: {copy:.0f} rows/s ({min(rates[0]):.0f} to {max(rates[0]):.0f})")
    print(f"psql \\copy into a temporary table and one INSERT from there: {statistics.median(floor):.0f} rows/s, "
          f"{statistics.median(floor) / copy:.0%}")
    for page in pages:
        mine = statistics.median(rates[page])
        spent, peak, daemon = (statistics.median(column) for column in zip(*costs[page]))
        print(f"zorv-ship, pages of {page}: {mine:.0f} rows/s ({min(rates[page]):.0f} to {max(rates[page]):.0f}), {mine / copy:.0%}; for 100,000 "
              f"rows the shipper takes {spent:.2f} s of a processor and {peak:.0f} MB at most, the daemon {daemon:.2f} s")
    print(f"daemon: {peak_memory(nas.daemon.pid):.0f} MB at most")
    cluster.stop()
    nas.remove()


def cost(folder):
    cluster, nas = Cluster(f"{folder}/pg", 0, DURABLE), Nas(f"{folder}/nas-1", BIN)
    cluster.prepare(BIN, "nas-1")
    for kept in (1_000, 100_000):
        nas.add("server_log", server_rows(kept))
        assert Shipper(nas, cluster, "nas-1").wait() == 0
        for interval in (1, 10):
            shipper = Shipper(nas, cluster, "nas-1", "--follow", "--interval", str(interval))
            time.sleep(1)
            daemon, mine = processor_seconds(nas.daemon.pid), processor_seconds(shipper.pid)
            for second in range(30):
                nas.add("server_log", server_rows(1, second))
                time.sleep(1)
            print(f"1 row/s, {kept} rows kept, a look every {interval} s: shipper "
                  f"{(processor_seconds(shipper.pid) - mine) / 30:.2%} of a processor, {peak_memory(shipper.pid):.1f} MB; daemon "
                  f"{(processor_seconds(nas.daemon.pid) - daemon) / 30:.2%}")
            shipper.kill()
            shipper.wait()
    cluster.stop()
    nas.remove()


def crowd(folder):
    cluster, nases = Cluster(f"{folder}/pg", 0, DURABLE), [Nas(f"{folder}/nas-{n}", BIN) for n in range(10)]
    names = [f"nas-{number:03}" for number in range(200)]
    cluster.prepare(BIN, *names)
    for nas in nases:
        nas.add("server_log", server_rows(2000))
    start = time.monotonic()
    shippers = [Shipper(nases[n % 10], cluster, name, "--follow") for n, name in enumerate(names)]
    while cluster.sql("SELECT sum(shipped) FROM zorv.place") != [["400000"]]:
        time.sleep(0.2)
    wall = time.monotonic() - start
    for shipper in shippers:
        shipper.kill()
        shipper.wait()
    assert cluster.sql("SELECT count(*), count(DISTINCT nas) FROM zorv.server_log") == [["400000", "200"]]
    print(f"200 shippers at once, with ten daemons, 2,000 rows each: {wall:.1f} s, {400_000 / wall:.0f} rows/s")
    cluster.stop()
    for nas in nases:
        nas.remove()


FILL = """
INSERT INTO zorv.place (nas, log, origin, seen, last_time)
  SELECT 'nas-' || lpad(nas::text, 5, '0'), 'server_log', '', now() - nas * interval '0.1 seconds', now() FROM generate_series(0, 9999) AS nas
  ON CONFLICT DO NOTHING;
INSERT INTO zorv.server_log (nas, generation, id, username, vpn_type, uptime, time, device_info, source_ip, vpn_ip,
    tx_rate, rx_rate, tx_total, rx_total, outgoing, action)
  SELECT 'nas-' || lpad(nas::text, 5, '0'), 1, n, 'user' || (nas * 13 + n / 2 %% 20 * 7) %% 50000, 4,
    CASE WHEN (n + nas %% 5 * 2) %% 10 < 8 AND n %% 2 = 1 THEN step ELSE 0 END,
    date_trunc('month', now()) + (n * step + nas * step / 10000) * interval '1 second', '',
    CASE WHEN (n + nas %% 5 * 2) %% 10 < 8 THEN '198.51.' || nas %% 256 || '.' || n / 2 %% 256 ELSE '203.0.113.' || hashint4(nas * 7919 + n) %% 250 END,
    CASE WHEN (n + nas %% 5 * 2) %% 10 < 8 THEN '10.8.' || nas %% 256 || '.' || n / 2 %% 256 ELSE '' END, 0, 0,
    CASE WHEN (n + nas %% 5 * 2) %% 10 < 8 AND n %% 2 = 1 THEN n * 1000 ELSE 0 END, CASE WHEN (n + nas %% 5 * 2) %% 10 < 8 AND n %% 2 = 1 THEN n * 300 ELSE 0 END,
    'tun0', CASE WHEN (n + nas %% 5 * 2) %% 10 >= 8 THEN 1 WHEN n %% 2 = 0 THEN 2 ELSE 3 END
  FROM generate_series(%d, %d) AS n, generate_series(0, 9999) AS nas, (SELECT 28 * 86400 / %d AS step) AS steps;
"""
MOMENT = "date_trunc('month', now()) + interval '14 days 3 hours'"
QUESTIONS = {
    "who was connected at a time": f"SELECT * FROM zorv.connected_at({MOMENT})",
    "... at one NAS": f"SELECT * FROM zorv.connected_at({MOMENT}) WHERE nas = 'nas-00777'",
    "all sessions of a user": "SELECT * FROM zorv.sessions WHERE username = 'user777' ORDER BY started",
    "failures by source, one day": f"SELECT * FROM zorv.failures({MOMENT}, {MOMENT} + interval '1 day') LIMIT 20",
    "traffic of a month, the 20 largest": "SELECT * FROM zorv.traffic(date_trunc('month', now()), date_trunc('month', now()) + "
                                         "interval '1 month') ORDER BY sent DESC LIMIT 20",
    "traffic of a month, one NAS": "SELECT * FROM zorv.traffic(date_trunc('month', now()), date_trunc('month', now()) + "
                                   "interval '1 month') WHERE nas = 'nas-00777'",
    "NASes gone silent": "SELECT * FROM zorv.silent",
}


def questions(folder):
    cluster = Cluster(f"{folder}/pg", 0, "shared_buffers = 1GB\nwork_mem = 64MB\nmax_wal_size = 8GB")
    cluster.prepare(BIN)
    plans = open(f"{BUILD}/ship-plans.txt", "w")
    for rows, fill in ((1_000_000, FILL % (1, 100, 100)), (10_000_000, "TRUNCATE zorv.server_log;" + FILL % (1, 1000, 1000))):
        start = time.monotonic()
        cluster.sql(fill)
        cluster.sql("VACUUM ANALYZE zorv.server_log; ANALYZE zorv.place; CHECKPOINT")
        size = cluster.sql("SELECT pg_size_pretty(sum(pg_table_size(relid))), pg_size_pretty(sum(pg_indexes_size(relid))) "
                           "FROM pg_partition_tree('zorv.server_log')")[0]
        print(f"{rows} rows of 10,000 NASes: {size[0]} and {size[1]} of indexes, made in {time.monotonic() - start:.0f} s", flush=True)
        for name, question in QUESTIONS.items():
            times = []
            for _ in range(4):  # the first one warms up
                plan = "\n".join(row[0] for row in cluster.sql(f"EXPLAIN (ANALYZE, BUFFERS, COSTS OFF) {question}"))
                times.append(float(re.search(r"Execution Time: ([\d.]+)", plan)[1]))
            found = cluster.sql(f"SELECT count(*) FROM ({question}) AS q")[0][0]
            print(f"  {name}: {statistics.median(times[1:]):.1f} ms, {found} rows", flush=True)
            plans.write(f"=== {rows} rows: {name}\n{plan}\n\n")
    plans.close()
    cluster.stop()


BUILD = os.path.abspath(sys.argv[1])
BIN = f"{BUILD}/bin"
for name in sys.argv[2:] or ("rate", "cost", "crowd", "questions"):
    with tempfile.TemporaryDirectory(prefix="zship.", dir="/var/tmp") as folder:
        os.chmod(folder, 0o755)
        before = load()
        globals()[name](folder)
        print(f"(load average {before} before, {load()} after)", flush=True)
