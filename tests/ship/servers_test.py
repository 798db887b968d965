#!/usr/bin/env python3
"""servers_test.py BUILD_FOLDER: what is set up around the shipping: months, TLS with certificates, several servers."""
import os
import socket
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(__file__))
from lab import DROP, MEMORY, Cluster, Nas, client_rows, run, server_rows  # noqa: E402

BUILD = os.path.abspath(sys.argv.pop(1))
BIN = f"{BUILD}/bin"
SPREAD = f"{os.path.dirname(__file__)}/../../packaging/zorv-ship-spread.sh"


class ServersTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zship.", dir=MEMORY)
        os.chmod(folder.name, 0o755)
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def cluster(self, name, *options):
        cluster = Cluster(f"{self.folder}/{name}", *options)
        self.addCleanup(cluster.stop, "immediate")
        return cluster

    def nas(self, name):
        nas = Nas(f"{self.folder}/{name}", BIN)
        self.addCleanup(nas.remove)
        return nas

    def ship(self, nas, to, *options, status=0, **environment):
        done = run(f"{BIN}/zorv-ship", "--to", to, "--name", os.path.basename(nas.folder), *options, check=False,
                   env={**nas.environment, **environment})
        self.assertEqual(done.returncode, status, done.stderr.decode())
        return done.stdout.decode() + done.stderr.decode()

    def test_months(self):
        cluster, nas = self.cluster("pg"), self.nas("nas-1")
        cluster.prepare(BIN, "nas-1")
        now = int(cluster.sql("SELECT extract(epoch FROM now())::bigint")[0][0])
        old, older = now - 100 * 86400, now - 500 * 86400
        for moment in (now, old, older, 0, 2**40):
            nas.add("server_log", server_rows(3, moment=moment))
        writer = f"{cluster.to} user=nas-1"
        self.ship(nas, writer)
        nas.add("client_log", client_rows(7))
        self.assertRegex(self.ship(nas, writer, "--status"), r"nas-1 +client_log +1 +0 +0 +0 +7 .*\n.*server_log +1 +15 +15 +0 +0 ")
        self.assertEqual(cluster.sql("SELECT count(*) FROM zorv.server_log_default"), [["12"]])
        everything = cluster.sql("SELECT * FROM zorv.server_log ORDER BY id")
        month = cluster.sql(f"SELECT to_char(to_timestamp({old}) AT TIME ZONE 'UTC', '\"server_log\"_YYYY_MM'), "
                            f"to_char(to_timestamp({older}) AT TIME ZONE 'UTC', '\"server_log\"_YYYY_MM')")[0]
        cluster.prepare(BIN)  # once more: moves rows into months of their own
        self.assertEqual(cluster.sql("SELECT * FROM zorv.server_log ORDER BY id"), everything)
        self.assertEqual(cluster.sql("SELECT count(*) FROM zorv.server_log_default"), [["6"]])
        self.assertEqual(cluster.sql(f"SELECT count(*) FROM zorv.{month[1]}"), [["3"]])
        self.ship(nas, writer, "--prune", "400d", status=1)
        owner = f"{cluster.to} user=owner"
        self.assertEqual(self.ship(nas, owner, "--prune", "400d"), f"dropped {month[1]}\n")
        left = cluster.sql("SELECT DISTINCT extract(epoch FROM time)::bigint / 10 FROM zorv.server_log ORDER BY 1")
        self.assertTrue({now // 10, old // 10, 2**40 // 10} <= {int(row[0]) for row in left})
        self.assertNotIn(["0"], left)
        self.assertNotIn([str(older // 10)], left)

    def test_certificates(self):
        with socket.create_server(("localhost", 0)) as probe:
            port = probe.getsockname()[1]
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(self.folder)
        for owner in ("ca", "other", "localhost", "nas-1", "nas-2"):
            signer = () if owner in ("ca", "other") else ("-CA", "ca.crt", "-CAkey", "ca.key")
            run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                f"/CN={owner}", "-keyout", f"{owner}.key", "-out", f"{owner}.crt", *signer)
        if DROP:
            os.chown("localhost.key", DROP["user"], DROP["group"])
        cluster = self.cluster("pg", port, f"ssl = on\nssl_ca_file = '{self.folder}/ca.crt'\n"
                               f"ssl_cert_file = '{self.folder}/localhost.crt'\nssl_key_file = '{self.folder}/localhost.key'")
        cluster.prepare(BIN, "nas-1", "nas-2")
        with open(f"{cluster.data}/pg_hba.conf", "w") as file:
            file.write("local all owner trust\nhostssl all all all cert\n")
        cluster.sql("SELECT pg_reload_conf()")
        nas = self.nas("nas-1")
        nas.add("server_log", server_rows(10))

        def service(certificate, authority):
            with open("service", "w") as file:
                file.write(f"[vpnlogs]\nhost=localhost\nport={port}\ndbname=postgres\nuser=nas-1\nsslmode=verify-full\n"
                           f"sslrootcert={self.folder}/{authority}.crt\nsslcert={self.folder}/{certificate}.crt\n"
                           f"sslkey={self.folder}/{certificate}.key\n")
            return {"PGSERVICEFILE": f"{self.folder}/service"}
        for *files, complaint in (("nas-1", "other", "certificate verify failed"),
                                  ("nas-2", "ca", "certificate authentication failed")):
            self.assertIn(complaint, self.ship(nas, "service=vpnlogs", status=1, **service(*files)))
        self.ship(nas, "service=vpnlogs", **service("nas-1", "ca"))
        self.assertEqual(cluster.sql("SELECT count(*) FROM zorv.server_log"), [["10"]])

    def test_several_servers(self):
        """The same answers from three servers behind a fourth as from one."""
        one, coordinator, *shards = (self.cluster(name) for name in ("one", "all", "shard0", "shard1", "shard2"))
        names = [f"nas-{number}" for number in range(1, 7)]
        one.prepare(BIN, *names)
        for shard in shards:  # a password is asked for, as it has to be of whoever is no superuser
            with open(f"{shard.data}/pg_hba.conf", "w") as file:
                file.write("local all owner trust\nlocal all all scram-sha-256\n")
            shard.sql("SELECT pg_reload_conf()")
        for _ in range(2):
            run(SPREAD, f"{coordinator.to} user=owner", *(f"{shard.to} user=owner" for shard in shards),
                env={**os.environ, "ZORV_SHIP": f"{BIN}/zorv-ship"})
        for number, name in enumerate(names):
            coordinator.sql(f'CREATE ROLE "{name}" LOGIN IN ROLE zorv_writer')
            nas = self.nas(name)
            nas.add("server_log", server_rows(300, 10 * number, names=11 + number))
            nas.add("client_log", client_rows(5))
            for target in (one, coordinator):
                self.ship(nas, f"{target.to} user={name}")
        # A commit that the coordinator never heard of: the rows come again, and are there once.
        coordinator.sql("UPDATE zorv.place SET last_id = 0, digest = '' WHERE nas = 'nas-6'")
        self.ship(nas, f"{coordinator.to} user=nas-6")
        for server in (one, coordinator):
            server.sql("CREATE ROLE report LOGIN IN ROLE zorv_reader")
        kept = [shard.sql("SELECT count(*) FROM zorv.server_log")[0][0] for shard in shards]
        self.assertEqual(sum(map(int, kept)), 1800)
        self.assertNotIn("1800", kept)
        moment = "timestamptz 'epoch' + 1700000150 * interval '1 second'"
        for question in ("SELECT nas, id, username, time, action FROM zorv.server_log", "SELECT nas, id, action FROM zorv.client_log_words",
                         "SELECT * FROM zorv.sessions WHERE username = 'user3'", f"SELECT * FROM zorv.connected_at({moment})",
                         "SELECT * FROM zorv.failures('2023-01-01')", "SELECT * FROM zorv.traffic('2023-11-01', '2023-12-01')"):
            answers = [sorted(server.sql(question, "report")) for server in (one, coordinator)]
            self.assertEqual(*answers, question)
            self.assertTrue(answers[0], question)
        nas, generation, _, *rest = one.sql("SELECT * FROM zorv.client_log WHERE nas = 'nas-2'")[0]
        values = ", ".join(f"'{value}'" for value in (nas, generation, 9, *rest))
        stolen = f"INSERT INTO zorv.client_log VALUES ({values})"
        self.assertIn("refused from another role", coordinator.sql(stolen, "nas-1", check=False))


if __name__ == "__main__":
    unittest.main(verbosity=2, warnings="ignore")
