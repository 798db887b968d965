#!/usr/bin/env python3
"""report_outline.py [TABLE COLUMNS] <PAGE: what is wrong with the page; the front of a table's rows."""
import html.parser
import re
import sys

VOID = {"meta", "link"}


class Page(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.open, self.faults, self.rows = [], [], {}
        self.policy, self.nonces, self.scripts, self.table = "", [], 0, None

    def handle_starttag(self, tag, attributes):
        given = dict(attributes)
        for name, value in attributes:
            if name.startswith("on") or name == "style" or (name in ("src", "href") and value != "data:,"):
                self.faults.append(f"<{tag} {name}={value}>")
        if given.get("http-equiv") == "Content-Security-Policy":
            self.policy = given["content"]
        if tag in ("script", "style"):
            self.nonces.append(given.get("nonce"))
            self.scripts += tag == "script"
        if tag == "table":
            self.table = given.get("id", "hours")
            self.rows[self.table] = []
        if tag == "tr":
            self.rows[self.table].append([])
        if tag in ("th", "td"):
            self.rows[self.table][-1].append("")
        if tag not in VOID:
            self.open.append(tag)

    def handle_endtag(self, tag):
        if not self.open or self.open.pop() != tag:
            self.faults.append(f"</{tag}>")

    def handle_data(self, data):
        if "td" in self.open or "th" in self.open:
            self.rows[self.table][-1][-1] += data


page = Page()
text = sys.stdin.buffer.read().decode()
page.feed(text)
nonce = re.findall(r"script-src 'nonce-([0-9a-f]{32})'", page.policy)
page.faults += [f"not closed: {tag}" for tag in page.open]
if not page.policy.startswith("default-src 'none';") or not nonce or set(page.nonces) != set(nonce):
    page.faults.append(f"policy '{page.policy}' for {page.nonces}")
print(*page.faults, f"{page.scripts} scripts", sep="\n")
if len(sys.argv) > 1:
    for row in page.rows.get(sys.argv[1], []):
        print(" | ".join(row[:int(sys.argv[2])]))
