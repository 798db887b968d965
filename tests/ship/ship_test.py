#!/usr/bin/env python3
"""ship_test.py BUILD_FOLDER: zorv-ship between a real zorvd and a real PostgreSQL. Whatever is broken in between,
the rows there are in the end exactly the rows that were here."""
import codecs
import datetime
import hashlib
import os
import random
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(__file__))
from lab import MEMORY, Cluster, Nas, client_rows, eventually, run, server_rows  # noqa: E402

BUILD = os.path.abspath(sys.argv.pop(1))
BIN = f"{BUILD}/bin"
TIMES = {"server_log": 5, "client_log": 5}
FAR = {253402300800: "10000-01-01 00:00:00+00", 9224318015999: "294276-12-31 23:59:59+00",
       9224318016000: "infinity"}
codecs.register_error("stray", lambda error: (chr(0x10FE00 + error.object[error.start]), error.start + 1))


def setUpModule():
    global folder, cluster
    folder = tempfile.TemporaryDirectory(prefix="zship.", dir=MEMORY)
    os.chmod(folder.name, 0o755)
    unittest.addModuleCleanup(folder.cleanup)
    cluster = Cluster(f"{folder.name}/pg")
    unittest.addModuleCleanup(cluster.stop, "immediate")
    cluster.prepare(BIN)


class Shipping(unittest.TestCase):
    def setUp(self):
        self.name = "nas-" + self.id().rsplit("_", 1)[-1]
        self.nas = Nas(f"{folder.name}/{self.name}", BIN)
        self.addCleanup(self.nas.remove)
        cluster.sql(f'CREATE ROLE "{self.name}" LOGIN IN ROLE zorv_writer')

    def words(self, *options):
        return [f"{BIN}/zorv-ship", "--to", f"{cluster.to} user={self.name}", "--name", self.name, *options]

    def ship(self, *options, status=0):
        done = run(*self.words(*options), check=False, env=self.nas.environment)
        self.assertEqual(done.returncode, status, done.stderr.decode())
        return done.stderr.decode()

    def follow(self, *options):
        with tempfile.NamedTemporaryFile("w", dir=folder.name, delete=False) as log:
            shipper = subprocess.Popen(self.words("--follow", "--interval", "1", *options), env=self.nas.environment,
                                       stderr=log)
        self.addCleanup(lambda: (shipper.kill(), shipper.wait()))
        shipper.told = lambda: open(log.name).read()
        return shipper

    def there(self, log):
        rows = cluster.sql(f"SELECT * FROM zorv.{log} WHERE nas = '{self.name}' ORDER BY generation, id")
        return [tuple(row[1:-1]) for row in rows]

    def here(self, log):
        def text(value, at):
            if at == TIMES[log]:
                return moment(value)
            if isinstance(value, bytes) and value == b"\xf4\x8f\xba\x81":
                return "".join(chr(0x10FE00 + byte) for byte in value)
            return value.decode("utf-8", "stray") if isinstance(value, bytes) else str(value)
        return [tuple(text(value, at) for at, value in enumerate(row)) for row in self.nas.written[log]]

    def count(self):
        return int(cluster.sql(f"SELECT coalesce(sum(shipped), 0) FROM zorv.place WHERE nas = '{self.name}'")[0][0])

    def all_shipped(self):
        return self.count() >= sum(map(len, self.nas.written.values()))

    def expect_same(self):
        for log in self.nas.written:
            there, here = self.there(log), self.here(log)
            if digest(there) != digest(here):
                differing = [pair for pair in zip(there, here) if pair[0] != pair[1]]
                self.fail(f"{len(there)} rows there, {len(here)} here, {len(differing)} of them differ: {differing[:1]}")
        self.assertEqual(self.count(), sum(map(len, self.nas.written.values())))


