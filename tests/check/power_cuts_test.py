#!/usr/bin/env python3
"""power_cuts_test.py PROGRAM_FOLDER PRELOADED [--full]: cuts the daemon's writes, and zorv-check repairs.

The daemon's writes and syncs are recorded. A cut leaves what was synced and some of the writes since: all before a
moment, or a random choice, torn at 512 bytes. Then every acknowledged row must be found, none twice, none that was
deleted, and the daemon must serve. A write may itself have gone over the only copy of a row, as when a page is divided:
such rows, whose bytes are no longer in the file, count by themselves. --full takes thousands of cuts and kills.
"""
import collections
import os
import random
import signal
import sqlite3
import sys
import threading
import time

from repairs import Root, expect_repaired

preloaded = sys.argv[2]
full = "--full" in sys.argv
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
        kind, offset, size = data[at:line_end].split()
        size = int(size)
        events.append((line_end + size, kind, int(offset), data[line_end:line_end + size]))
        at = line_end + size
    return events, done


def apply(image, event):
    _, kind, offset, data = event
    if kind == b"t":
        image[:] = image[:offset].ljust(offset, b"\0")
    elif kind == b"w":
        image.extend(bytes(max(0, offset + len(data) - len(image))))
        image[offset:offset + len(data)] = data


def chosen(pending, is_torn):
    """Some of the writes, some of them torn, as a disk may have done them."""
    for position, kind, offset, data in pending:
        choice = random.random()
        if choice < 0.4 or (kind == b"t" and choice < 0.7):
            yield position, kind, offset, data
        elif choice < 0.6 and kind == b"w" and is_torn:
            for sector in range(0, len(data), 512):
                if random.random() < 0.5:
                    yield position, kind, offset + sector, data[sector:sector + 512]


def cuts(image, events, choices, is_torn):
    """Each (position, synced, image): after each write, and random choices at each sync."""
    synced, pending = bytes(image), []
    for event in events:
        if event[1] == b"s":
            for _ in range(choices if pending else 0):
                cut = bytearray(synced)
                for one in chosen(pending, is_torn):
                    apply(cut, one)
                yield event[0] - 1, synced, bytes(cut)
            synced, pending = bytes(image), []
        else:
            apply(image, event)
            pending.append(event)
            yield event[0], synced, bytes(image)


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


def look_at_cuts(name, steps, choices, before=(), is_torn=True):
    with Root() as root, Root() as other:
        root.start()
        root.end()
        for statement, rows in before:
            with sqlite3.connect(root.database) as base:
                base.executemany(statement, rows)
        held = root.rows()
        image = bytearray(open(root.database, "rb").read())
        events, done = record(root, steps)
        totals = collections.Counter()
        for position, synced, cut in cuts(image, events, choices, is_torn):
            expect_repaired(other, *known_after(held, done, position), synced, cut, totals)
        print(f"{name}: {dict(totals)}", flush=True)
        return totals


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


def insert_until_refused(root, name, acknowledged):
    number = 0
    while root.daemon:
        number += 1
        step = client(f"{name}.{number}") if number % 5 == 0 else add(0, random.choice((50, 400, 3000)))
        step.words[3] = f"{name}.{number}"
        if root.run("zorvctl", *step.words).returncode == 0:
            acknowledged.append(step.words[3])


def look_at_kills(count):
    """The daemon is killed while three callers insert, and started again on what was repaired."""
    totals, acknowledged = collections.Counter(), []
    with Root() as root:
        for kill in range(count):
            root.start()
            callers = [threading.Thread(target=insert_until_refused, args=(root, f"{kill}.{i}", acknowledged))
                       for i in range(3)]
            for caller in callers:
                caller.start()
            before = len(acknowledged)
            while len(acknowledged) == before:
                time.sleep(random.uniform(0, 0.02))
            root.end(signal.SIGKILL)
            for caller in callers:
                caller.join()
            check = root.run("zorv-check", "--repair")
            assert check.returncode in (0, 1), check
            totals.update({"kills": 1, "repaired": check.returncode})
            found = root.rows()
            lost = [key for key in acknowledged if key not in found]
            assert not lost, f"lost by a kill: {lost}"
    print(f"kills: {dict(totals | {'acknowledged': len(acknowledged)})}", flush=True)


random.seed(int(os.environ.get("SEED", "1")))
look_at_cuts("all kinds", list(steps_of(250 if full else 24)), 3 if full else 1)
if full:
    # Whole pages: a torn one may mix rows of one length.
    look_at_cuts("recycling", *recycling(), is_torn=False)
    look_at_kills(1000)
