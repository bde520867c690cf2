"""Tests the code blocks of the documents: docs_blocks.py [-v] [Test.test_NAME...], with a build in OXEVENT_BUILD.

The blocks of a page are compiled, run, parsed or loaded, depending on their language, in order, in a copy of the tree.
A text block without a marker is not tested. The line before a block may be one of these markers:
<!-- keeps running: udp PORT -->  or "tcp PORT" or "no port": it runs until the end of the page; the next block waits
                                  until the port is in use
<!-- came out: exactly -->        it must equal the output of the block before it
<!-- saved as: FILE -->           it is also written to this file
<!-- shows in the end: TEXT -->   it is repeated until its output contains TEXT
<!-- not run: REASON -->          only its syntax is checked, and whether its commands and paths exist
"keeps running where installed": the rest of the page is skipped if a command is missing.
"""
import json, os, re, shlex, shutil, signal, socket, subprocess, tempfile, unittest
import xml.etree.ElementTree as ElementTree
from pathlib import Path

ROOT, BUILD = Path(__file__).resolve().parent.parent, Path(os.environ["OXEVENT_BUILD"])
import receivers

PAGES = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/**/*.md")])
FENCE = re.compile(r"^(?:<!-- ([a-z ]+): (.+?) -->\n)?^```(.*?)\n(.*?)^```$", re.S | re.M)
# The ports in pages and recipes, each of which is replaced by a free one.
PORTS = re.compile(r"\b(1162|2514|4370|514[01]|5672|808[0-2]|909[3-6]|10051|25672)\b")
SETTINGS = "<config>\n<key name='QVX'><key name='Events'>\n{}</key></key></config>\n"
QUIET = SETTINGS.format("""<key name='core'><value name='minimum_severity'>debug</value></key><key name='sink'>
<key name='native'><key name='main'><value name='enabled'>0</value></key></key><key name='csv'><key name='default'>
<value name='enabled'>1</value><value name='path'>{}/seen.csv</value></key></key></key>""")
LOGGERS = {"spdlog.hpp": "-lspdlog -lfmt", "glog.hpp": "-lglog", "boost_log.hpp": "-lboost_log -lboost_thread",
           "journald.h": "-lsystemd"}
FLAGS = ["-DBOOST_LOG_DYN_LINK", "-Wall", "-Wextra", "-Werror", "-Wno-unused", "-I", f"{ROOT}/include"]


