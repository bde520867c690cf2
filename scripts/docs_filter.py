#!/usr/bin/python3
"""Converts a document or a header to Doxygen's input and prints it: docs_filter.py FILE

The name of a page comes from its path: that of docs/receivers/nginx.md is "receivers-nginx". The name of a heading is
the name of its page and the anchor that GitHub gives the heading.
"""
import html
import re
import sys
from pathlib import Path
from urllib.parse import urlsplit

ROOT = Path(__file__).resolve().parent.parent


def page_name(path):
    parts = path.relative_to(ROOT).with_suffix("").parts
    parts = [part for part in (parts[1:] if parts[0] == "docs" else parts)]
    if parts == ["README"]:
        return "index"
    return "-".join(parts[:-1] if parts[-1] == "README" else parts).lower()


def slug(heading):
    return re.sub(r"[^\w\- ]", "", re.sub(r"\]\([^)]*\)", "]", heading).lower()).replace(" ", "-")


def link(path, text, target):
    url = urlsplit(target)
    if url.scheme:
        return f"[{text}]({target})"
    file = (path.parent / url.path).resolve() if url.path else path
    if file.suffix == ".md":
        return f'<a href="{page_name(file)}.html{"#" + page_name(file) + "-" + url.fragment if url.fragment else ""}">{text}</a>'
    return f'<a href="{file.relative_to(ROOT)}">{text}</a>'


def line_of_page(path, line):
    if heading := re.fullmatch(r"(#+) (.+)", line):
        level, text = heading.groups()
        name = f"{page_name(path)}-{slug(text)}" if level != "#" else page_name(path).replace("index", "mainpage")
        return f"{level} {text} {{#{name}}}"
    parts = re.split(r"(`[^`]*`)", line)  # Odd elements are code.
    for i in range(0, len(parts), 2):
        parts[i] = re.sub(r"\\(?![|])|@", r"\\\g<0>", parts[i])
    for i in range(1, len(parts), 2):
        if "\\|" in parts[i]:  # Doxygen would show the backslash.
            parts[i] = f"<code>{html.escape(parts[i][1:-1], quote=False)}</code>"
        parts[i] = re.sub(r"https?://", r"%\g<0>", parts[i])  # So that it does not become a link.
    line = re.sub(r"(?<!%)https?://(?!\w)", r"%\g<0>", "".join(parts))
    line = re.sub(r"\*\*(.+?)\*\*", r"<b>\1</b>", line)  # Doxygen supports only short ones as **.
    line = re.sub(r"!\[([^]]*)\]\(([^)]+)\)",
                  lambda m: f'<img src="{(path.parent / m[2]).resolve().relative_to(ROOT)}" alt="{m[1]}">', line)
    return re.sub(r"(?<!!)\[([^]]+)\]\(([^)\s]+)\)", lambda m: link(path, m[1], m[2]), line)


def page(path, text):
    blocks = re.split(r"(^```.*?^```$)", re.sub(r"^<!-- .*? -->\n", "", text, flags=re.M), flags=re.M | re.S)
    joined = []
    for i, block in enumerate(blocks):
        if i % 2:
            joined.append(re.sub(r"^```(\w+)", r"```{.\1}", block))
        else:  # A link may contain a line feed.
            block = re.sub(r"\[[^]`]*\]\([^)]*\)", lambda m: m[0].replace("\n", " "), block)
            joined.append("\n".join(line_of_page(path, line) for line in block.split("\n")))
    out = "".join(joined)
    return out.replace("\n", "\n\n[TOC]\n", 1) if out.count("\n## ") > 4 and "mainpage" not in out.split("\n")[0] else out


def header(text):
    """Converts comments to Doxygen comments, except those of groups and conditions; links functions and result codes."""
    functions = re.findall(r"^(?:extern \"C\" )?OXEVENT_API \w+ (\w+)\(", text, re.M)
    text = re.sub(r"^/\*\n", "/*\n * \\\\file\n", text)
    text = re.sub(r"^/\*(?=[\n ])(?![^\n]*\*/\n#(?:if|.*\n#define))", "/**", text, flags=re.M)
    text = re.sub(r"(\S +)/\*(?= )", r"\1/**<", text)
    comment = lambda m: re.sub(rf"\b({'|'.join(functions)})\b", r"\1()", re.sub(r"\bOXEVENT_[A-Z]\w*[A-Z]\b", r"#\g<0>", m[0]))
    return re.sub(r"/\*\*.*?\*/", comment, text, flags=re.S)


def main():
    path = Path(sys.argv[1]).resolve()
    text = path.read_text()
    sys.stdout.write(header(text) if path.suffix == ".h" else page(path, text))


if __name__ == "__main__":
    main()
