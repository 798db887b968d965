#!/usr/bin/env python3
"""try-flood.py BUILD [LOGINS [REAL [NAME_LENGTH]]]: what an attack that guesses passwords leaves of logs.

A daemon in a root of its own takes REAL failed logins (1,500) of different users as fast as four callers bring them, each
checked, counted and recorded as OpenVPN's hook does it. What they wrote is then written again for the rest of LOGINS
(1,000,000), by four processes that open the logs for each login: an attack of 150 logins a second, 20 times as fast.
logrotate runs with the package's configuration as often as the package's timer has it run, 20 times as often in the second
part. Prints the most that the logs have held, and fails where one is not 0640.
"""
import ctypes
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time

CALLERS = 4
ATTACK = 150  # logins a second; a desk's daemon took 31 to 143
SPEED = 20
here = os.path.dirname(os.path.abspath(__file__))
build = os.path.abspath(sys.argv[1])
logins = int(sys.argv[2]) if len(sys.argv) > 2 else 1000000
real = int(sys.argv[3]) if len(sys.argv) > 3 else 1500
name_length = int(sys.argv[4]) if len(sys.argv) > 4 else 12


def text(path):
    with open(f"{here}/{path}") as file:
        return file.read()


class Login(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), ("vpn_type", ctypes.c_int32),
                ("username", ctypes.c_char_p), ("source_ip", ctypes.c_char_p)]


def attack(caller):
    zorv = ctypes.CDLL(f"{build}/lib/libzorv.so.1")
    for number in range(caller, real, CALLERS):
        name = str(number).rjust(name_length, "x").encode()
        zorv.zorv_check_block(name, None, None)
        zorv.zorv_count_failure(name, None)
        login = Login(ctypes.sizeof(Login), 4, name, b"192.0.2.7")
        while zorv.zorv_record_login_failure(ctypes.byref(login), None) != 0:
            time.sleep(0.01)


def replay(written, rate):
    begin = time.monotonic()
    for number in range((logins - real) // CALLERS):
        for path, content in written:
            file = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o666)
            os.write(file, content)
            os.close(file)
        time.sleep(max(0, begin + number * CALLERS / rate - time.monotonic()))


def forked(work, *words):
    pid = os.fork()
    if pid == 0:
        work(*words)
        os._exit(0)
    return pid


root = tempfile.mkdtemp(prefix="/tmp/zflood.")
os.environ["ZORV_ROOT"] = root
os.umask(0o027)
logs = f"{root}/var/log/network"
for folder in ("etc/config/zorv", "var/log/network", "var/lock", "var/run", "usr/local/sbin"):
    os.makedirs(f"{root}/{folder}")
os.symlink(f"{build}/bin/notify", f"{root}/usr/local/sbin/notify")
with open(f"{root}/etc/config/vpn_block.conf", "w") as file:
    file.write('{"global": {"enable": true, "limit": 5, "time": 30}}')
with open(f"{root}/logrotate.conf", "w") as file:
    file.write(text("logrotate.conf").replace("/var/log/network", logs))
period = int(re.search(r"OnUnitActiveSec=(\d+)s", text("systemd/zorvd-logrotate.timer"))[1])
daemons = [subprocess.Popen([f"{build}/bin/{name}"], stdout=subprocess.DEVNULL) for name in ("platformd", "zorvd")]
for _ in range(400):
    if subprocess.run([f"{build}/bin/zorvctl", "block", "policy", "-q"], capture_output=True).returncode == 0:
        break
    time.sleep(0.05)

over = threading.Event()


def rotate():
    while not over.wait(period):
        if subprocess.run(["logrotate", "--state", f"{root}/state", f"{root}/logrotate.conf"]).returncode != 0:
            print("logrotate has failed")


rotating = threading.Thread(target=rotate)
rotating.start()


def held():
    total, wrong = 0, []
    for entry in os.scandir(logs):
        try:
            about = entry.stat()
        except FileNotFoundError:
            continue
        total += about.st_blocks * 512
        if about.st_mode & 0o777 not in (0o640, 0o600):  # 0600 while gzip writes it
            wrong.append(entry.name)
    return total, wrong


most, others = 0, set()


def watch(callers):
    global most
    begin = time.monotonic()
    said = 0
    while callers:
        callers = [pid for pid in callers if os.waitpid(pid, os.WNOHANG)[0] == 0]
        now, wrong = held()
        most = max(most, now)
        others.update(wrong)
        if time.monotonic() - begin > said:
            print(f"{said} s: {now / 1e6:.1f} MB, at most {most / 1e6:.1f} MB", flush=True)
            said += 30
        time.sleep(0.05)
    return time.monotonic() - begin


seconds = watch([forked(attack, caller) for caller in range(CALLERS)])
written = [(f"{logs}/{name}", os.path.getsize(f"{logs}/{name}") // real) for name in ("ZORV.log", "notifications.jsonl")]
size = sum(length for _, length in written)
print(f"{real} logins in {seconds:.0f} s, {real / seconds:.0f} a second, {size} bytes each")
with open(f"{logs}/ZORV.log", "rb") as file:  # compresses as it does
    sample = file.read(1 << 20)
written = [(path, sample[:length - 1] + b"\n") for path, length in written]
period /= SPEED
seconds = watch([forked(replay, written, SPEED * ATTACK) for _ in range(CALLERS)])
over.set()
rotating.join()
for daemon in daemons:
    daemon.terminate()
    daemon.wait()
print(sorted((entry.name, entry.stat().st_size) for entry in os.scandir(logs)))
print(f"{logins - real} more in {seconds:.0f} s, {(logins - real) / seconds:.0f} a second; the logs held at most {most / 1e6:.1f} MB")
shutil.rmtree(root)
if others:
    sys.exit(f"not 0640: {sorted(others)}")
