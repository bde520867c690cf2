"""Completes the website that Doxygen has made: docs_site.py DIRECTORY

Writes the search index, and fails if a link leads nowhere.
"""
import json
import re
import sys
from html.parser import HTMLParser
from pathlib import Path

HEADINGS = ("h1", "h2", "h3")
LINK = re.compile(r'(?:href|src|data)="(?!https?:)([^"#]*)(?:#([^"]*))?"')


class Sections(HTMLParser):
    """Splits a page at the headings that can be linked to."""

    def __init__(self, file):
        super().__init__()
        self.file = file
        self.title = ""
        self.sections = []
        self.open = []  # The open elements, without those that have no end tag.
        self.add("")
        self.feed(file.read_text())

    def add(self, anchor):
        self.sections.append({"anchor": anchor, "heading": "", "text": ""})

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        if tag == "a" and attributes.get("class") == "anchor" and self.open and self.open[-1] in HEADINGS:
            self.add(attributes["id"])
        if tag not in ("meta", "link", "img", "br", "hr", "input"):
            self.open.append(tag)

    def handle_endtag(self, tag):
        if tag in self.open:
            while self.open.pop() != tag:
                continue

    def handle_data(self, data):
        if "title" in self.open:
            self.title += data.removeprefix("oxEvent: ")
        elif "main" in self.open and not {"script", "style"} & {*self.open}:
            is_heading = self.sections[-1]["anchor"] and {*HEADINGS} & {*self.open}
            self.sections[-1]["heading" if is_heading else "text"] += data

    def index(self):
        for section in self.sections:
            anchor = section["anchor"]
            heading, text = (" ".join(section[name].split()) for name in ("heading", "text"))
            if text:
                url = self.file.name + (f"#{anchor}" if anchor else "")
                yield {"url": url, "page": self.title, "heading": heading, "text": text}


def dead_links(site, page):
    for path, anchor in LINK.findall(page.read_text()):
        target = site / path if path else page
        if not target.exists() or anchor and not re.search(f'(?:id|name)="{re.escape(anchor)}"', target.read_text()):
            yield f"{page.name}: nothing at {path}#{anchor}"


def main():
    site = Path(sys.argv[1]).resolve()
    pages = sorted(site.glob("*.html"))
    bar = re.findall(r'href="([^"]+)"', re.search(r"<header>.*?</header>", (site / "index.html").read_text(), re.DOTALL)[0])
    documents = [page for page in pages if not re.match(r"dir_|files|globals|functions|annotated|classes|pages", page.name)]
    documents.sort(key=lambda page: bar.index(page.name) if page.name in bar else len(bar))
    index = [section for page in documents for section in Sections(page).index()]
    (site / "search_index.js").write_text(f"const searchIndex = {json.dumps(index, ensure_ascii=False, indent=0)};\n")
    sys.exit("\n".join(sorted({link for page in pages for link in dead_links(site, page)})) or 0)


if __name__ == "__main__":
    main()