class FaultTest(Shipping):
    def test_each_call(self):
        """The process, and then the connection, ends at each of its calls on sockets."""
        faults = 0
        for mode in ("kill", "cut"):
            at = ended_well = 0
            while ended_well < 3:
                at += 1
                self.nas.add("server_log", server_rows(150, 1000 * at))
                self.nas.add("client_log", client_rows(1, at))
                shim = {"LD_PRELOAD": f"{BUILD}/tests/fault_shim.so", "FAULT_AT": str(at), "FAULT_MODE": mode}
                done = run(*self.words("--page", "100"), check=False, env={**self.nas.environment, **shim})
                ended_well = ended_well + 1 if done.returncode == 0 else 0
                faults += done.returncode != 0
        self.ship()
        self.expect_same()
        print(f"{faults} faults at single calls")

    def test_kills(self):
        """At any moment."""
        for kill in range(340):
            if kill % 4 == 0:
                self.nas.add("server_log", server_rows(300, 300 * kill))
            shipper = subprocess.Popen(self.words("--page", "100"), env=self.nas.environment, stderr=subprocess.DEVNULL)
            time.sleep(random.uniform(0, 0.06))  # not to wait: the moment is the point
            shipper.kill()
            shipper.wait()
        self.ship()
        self.expect_same()

    def test_restarts(self):
        shipper = self.follow("--page", "100")
        for turn in range(4):
            self.nas.add("server_log", server_rows(1000, 1000 * turn))
            cluster.stop("immediate" if turn % 2 else "fast")
            self.nas.stop()
            self.nas.add("client_log", client_rows(10, turn))
            cluster.start()
            self.nas.start()
            eventually(self.all_shipped)
        self.assertIsNone(shipper.poll())
        self.expect_same()


