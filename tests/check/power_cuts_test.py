#!/usr/bin/env python3
"""power_cuts_test.py PROGRAM_FOLDER PRELOADED [--full]: cuts the daemon's writes, and zorv-check repairs.

The daemon's writes and syncs are recorded, of the database and of the journal beside it. A cut leaves what was synced
and some of the writes since: all before a moment, or a random choice, torn at 512 bytes. Then every acknowledged row
must be found, none twice, none that was deleted, and the daemon must serve. --full takes thousands of cuts and kills.
"""
import collections
import itertools
import os
import random
import signal
import sqlite3
import sys
import threading

from repairs import Root, expect_repaired

preloaded = sys.argv[2]
full = "--full" in sys.argv
FOLDER, JOURNAL = 2, 1
Event = collections.namedtuple("Event", "position kind file offset data")
Step = collections.namedtuple("Step", "position words key value drops")


def add(number, size, drops=()):
    """A row of about that size, marked all over so that its bytes are known anywhere."""
    key, value = f"user{number:06}", "".join(f"<{number:06}.{i:03}>" for i in range(max(1, size // 12)))[:1000]
    words = ["server-log", "add", "--username", key, "--device-info", value]
    return Step(0, words + (["--outgoing", value, "--source-ip", value] if size > 1000 else []), key, value, drops)


def client(number):
    key, value = f"client{number:06}", "".join(f"<{number:06}.{i}>" for i in range(5))
    return Step(0, ["client-log", "add", "--username", key, "--wan-ip", value], key, value, ())


def record(root, steps):
    """Does the steps; what the daemon wrote, and each step with how much of that was there when it was acknowledged."""
    open(root.recorded, "w").close()
    root.start(LD_PRELOAD=preloaded)
    done = []
    for step in steps:
        root.run("zorvctl", *step.words, check=True)
        done.append(step._replace(position=os.path.getsize(root.recorded)))
    root.end()
    data = open(root.recorded, "rb").read()
    events, at = [], 0
    while at < len(data):
        line_end = data.index(b"\n", at) + 1
        kind, *numbers = data[at:line_end].split()
        file, offset, size = map(int, numbers)
        kind, file = (b"u", FOLDER) if kind == b"u" else (kind, file)
        events.append(Event(line_end + size, kind, file, offset, data[line_end:line_end + size]))
        at = line_end + size
    return events, done


class Disk:
    """The database, each journal there was, and which of these the folder names."""

    def __init__(self, files, journal=None):
        self.files = collections.defaultdict(bytearray, {file: bytearray(image) for file, image in files.items()})
        self.journal = journal

    def apply(self, event):
        if event.file == FOLDER:
            self.journal = event.offset if event.kind == b"c" else None
            return
        image = self.files[event.file]
        if event.kind == b"t":
            image[:] = image[:event.offset].ljust(event.offset, b"\0")
        elif event.kind == b"w":
            image.extend(bytes(max(0, event.offset + len(event.data) - len(image))))
            image[event.offset:event.offset + len(event.data)] = event.data

    def images(self):
        return bytes(self.files[0]), bytes(self.files[self.journal]) if self.journal else None


def chosen(pending):
    """Some of the writes, some of them torn, as a disk may have done them."""
    for event in pending:
        choice = random.random()
        if choice < 0.4 or (event.kind != b"w" and choice < 0.7):
            yield event
        elif choice < 0.6 and event.kind == b"w":
            for sector in range(0, len(event.data), 512):
                if random.random() < 0.5:
                    yield event._replace(offset=event.offset + sector, data=event.data[sector:sector + 512])


def cuts(disk, events, choices):
    """Each (position, images): after each write, and random choices at each sync."""
    synced, pending, newest = Disk(disk.files), [], FOLDER
    for event in events:
        if event.file == JOURNAL and not disk.journal:
            newest += 1
            pending.append(Event(event.position, b"c", FOLDER, newest, b""))
            disk.apply(pending[-1])
        if event.file == JOURNAL:
            event = event._replace(file=newest)
        if event.kind == b"s":
            for _ in range(choices if pending else 0):
                cut = Disk(synced.files, synced.journal)
                for one in chosen(pending):
                    cut.apply(one)
                yield event.position - 1, cut.images
            for one in pending:
                if one.file == event.file:
                    synced.apply(one)
            pending = [one for one in pending if one.file != event.file]
            continue
        disk.apply(event)
        pending.append(event)
        yield event.position, disk.images


def known_after(before, steps, position):
    """The rows that must be there at a cut, what may be there besides or instead, and the deleted ones."""
    known, maybe, gone = dict(before), {}, set()
    for step in steps:
        acknowledged = step.position <= position
        dropped = {key: known.pop(key) for key in step.drops if key in known}
        if step.key:
            (known if acknowledged else maybe)[step.key] = step.value
        if not acknowledged:
            maybe |= dropped
            break
        gone |= dropped.keys()
    return known, maybe, gone


def look_at_cuts(name, steps, choices, before=(), every=1):
    with Root() as root, Root() as other:
        root.start()
        root.end()
        for statement, rows in before:
            with sqlite3.connect(root.database) as base:
                base.executemany(statement, rows)
        held = root.rows()
        disk = Disk({0: open(root.database, "rb").read()})
        events, done = record(root, steps)
        end = open(root.database, "rb").read()
        assert int.from_bytes(end[28:32], "big") * 2048 == len(end), "more than its pages"
        totals = collections.Counter()
        for position, images in itertools.islice(cuts(disk, events, choices), 0, None, every):
            image, journal = images()
            expect_repaired(other, *known_after(held, done, position), image, image, totals, journal)
        print(f"{name}: {dict(totals)}", flush=True)
        assert totals["cuts"] and not totals["rows gone"]
        assert every == 1 or not totals["repaired"], "a part was not taken back"


def steps_of(count):
    """Inserts small and large, clients, failures that are counted and forgiven, deletes and a clean."""
    for number in range(1, count + 1):
        yield add(number, 3000 if number % 11 == 0 else random.randint(20, 400))
        if number % 3 == 0:
            yield client(number)
        if number % 4 == 0:
            user, times = f"fail{number % 5}", (number - 1) // 20 + 1
            yield Step(0, ["block", "fail", user], user, times, ())
    for user in ("fail0", "fail3"):
        yield Step(0, ["block", "remove", user], None, None, (user,))
    yield Step(0, ["server-log", "delete", str(count // 2)], None, None, (f"user{count // 2:06}",))
    yield Step(0, ["client-log", "clean", "--all"], None, None, tuple(f"client{i:06}" for i in range(count + 1)))


def recycling():
    """A full log, and the two inserts that make it fall back."""
    old = [(f"old{i:06}", f"<{i:06}.o>") for i in range(1, 101_999)]
    steps = [add(0, 200), add(1, 200, {key for key, _ in old[:2000]}), add(2, 200)]
    return steps, 10, [("INSERT INTO conn_server_log (username, device_info) VALUES (?, ?)", old)]


def large_clean():
    """More pages than the daemon holds at a time, between those of another table."""
    insert = "INSERT INTO {} (username, {}) VALUES (?, ?)"
    others = [(f"old{i:06}", f"<{i:06}.o>") for i in range(400)]
    failed = [(f"fail{i:06}" + "x" * 1000, 1) for i in range(14000)]
    log = insert.format("conn_server_log", "device_info")
    steps = [Step(0, ["block", "clean", "--all"], None, None, {key for key, _ in failed})]
    return steps, 1, [(log, others[:200]), (insert.format("privilege_user_block", "limit_count"), failed), (log, others[200:])]


def insert_until_refused(root, name, acknowledged):
    for number in itertools.count():
        step = client(0) if number % 5 == 0 else add(0, random.choice((50, 400, 3000)))
        step.words[3] = f"{name}.{number}"
        words = ["block", "fail", step.words[3]] if number % 5 == 1 else step.words
        if root.run("zorvctl", *words).returncode != 0:
            return
        acknowledged.append(step.words[3])


def look_at_kills(count):
    """The daemon is killed in the midst of a write while three callers insert, and started again on what was repaired.

    Each system has 20 kills, so that its tables grow out of their first pages.
    """
    totals = collections.Counter()
    for _ in range(0, count, 20):
        with Root() as root:
            acknowledged = []
            for kill in range(20):
                root.start(LD_PRELOAD=preloaded, ZORV_KILL_AT=str(random.randint(1, 120)))
                open(root.recorded, "w").close()
                callers = [threading.Thread(target=insert_until_refused, args=(root, f"{kill}.{i}", acknowledged))
                           for i in range(3)]
                for caller in callers:
                    caller.start()
                for caller in callers:
                    caller.join()
                assert root.daemon.wait(20) == -signal.SIGKILL
                os.unlink(root.recorded)
                interrupted = os.path.exists(f"{root.database}-journal")
                check = root.run("zorv-check", "--repair")
                assert check.returncode in (0, 1), check
                totals.update({"kills": 1, "repaired": check.returncode, "taken back": interrupted})
                found = root.rows()
                lost = [key for key in acknowledged if key not in found]
                assert not lost, f"lost by a kill: {lost}"
            totals["acknowledged"] += len(acknowledged)
    print(f"kills: {dict(totals)}", flush=True)


random.seed(int(os.environ.get("SEED", "1")))
look_at_cuts("all kinds", list(steps_of(250 if full else 24)), 3 if full else 4)
look_at_cuts("a large clean", *large_clean(), every=100 if full else 1500)
if full:
    look_at_cuts("recycling", *recycling())
    look_at_kills(1000)
