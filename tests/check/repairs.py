"""A system of its own, whose database is damaged and repaired by zorv-check."""
import os
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile

programs = sys.argv[1]


class Root:
    """A system of its own. What its zorv-check is given lies at .database."""

    def __init__(self):
        self.path = tempfile.mkdtemp(prefix="zc", dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None)
        for folder in ("etc/config/zorv", "var/log/network", "var/lock", "var/run"):
            os.makedirs(f"{self.path}/{folder}")
        self.folder = f"{self.path}/etc/config/zorv"
        self.database = f"{self.folder}/zorv.db"
        self.recorded = f"{self.path}/recorded"
        self.daemon = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()
        shutil.rmtree(self.path)

    def run(self, program, *words, **more):
        return subprocess.run([f"{programs}/{program}", *words], capture_output=True, text=True, timeout=60,
                              env=os.environ | {"ZORV_ROOT": self.path}, **more)

    def start(self, **environment):
        # A sanitized daemon, too, has the recorder in front.
        environment |= {"ZORV_RECORDED": self.recorded, "ASAN_OPTIONS": "verify_asan_link_order=0"}
        self.daemon = subprocess.Popen([f"{programs}/zorvd"], env=os.environ | {"ZORV_ROOT": self.path} | environment)
        while self.run("zorvctl", "server-log", "list", "-q").returncode != 0:
            assert self.daemon.poll() is None, "the daemon ended"

    def end(self, how=signal.SIGTERM):
        if self.daemon:
            self.daemon.send_signal(how)
            self.daemon.wait(20)
            self.daemon = None

    def write(self, image, journal=None):
        for name in os.listdir(self.folder):
            os.unlink(f"{self.folder}/{name}")
        open(self.database, "wb").write(image)
        if journal is not None:
            open(f"{self.database}-journal", "wb").write(journal)

    def rows(self):
        """What each key has, after the whole file was found sound; no key twice."""
        base = sqlite3.connect(self.database)
        base.text_factory = lambda text: text.decode(errors="replace")
        assert base.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        found = []
        for table, value in (("conn_server_log", "device_info"), ("conn_client_log", "wan_ip"),
                             ("privilege_user_block", "limit_count")):
            if base.execute("SELECT * FROM sqlite_schema WHERE name = ?", (table,)).fetchall():
                found += base.execute(f"SELECT username, {value} FROM {table}").fetchall()
        base.close()
        assert len(found) == len({key for key, _ in found}), "a row is there twice"
        return dict(found)


def marks(image, key, value):
    """The bytes of a row that can be recognised, its head among them."""
    at = image.find(key.encode())
    texts = set(re.findall(rb"<%s\.\w+>" % value[1:7].encode(), image)) if isinstance(value, str) else set()
    return texts | {image[at - 18:at + len(key)] if at >= 0 else b"none"}


def expect_repaired(root, known, maybe, gone, synced, image, totals, journal=None):
    root.write(image, journal)
    check = root.run("zorv-check", "--repair")
    assert check.returncode in (0, 1), check
    found = root.rows()
    totals["cuts"] += 1
    totals["repaired"] += check.returncode
    totals["taken back"] += bool(journal) and journal[0] != 0
    totals["copied"] += "copied" in check.stdout
    assert not found.keys() & gone, f"came back: {found.keys() & gone}"
    lost = {key for key in known if key not in maybe and found.get(key) != known[key]}
    lost |= {key for key in known.keys() & maybe.keys() if found.get(key) not in (known[key], maybe[key])}
    there = {key for key in lost if marks(synced, key, known[key]) <= marks(image, key, known[key])}
    assert not there, f"not found, though there: {there}, {check}"
    totals["rows gone"] += len(lost)
    if totals["cuts"] % 100 == 0:
        root.start()
        assert root.run("zorvctl", "server-log", "add", "--username", "after").returncode == 0
        root.end()
        assert "after" in root.rows()
