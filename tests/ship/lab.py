"""Real servers for the tests and benchmarks of zorv-ship: PostgreSQL and zorvd, each in a folder of its own."""
import atexit
import os
import pwd
import shutil
import sqlite3
import subprocess
import time

PG = "/usr/lib/postgresql/15/bin"
DROP = {}
if os.getuid() == 0:  # PostgreSQL refuses root
    nobody = pwd.getpwnam("nobody")
    DROP = {"user": nobody.pw_uid, "group": nobody.pw_gid, "extra_groups": []}


MEMORY = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None  # no disk is waited for


def run(*words, check=True, **options):
    done = subprocess.run(words, capture_output=True, **options)
    if check and done.returncode != 0:
        raise AssertionError(f"{words}: {done.returncode}\n{done.stderr.decode(errors='replace')}")
    return done


def eventually(ready, seconds=20):
    end = time.monotonic() + seconds
    while not ready():
        if time.monotonic() > end:
            raise AssertionError(f"{ready} is not so after {seconds} s")
        time.sleep(0.02)


class Cluster:
    """A PostgreSQL server on a Unix socket, and on a port of localhost where one is given."""

    def __init__(self, folder, port=0, settings=""):
        self.folder, self.data = folder, f"{folder}/data"
        os.makedirs(folder)
        if DROP:
            os.chown(folder, DROP["user"], DROP["group"])
        run(f"{PG}/initdb", "-D", self.data, "-U", "owner", "-A", "trust", "-E", "UTF8", "--locale=C", "--no-sync", cwd="/",
            **DROP)
        with open(f"{self.data}/postgresql.conf", "a") as file:
            file.write(f"unix_socket_directories = '{folder}'\nlisten_addresses = '{'localhost' if port else ''}'\n"
                       f"port = {port or 5432}\nfsync = off\nmax_connections = 300\n{settings}\n")
        self.to = f"host={folder} port={port or 5432} dbname=postgres"
        self.start()
        atexit.register(self.stop, "immediate")

    def start(self):
        run(f"{PG}/pg_ctl", "-D", self.data, "-l", f"{self.folder}/log", "-w", "start", cwd="/", **DROP)

    def stop(self, mode="fast"):
        run(f"{PG}/pg_ctl", "-D", self.data, "-m", mode, "-w", "stop", cwd="/", check=False, **DROP)

    def sql(self, statement, user="owner", check=True):
        """Rows as lists of texts."""
        done = run("psql", f"{self.to} user={user}", "-XqAt", "-v", "ON_ERROR_STOP=1", "-F", "\x1f", "-R", "\x1e",
                   check=check, input=statement.encode())
        if done.returncode:
            return done.stderr.decode()
        text = done.stdout.decode().removesuffix("\n")
        return [row.split("\x1f") for row in text.split("\x1e")] if text else []

    def prepare(self, bin, *names):
        run("psql", f"{self.to} user=owner", "-Xq", input=run(f"{bin}/zorv-ship", "--schema").stdout)
        for name in names:
            self.sql(f'CREATE ROLE "{name}" LOGIN IN ROLE zorv_writer')


class Nas:
    """zorvd in a root of its own, with rows that are put into its database as it would put them."""

    def __init__(self, folder, bin):
        self.folder, self.bin, self.file = folder, bin, f"{folder}/etc/config/zorv/zorv.db"
        for name in ("etc/config/zorv", "var/log/network", "var/lock", "var/run"):
            os.makedirs(f"{folder}/{name}")
        with open(f"{folder}/etc/machine-id", "w") as file:
            file.write(os.path.basename(folder).encode().hex() + "\n")
        self.environment = {**os.environ, "ZORV_ROOT": folder}
        self.written = {"server_log": [], "client_log": []}
        self.start()
        atexit.register(lambda: self.daemon.kill())

    def start(self):
        self.daemon = subprocess.Popen([f"{self.bin}/zorvd"], env=self.environment, stderr=subprocess.DEVNULL)
        eventually(lambda: run(f"{self.bin}/zorvctl", "block", "list", "-q", env=self.environment,
                               check=False).returncode == 0)

    def stop(self):
        self.daemon.terminate()
        self.daemon.wait()

    def forget(self):
        """A database made anew."""
        self.stop()
        os.unlink(self.file)
        self.start()

    def execute(self, statement, rows=()):
        with sqlite3.connect(self.file, timeout=20) as database:
            database.text_factory = bytes
            cursor = database.cursor()
            cursor.executemany(statement, rows) if rows else cursor.execute(statement)
            return cursor.fetchall()

    def add(self, log, rows, generation=1):
        """Rows without their ids; remembered as the server has to have them."""
        before = self.execute(f"SELECT coalesce(max(seq), 0) FROM sqlite_sequence WHERE name = 'conn_{log}'")[0][0]
        marks = ", ".join("CAST(? AS TEXT)" if isinstance(value, bytes) else "?" for value in rows[0])
        columns = [row[1].decode() for row in self.execute(f"PRAGMA table_info(conn_{log})")][1:]
        self.execute(f"INSERT INTO conn_{log} ({', '.join(columns)}) VALUES ({marks})", rows)
        self.written[log] += [(generation, before + n + 1, *row) for n, row in enumerate(rows)]

    def remove(self):
        self.stop()
        shutil.rmtree(self.folder)


def server_rows(count, first=0, moment=1_700_000_000, names=97):
    """Logins, logouts and failures, as a NAS writes them."""
    return [(b"user%d" % (n % names), 4, 60 * (n % 3 == 1), moment + n, b"", b"192.0.2.%d" % (n % 250),
             b"10.8.0.%d" % (n // 3 % 250), 0, 0, 1000 * n, 3 * n, b"tun0", (2, 3, 1)[n % 3])
            for n in range(first, first + count)]


def client_rows(count, first=0):
    return [(b"profile", 1024, 0, 1_700_000_000 + n, b"10.9.0.1", 0, 0, n, n, b"DE", b"198.51.100.7", 2)
            for n in range(first, first + count)]