class Page:
    """Runs the blocks of a page. `count`: blocks of each kind; `skipped`: blocks that are not run, with the reasons."""

    def __init__(self, path, prefix):
        self.directory = Path(tempfile.mkdtemp())
        self.directory.chmod(0o755)  # nginx's workers run as another user.
        shutil.copytree(ROOT, self.directory, dirs_exist_ok=True, ignore=shutil.ignore_patterns("build*", ".git", "*.svg"))
        self.ports, self.running, self.count, self.skipped = {}, [], {}, []
        for recipe in [*self.directory.glob("docs/*/*.conf"), *self.directory.glob("docs/*/*.yml")]:
            recipe.write_text(self.with_free_ports(recipe.read_text()))
        self.text = self.with_free_ports(path.read_text())
        self.environment = os.environ | {
            "PREFIX": str(prefix), "PATH": f"{prefix}/bin:{BUILD}/examples:{os.environ['PATH']}:/usr/sbin",
            "LD_LIBRARY_PATH": f"{prefix}/lib", "PKG_CONFIG_PATH": f"{prefix}/lib/pkgconfig", "CMAKE_PREFIX_PATH": str(prefix),
            "PYTHONPATH": f"{ROOT}/tools/python", "PYTHONDONTWRITEBYTECODE": "1",
            "OXEVENT_LIBRARY": f"{prefix}/lib/liboxEvent.so.1"}

    def with_free_ports(self, text):
        def replacement(match):
            if match[0] not in self.ports:
                self.ports[match[0]] = str(receivers.free_port())
            return self.ports[match[0]]

        return PORTS.sub(replacement, text)

    def run(self):
        for mark, note, kind, code in FENCE.findall(self.text):
            self.count[kind] = self.count.get(kind, 0) + 1
            if mark == "keeps running where installed" and not self.has_commands(code):
                self.skipped.append(f"the rest, because a command is missing: {code.splitlines()[0]}")
                return
            if mark == "not run":
                self.skipped.append(f"{note}: {code.splitlines()[0]}")
                self.check_only(code)
            elif mark.startswith("keeps running"):
                self.start(code, *note.split())
            elif mark == "shows in the end":
                receivers.await_(f"'{note}' from {code}", lambda: note in self.bash(code))
            elif mark == "came out":
                assert code == self.printed, f"the output was:\n{self.printed}"
            else:
                if mark == "saved as":
                    (self.directory / note).parent.mkdir(exist_ok=True)
                    (self.directory / note).write_text(code)
                getattr(self, f"do_{kind or 'unmarked'}")(code)

    def bash(self, code):
        self.printed = self.ran(["bash", "-euo", "pipefail", "-c", code]).stdout
        return self.printed

    def ran(self, command):
        return subprocess.run(command, cwd=self.directory, env=self.environment, capture_output=True, text=True, timeout=120)

    def call(self, command):
        done = self.ran(command)
        assert done.returncode == 0, f"{shlex.join(map(str, command))[-1500:]}\n{done.stdout}{done.stderr}"
        self.printed = done.stdout

    def do_unmarked(self, code):
        raise AssertionError(f"a block without a language: {code}")

    def do_text(self, code):
        pass

    def do_cmake(self, code):
        assert (self.directory / "fan/CMakeLists.txt").exists()  # Run by the next block.

    def do_json(self, code):
        json.loads(code)

    def do_yaml(self, code):
        (self.directory / "block.yml").write_text(code)
        self.call(["amtool", "check-config", "block.yml"])

    def do_sh(self, code):
        self.call(["bash", "-euo", "pipefail", "-c", code])

    def do_python(self, code):
        self.call(["/usr/bin/python3", "-c", code, self.quiet_settings()])
        self.seen()

    def do_cpp(self, code):
        self.do_c(code, ["g++", "-std=c++17", "-x", "c++"])

    def do_c(self, code, compiler=("gcc", "-std=c99", "-x", "c")):
        source, program = self.directory / "block", self.directory / "program"
        whole = "main(" in code
        source.write_text(code if whole else "#include <oxEvent.h>\n" + code)
        libraries = [f"{BUILD}/liboxevent-alertposter.so", f"{BUILD}/liboxEvent.so"]
        libraries += [flag for header, flags in LOGGERS.items() if f"oxEvent/{header}" in code for flag in flags.split()]
        link = ["-x", "none", *libraries, f"-Wl,-rpath,{BUILD}", "-o", program]
        self.call([*compiler, *FLAGS, source, *(link if whole else ["-fsyntax-only"])])
        if whole:
            self.call([program, self.quiet_settings()])
            self.seen()

    def quiet_settings(self):
        (self.directory / "quiet.xml").write_text(QUIET.format(self.directory))
        return self.directory / "quiet.xml"

    def seen(self):
        rows = (self.directory / "seen.csv").read_text().splitlines()
        (self.directory / "seen.csv").unlink()
        assert len(rows) > 1, "the program reported nothing"

    def do_xml(self, code):
        """Writes the block to settings.xml, which the next blocks of the page use."""
        code = re.sub(r"<\?xml.*?\?>\s*", "", code)
        if not code.startswith("<config>"):
            inside = re.match(r'<key name="(core|state|sink)">', code)
            code = SETTINGS.format(code if inside else f"<key name='sink'>{code}</key>")
        ElementTree.fromstring(code)
        for name in ("settings.xml", "loaded.xml"):
            (self.directory / name).write_text(code)
            (self.directory / name).chmod(0o600)
        self.call(["oxevent-check", "loaded.xml"])
        if not self.running:  # Receivers must see only the page's own event.
            self.call(["bash", "-c", "mkdir -p elsewhere; cd elsewhere; oxevent-minimal ../loaded.xml"])

    def has_commands(self, code):
        plain = re.sub(r"""\\\n|'[^']*'|"[^"]*"|#.*|\w+=(\$\([^)]*\)|\S*)""", " ", code)
        first = [part.split()[0] for part in re.split(r"&&|[|\n;]", plain) if part.split()]
        return all(shutil.which(self.directory / name if "/" in name else name, path=self.environment["PATH"]) for name in first)

    def check_only(self, code):
        self.call(["bash", "-n", "-c", code])
        assert self.has_commands(code), f"one of these commands is missing: {code}"
        for path in re.findall(r"\b(?:docs|scripts|examples|tests|tools|include)/[\w./-]+\w", code):
            assert (self.directory / path).exists(), f"no {path}"

    def start(self, code, kind, port):
        (self.directory / "events").mkdir(exist_ok=True)
        child = subprocess.Popen(["bash", "-euo", "pipefail", "-c", code], cwd=self.directory, env=self.environment,
                                 start_new_session=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.running.append(child)
        if kind != "no":
            probe = receivers.Receiver()
            probe.port, probe.kind = int(port), {"udp": socket.SOCK_DGRAM, "tcp": socket.SOCK_STREAM}[kind]
            receivers.await_(f"the start of {code}", lambda: child.poll() is not None or probe.listens())
            assert child.poll() is None, f"{code}\nended: {child.stdout.read().decode()}"

    def close(self):
        for child in reversed(self.running):  # A server stops before its database.
            try:
                os.killpg(child.pid, signal.SIGTERM)
            except ProcessLookupError:
                pass
            child.communicate()
        shutil.rmtree(self.directory)


class Test(unittest.TestCase):
    def setUp(self):
        self.enterContext(receivers.system_log())  # oxevent-send fails without one.

    def test_man_page(self):
        example = re.search(r"\.Bd -literal.*?\n(#include.*?)\.Ed", (ROOT / "docs/man/man3/oxevent.3").read_text(), re.S)[1]
        page = Page(ROOT / "README.md", BUILD)
        self.addCleanup(page.close)
        page.do_c(example.replace("\\e", "\\"))

    def test_blocks(self):
        self.assertIn(re.search("^```c\n(.*?)^```", (ROOT / "README.md").read_text(), re.S | re.M)[1],
                      (ROOT / "examples/minimal.c").read_text())
        count, skipped = {}, []
        with tempfile.TemporaryDirectory() as prefix:
            subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
            for path in PAGES:
                if "```" not in path.read_text():
                    continue
                with self.subTest(page=str(path.relative_to(ROOT))):
                    page = Page(path, prefix)
                    self.addCleanup(page.close)
                    page.run()
                    count = {kind: count.get(kind, 0) + page.count.get(kind, 0) for kind in count | page.count}
                    skipped += [f"{path.name}: {note}" for note in page.skipped]
        print(count, "not run:", *skipped, sep="\n")


if __name__ == "__main__":
    unittest.main()
