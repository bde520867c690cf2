"""Passes what oxevent-catalogue generates to its readers: catalogue_test.py [-v] [CatalogueTest.test_NAME...]."""
import configparser
import contextlib
import html
import json
import os
import re
import subprocess
import tempfile
import textwrap
import unittest
from pathlib import Path

from receivers import write_settings

ROOT = Path(__file__).resolve().parent.parent
TOOL, LIBRARY = (os.environ[f"OXEVENT_{name}"] for name in ("CATALOGUE", "LIBRARY"))
FLAGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Wshadow", "-Werror", f"-I{ROOT}/include"]

# Texts that have a special meaning in one of the outputs.
ODD = r"""[catalogue]
name = odd2
[disk full/"ü"1??/ * // /* x */]\]
severity = error
meaning = {{ .Labels }} {{ end }} "q" 'q' `q` \n %s $name ${x} <b>&amp;</b> */ /* ??/ \
  # A comment.
  -- 0027229ca0644181a76c4e92458afa2f

  = | a || *b* _c_ [d](e) ~f~ é 𝄞 @MESSAGE@MESSAGE@ @@ $1$ \
action = %(x)s '''\" \u0041 {{ "
runbook = https://h.example/a_(b)?c&amp;d=[e]*f*'$1
[__A.b-C]
  severity=debug
  meaning = m
    n
  action = a
"""
HOST = r"""
#include "odd2.h"
#include <cstdio>

int main(int argc, char** argv) {
  odd2Unknown unknown = {};
  uint32_t id = 0;
  uint32_t failures = oxEventInitialize(argv[1]) | oxEventRegisterCallback(odd2Check, &unknown, &id);
  for (int i = 2; i < argc; ++i) {
    oxEventRecord event = {};
    event.struct_size = sizeof(event);
    event.version = OXEVENT_API_VERSION;
    event.severity = ODD2_DISK_FULL_1_X_SEVERITY;
    event.event_type = argv[i];
    event.message = "m";
    std::string document;
    failures |= oxEventSubmit(&event);
    failures |= oxEventFormatAlertmanagerRecord(&event, oxEventAlertmanagerFormatterConfig(), &document);
    std::printf("%s %s\n", odd2Knows(argv[i]) ? odd2MessageId(argv[i]) : "none", document.c_str());
  }
  failures |= oxEventShutdown();
  std::printf("%lu %s\n", unknown.count, unknown.first);
  return failures != 0;
}
"""
WRONG = b"""\
severity = info
[catalogue]
name = oxevent
title = t
[a.b]
severity = fatal
severity = info
meaning
 goes on
[ x]
[A-B.severity]
[\xc3\xa4]
severity = info
meaning = m\x1b[0m
action = \xe9
runbook = ftp://h.example/
[a.b]
severity = info
meaning = m
"""
WRONG_LINES = [1, 3, 4, 5, 5, 6, 7, 8, 10, *4 * [11], 12, 14, 15, 16, 17, 17]  # One for each error.


def run(*command, **options):
    return subprocess.run(command, capture_output=True, encoding="utf-8", check=False, **options)


class CatalogueTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.enterContext(contextlib.chdir(self.enterContext(tempfile.TemporaryDirectory())))
        Path("odd2.ini").write_text(ODD)
        write_settings("settings.xml", {"core": {"minimum_severity": "debug"}, "sink\\native\\main": {"enabled": 0}})
        parser = configparser.RawConfigParser(delimiters="=")
        parser.read_string(ODD)
        self.odd = {title: dict(parser[title]) for title in parser.sections() if title != "catalogue"}

    def expect(self, *command, **options):
        done = run(*command, **options)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def make(self, kind, path="odd2.ini"):
        return self.expect(TOOL, f"--{kind}", path, env={"LC_ALL": "C"})

    def run_host(self):
        """Returns the MESSAGE_ID and the alert document of each type, from a host that also reports two other types."""
        self.expect(TOOL, "--header", "--output", "odd2.h", "odd2.ini")
        self.expect("gcc", "-std=c99", *FLAGS, "-fsyntax-only", "-x", "c", "odd2.h")
        Path("host.cpp").write_text(HOST)
        self.expect("g++", "-std=c++17", *FLAGS, "-Wold-style-cast", "host.cpp", LIBRARY, "-o", "host")
        environment = os.environ | {"LD_LIBRARY_PATH": str(Path(LIBRARY).parent)}
        *lines, unknown = self.expect("./host", "settings.xml", *self.odd, "other", "", env=environment).splitlines()
        self.assertEqual(unknown, "2 other")
        return [line.split(" ", 1) for line in lines[:len(self.odd)]]

    def read_by_journal(self):
        """Returns {MESSAGE_ID: text} as journalctl reads it from the message catalog."""
        for directory in ("usr/lib", "var/lib"):
            Path("root", directory, "systemd/catalog").mkdir(parents=True)
        Path("root/usr/lib/systemd/catalog/odd2.catalog").write_text(self.make("journal"))
        self.expect("journalctl", "--root=root", "--update-catalog")
        dump = self.expect("journalctl", "--root=root", "--dump-catalog")
        _, *parts = re.split("^-- ([0-9a-f]{32})\n", dump, flags=re.MULTILINE)
        return dict(zip(parts[::2], parts[1::2]))

    def test_the_journal_reads_the_message_catalog(self):
        expected = []
        for title, texts in self.odd.items():
            link = f"Documentation: {texts['runbook']}\n" if "runbook" in texts else ""
            body = textwrap.indent(f"{texts['meaning']}\n\nAction: {texts['action']}\n", "  ")
            expected.append(f"Subject: {title}\nDefined-By: odd2\n{link}\n{body}\n")
        read = list(self.read_by_journal().values())
        self.assertCountEqual([text.replace("\u2060", "") for text in read], expected)
        self.assertNotRegex("".join(read), "@[A-Z_]+@")  # journalctl -x would replace it.

    def test_all_languages_have_the_same_message_ids(self):
        ids = {re.match("Subject: (.*)", text)[1]: message_id for message_id, text in self.read_by_journal().items()}
        self.assertEqual([message_id for message_id, _ in self.run_host()], [ids[title] for title in self.odd])
        module = {}
        exec(self.make("python"), module)
        self.assertEqual(module["message_ids"], ids)
        self.assertEqual(module["ODD2_A_B_C_SEVERITY"], 0)

    def test_the_alertmanager_renders_the_template(self):
        labels = [json.loads(document)[0]["labels"] for _, document in self.run_host()]
        alerts = [{"labels": of_alert, "annotations": {"summary": "<s>"}, "status": "firing"}
                  for of_alert in (*labels, {"alertname": "Other"})]
        Path("data.json").write_text(json.dumps({"receiver": "r", "status": "firing", "alerts": alerts}))
        Path("odd2.tmpl").write_text(self.make("alertmanager"))
        expected = ""
        for texts in (*self.odd.values(), {}):
            expected += "<s> (firing)\n"
            expected += "".join(f"{key.capitalize()}: {texts[key]}\n" for key in texts if key != "severity")
        for kind, read in (("text", str), ("html", html.unescape)):
            rendered = self.expect(
                "amtool", "template", "render", "--template.glob=odd2.tmpl", "--template.data=data.json",
                f"--template.type={kind}", '--template.text={{ template "odd2.text" . }}')
            self.assertEqual(read(rendered).rstrip("\n"), expected.rstrip("\n"))

    def test_errors_are_reported_together(self):
        Path("wrong.ini").write_bytes(WRONG)
        Path("empty.ini").write_bytes(b"\xef\xbb\xbf[catalogue]\r\nname = a")
        for path, lines in (("wrong.ini", WRONG_LINES), ("empty.ini", [1])):
            done = run(TOOL, "--header", "--output=made", path)
            self.assertEqual((done.returncode, done.stdout), (1, ""))
            found = re.findall(rf"^{path}:(\d+): error: .", done.stderr, re.MULTILINE)
            self.assertEqual(list(map(int, found)), lines, done.stderr)
            self.assertFalse(Path("made").exists())

    def test_exit_status(self):
        self.assertEqual(run(TOOL, "--header", "--output=/dev/full", "odd2.ini").returncode, 1)
        self.assertEqual(run(TOOL, "--header", "missing").returncode, 1)
        self.assertEqual(run(TOOL, "/dev/null").returncode, 1)  # Only checked.
        for arguments in (["--heading", "odd2.ini"], ["--header", "--python", "odd2.ini"], ["odd2.ini", "odd2.ini"]):
            self.assertEqual(run(TOOL, *arguments).returncode, 2, arguments)


if __name__ == "__main__":
    unittest.main()
