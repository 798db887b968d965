#!/usr/bin/env python3
"""damage_test.py PROGRAM_FOLDER: what zorv-check does with damaged, foreign, unwritable and busy files."""
import collections
import os
import random
import resource
import sqlite3

from repairs import Root, expect_repaired

ROWS = {f"user{i:06}": "".join(f"<{i:06}.{k:03}>" for k in range(i % 90 * (i % 5))) or f"<{i:06}.x>" for i in range(1, 600)}
NOBODY = 65534


def write_rows(root):
    """A sound file of the daemon's, whose highest id is gone, with what somebody else put there."""
    root.start()
    root.end()
    with sqlite3.connect(root.database) as base:
        base.executemany("INSERT INTO conn_server_log (username, device_info) VALUES (?, ?)", ROWS.items())
        base.execute("INSERT INTO conn_server_log (id, username) VALUES (7000, 'last')")
        base.execute("DELETE FROM conn_server_log WHERE id = 7000")
        base.execute("CREATE TABLE other (x)")
        base.execute("CREATE TRIGGER more AFTER INSERT ON conn_server_log BEGIN DELETE FROM conn_server_log; END")
    return open(root.database, "rb").read()


def damages(image):
    """Each way to damage it, and how it shows."""
    half = len(image) // 2
    yield image[:half]
    yield image[:half - 700]
    yield image[:16] + bytes(84) + image[100:]  # no size, no encoding, no roots
    yield bytes(2048) + image[2048:]
    yield b"no database at all\n" * 500
    yield random.randbytes(len(image))
    page = half // 2048
    itself = (page + 1).to_bytes(4, "big")  # a list of free pages that has no end
    stale = next(image[at:at + 2048] for at in range((page + 1) * 2048, len(image), 2048) if image[at] == 13)
    yield image[:32] + itself + b"\xff" * 4 + image[40:page * 2048] + itself + bytes(4) + image[page * 2048 + 8:] + \
        stale.replace(b"<", b"[")
    for size in (1, 100, 512, 5000):
        for fill in (bytes, random.randbytes):
            damaged = bytearray(image)
            for at in random.sample(range(100, len(image) - size), 12):
                damaged[at:at + size] = fill(size)
            yield bytes(damaged)


def status_of(root, *words, **more):
    check = root.run("zorv-check", *words, **more)
    return check.returncode, check.stdout + check.stderr


def expect(what, *wanted):
    assert what == wanted if len(wanted) > 1 else what == wanted[0], f"{what} is not {wanted}"


def look_at_rows(root, image):
    totals = collections.Counter()
    for damaged in damages(image):
        expect_repaired(root, ROWS, {}, {"last"}, image, damaged, totals)
    print(dict(totals))


def look_at_replacing(root, broken):
    """Owner, mode, link, highest id and what lies beside; what was damaged is kept, three times at most."""
    root.write(broken)
    os.chmod(root.database, 0o604)
    owner = (NOBODY if os.geteuid() == 0 else os.geteuid(), os.getegid())
    os.chown(root.database, *owner)
    os.rename(root.database, f"{root.folder}/real.db")
    os.symlink("real.db", root.database)
    open(f"{root.folder}/real.db-shm", "w").close()
    expect(status_of(root, "--repair")[0], 1)
    new = os.stat(root.database)
    expect((os.readlink(root.database), new.st_mode & 0o777, new.st_uid, new.st_gid), "real.db", 0o604, *owner)
    names = sorted(name.partition("~")[2] for name in os.listdir(root.folder))
    expect(names, ["", "", "", "-shm"])
    base = sqlite3.connect(root.database)
    expect(base.execute("SELECT seq FROM sqlite_sequence WHERE name = 'conn_server_log'").fetchall(), [(7000,)])
    expect([base.execute(f"PRAGMA {name}").fetchone()[0] for name in ("page_size", "auto_vacuum")], [2048, 1])
    base.close()
    root.write(broken)
    for i in range(5):
        open(root.database, "wb").write(broken + bytes([i]))
        expect(status_of(root, "--repair")[0], 1)
    assert "zorv_check" in open(f"{root.path}/var/log/network/ZORV.log").read().splitlines()[-1]
    aside = [name for name in os.listdir(root.folder) if name.startswith("zorv.db@")]
    expect(sorted(open(f"{root.folder}/{name}", "rb").read()[-1] for name in aside), [2, 3, 4])


def look_at_refusals(root, broken):
    """The file stays as it is, and nothing lies beside it."""
    def small_files():
        resource.setrlimit(resource.RLIMIT_FSIZE, (40_000, 40_000))

    def expect_refused(status, text, *words, **more):
        found = status_of(root, *words, **more)
        assert (found[0], text in found[1]) == (status, True), found
        expect((os.listdir(root.folder), open(root.database, "rb").read()), ["zorv.db"], broken)

    root.write(broken)
    os.chmod(root.database, 0o644)
    expect_refused(4, "; not repaired without --repair")
    expect_refused(12, "not repaired: ", "--repair", preexec_fn=small_files, restore_signals=False)
    with open(root.database, "rb"):
        expect_refused(8, "in use", "--repair")
    expect_refused(16, "--mend", "--mend")
    expect_refused(8, "not a regular file", "--repair", "/etc")


random.seed(1)
with Root() as root:
    sound = write_rows(root)
    damaged = bytearray(sound)
    damaged[len(sound) // 2:len(sound) // 2 + 6000] = bytes(6000)
    look_at_rows(root, sound)
    look_at_replacing(root, bytes(damaged))
    look_at_refusals(root, bytes(damaged))
    root.write(b"")
    expect(status_of(root, "--repair"), 0, "")
    os.unlink(root.database)
    expect(status_of(root, "--repair"), 0, "")