class ShipTest(Shipping):
    def test_backlog(self):
        self.nas.add("server_log", server_rows(100_000))
        self.nas.add("client_log", client_rows(5_000))
        self.ship()
        self.expect_same()

    def test_strange(self):
        far = [0, 4294967296, *FAR]
        texts = [b"", b"a\tb\nc\\d\re", b"DOMAIN\\alice", "größe 日本".encode(), b"\xff\xfe \x80", b"\xf4\x8f\xba\x81", b"\\N",
                 b"\\.", b"\x01\x7f", b"x" * 1024, b"\xed\xa0\x80", b"'; DROP TABLE"]
        self.nas.add("server_log", [(text, -5, 7, far[n % 5], text, text, text, -2**63, 2**63 - 1, 0, 0, text, 99)
                                    for n, text in enumerate(texts)])
        self.ship()
        self.expect_same()
        self.nas.execute("INSERT INTO conn_server_log (username, time, uptime, action) "
                         "VALUES ('late', 9223372036854775807, -1, 3)")
        self.ship()
        self.assertEqual(cluster.sql("SELECT time, uptime FROM zorv.server_log WHERE username = 'late'"),
                         [["infinity", str(2**63 - 1)]])
        self.assertEqual(cluster.sql("SELECT ended FROM zorv.sessions WHERE username = 'late'"), [["infinity"]])

    def test_refusals(self):
        """A server that is read-only, full, or has another schema; a daemon that is away."""
        shipper = self.follow()
        self.nas.add("server_log", server_rows(10))
        eventually(self.all_shipped)
        full = ("CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN RAISE 'no space left' "
                "USING ERRCODE = 'disk_full'; END $$; CREATE TRIGGER refuse BEFORE INSERT ON zorv.server_log "
                "FOR EACH ROW EXECUTE FUNCTION refuse()")
        for turn, (refuse, allow, complaint) in enumerate([
                (f'ALTER ROLE "{self.name}" SET default_transaction_read_only = on',
                 f'ALTER ROLE "{self.name}" SET default_transaction_read_only = off', "read-only transaction"),
                (full, "DROP FUNCTION refuse CASCADE", "no space left"),
                ("UPDATE zorv.schema_version SET version = 7", "UPDATE zorv.schema_version SET version = 1", "version 7")]):
            cluster.sql(refuse)
            cluster.sql(f"SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE usename = '{self.name}'")
            self.nas.add("server_log", server_rows(10, 100 + turn))
            eventually(lambda: complaint in shipper.told())
            cluster.sql(allow)
            eventually(self.all_shipped)
        self.expect_same()
        self.nas.stop()
        self.assertIn("the daemon is not running", self.ship(status=3))
        for to in ("host=x password=secret", "postgresql://nas:secret@x/vpn"):
            self.assertIn("can be read by every user", self.ship("--to", to, "--take-over", status=2))
        self.nas.start()

    def test_generations(self):
        self.nas.add("server_log", server_rows(50))
        self.ship()
        shipper = self.follow()
        self.nas.execute("DELETE FROM conn_server_log WHERE id > 40")  # by hand: it is the same database
        eventually(lambda: "the next row shows" in shipper.told())
        for look in range(3):
            self.nas.add("client_log", client_rows(1, look))
            eventually(self.all_shipped)
        self.nas.add("server_log", server_rows(5, 500))
        eventually(self.all_shipped)
        shipper.kill()
        self.expect_same()
        self.nas.forget()  # found by the digest of a row
        self.nas.add("server_log", server_rows(70, 3000), generation=2)
        self.nas.add("client_log", client_rows(4, 50), generation=2)
        self.assertIn("generation 2", self.ship())
        self.expect_same()
        shipper = self.follow()  # found by ids that begin again
        self.nas.add("client_log", client_rows(3), generation=2)
        eventually(self.all_shipped)
        self.nas.forget()
        self.nas.add("server_log", server_rows(3, 4000), generation=3)
        eventually(lambda: "row 70" in shipper.told())
        self.nas.add("server_log", server_rows(1, 5000), generation=3)
        eventually(self.all_shipped)
        self.expect_same()

    def test_lost(self):
        self.nas.add("server_log", server_rows(3000))
        self.ship()
        self.nas.add("server_log", server_rows(102_000, 5000))
        self.nas.execute("DELETE FROM conn_server_log WHERE id <= 5000")  # what the daemon recycles
        self.assertIn("2000 rows were gone", self.ship())
        del self.nas.written["server_log"][3000:5000]
        self.expect_same()
        self.assertEqual(cluster.sql(f"SELECT sum(lost) FROM zorv.place WHERE nas = '{self.name}'"), [["2000"]])

    def test_twice(self):
        """Two shippers with one name: on this machine and on another."""
        both = [self.follow("--page", "100") for _ in range(2)]
        for _ in range(40):
            self.nas.add("server_log", server_rows(400, len(self.nas.written["server_log"])))
            eventually(self.all_shipped)
            if any("another zorv-ship" in shipper.told() for shipper in both):
                break
        else:
            self.fail("nobody says that there are two")
        self.expect_same()
        other = Nas(f"{folder.name}/other", BIN)
        self.addCleanup(other.remove)
        other.add("server_log", server_rows(10, 77))
        self.assertEqual(run(*self.words(), check=False, env=other.environment).returncode, 4)
        self.expect_same()
        run(*self.words("--take-over"), env=other.environment)
        self.ship(status=4)

    def test_rights(self):
        """What somebody can do who has stolen a NAS."""
        self.nas.add("server_log", server_rows(2))
        self.ship()
        cluster.sql("CREATE ROLE thief LOGIN IN ROLE zorv_writer")
        row = cluster.sql("SELECT * FROM zorv.server_log LIMIT 1")[0]
        values = ", ".join(f"'{value}'" for value in row)
        for attempt in ("SELECT * FROM zorv.server_log", "DELETE FROM zorv.server_log", "UPDATE zorv.server_log SET id = 0",
                        f"INSERT INTO zorv.server_log VALUES ({values})", "SELECT * FROM zorv.server_log_default",
                        "SELECT * FROM zorv.sessions", f"INSERT INTO zorv.place (nas, log, origin) VALUES ('{self.name}', 'x', '')",
                        "SELECT zorv.prune('1 day')", "SELECT zorv.make_months()", "CREATE TABLE zorv.mine ()"):
            self.assertRegex(cluster.sql(attempt, "thief", check=False), "permission denied|row-level security", attempt)
        self.assertEqual(cluster.sql("UPDATE zorv.place SET last_id = 0 RETURNING nas; SELECT nas FROM zorv.place", "thief"), [])
        cluster.sql(f"INSERT INTO zorv.place (nas, log, origin) VALUES ('{self.name}', E'\\x1b[2J', '')", self.name)
        self.assertIn(" ?[2J ", run(*self.words("--status"), env=self.nas.environment).stdout.decode())
        cluster.sql("CREATE ROLE report LOGIN IN ROLE zorv_reader")
        self.assertEqual(cluster.sql(f"SELECT count(*) FROM zorv.server_log_words WHERE nas = '{self.name}' "
                                     "AND vpn_type = 'OpenVPN' AND action IN ('Login OK', 'Logout')", "report"), [["2"]])


def digest(rows):
    return hashlib.sha256(repr(rows).encode()).hexdigest()


def moment(seconds):
    """As PostgreSQL writes it, and Python cannot beyond the year 9999."""
    if seconds in FAR:
        return FAR[seconds]
    return (datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=seconds)).strftime("%Y-%m-%d %H:%M:%S+00").zfill(22)


if __name__ == "__main__":
    unittest.main(verbosity=2, warnings="ignore")
