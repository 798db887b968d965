#!/usr/bin/env python3
"""Runs the examples of docs/feeders.md against the daemon: feeders_doc_test.py SOURCE BUILD CC [CFLAG ...]

Each records alice's login, in the same words, and stops at her block. The C example is compiled as
C89, and what the library exports is what zorv.h declares.
"""
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

source, build, *compiler = sys.argv[1:]
library = f"{build}/lib/libzorv.so.1"
header = open(f"{source}/src/libzorv/zorv.h").read()
page = open(f"{source}/docs/feeders.md").read()


def check(name, seen, wanted):
    if seen != wanted:
        sys.exit(f"{name}:\n  seen   {seen}\n  wanted {wanted}")


declared = set(re.findall(r"\b(zorv_\w+)\(", re.sub(r"/\*.*?\*/", "", header, flags=re.S)))
table = subprocess.run(["nm", "-D", "--defined-only", library], capture_output=True, text=True, check=True).stdout
exported = {line.split()[-1] for line in table.splitlines() if " A " not in line}
check("exports", exported, {f"{name}@@ZORV_1.0" for name in declared})
dynamic = subprocess.run(["objdump", "-p", library], capture_output=True, text=True, check=True).stdout
check("soname", re.search(r"SONAME +(\S+)", dynamic)[1], "libzorv.so.1")

with tempfile.TemporaryDirectory(prefix="zf.", dir="/tmp") as root:
    for folder in ("etc/config/zorv", "var/log/network", "var/lock", "var/run", "usr/local/sbin"):
        os.makedirs(f"{root}/{folder}")
    os.symlink(f"{build}/bin/notify", f"{root}/usr/local/sbin/notify")
    with open(f"{root}/etc/config/vpn_block.conf", "w") as policy:
        policy.write('{"global": {"enable": true, "limit": 1, "time": 5}}')
    os.environ.update(ZORV_ROOT=root, LD_LIBRARY_PATH=f"{build}/lib", PATH=f"{build}/bin:{os.environ['PATH']}")

    def run(*words):
        done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        return done.returncode, done.stdout

    examples = {}
    for language, command in (("c", None), ("python", "python3"), ("sh", "sh")):
        file = f"{root}/example.{language}"
        with open(file, "w") as example:
            example.write(re.search(rf"^```{language}\n(.*?)^```$", page, re.S | re.M)[1])
        examples[language] = [command, file]
    examples["c"] = [f"{root}/example"]
    check("compiling", run(*compiler, "-std=c89", "-pedantic", "-Wall", "-Werror", f"{root}/example.c", "-o",
                           f"{root}/example", f"-I{source}/src/libzorv", f"-L{build}/lib", "-lzorv"), (0, ""))

    daemons = [subprocess.Popen([f"{build}/bin/{name}"], stdout=subprocess.DEVNULL) for name in ("platformd", "zorvd")]
    try:
        end = time.monotonic() + 20
        while run("zorvctl", "block", "list", "-q")[0] or run("zorvctl", "block", "policy")[0]:
            if time.monotonic() > end:
                sys.exit("the daemons do not answer")
            time.sleep(0.02)

        for language, words in examples.items():
            check(language, run(*words), (0, ""))
        fields = "username,vpn_type,action,source_ip,vpn_ip,uptime,tx_total"
        rows = [[row[name] for name in fields.split(",")] for row in
                map(json.loads, run("zorvctl", "server-log", "list", "-j")[1].splitlines())]
        check("rows", rows, [["alice", 4, 2, "192.0.2.7", "", 0, 0]] * len(examples))

        check("failure", run("zorvctl", "block", "fail", "alice")[0], 0)
        for language, words in examples.items():
            check(f"{language} of the blocked", run(*words), (4, ""))
        daemons[1].terminate()
        daemons[1].wait()
        for language, words in examples.items():
            said = run(*words)[1]
            if ("alice may be blocked" if language == "sh" else "not recorded: the daemon does not run") not in said:
                sys.exit(f"{language} says of a daemon that does not run: {said}")
    finally:
        for daemon in daemons:
            daemon.send_signal(signal.SIGTERM)
            daemon.wait()
