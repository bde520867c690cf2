#!/usr/bin/python3
"""Writes man pages, in mdoc, of what is written down elsewhere.

man_pages.py header FOLDER                     include/oxEvent.h: a page for each entry point, and oxEventRecord(3)
man_pages.py page NAME SECTION FILE.md FOLDER  a reference in Markdown: headings, paragraphs, code blocks, tables

FOLDER holds man3 and so on.
"""
import re
import sys
import textwrap
from pathlib import Path

ROOT = Path(__file__).parent.parent
SEE_ALSO = {"oxevent-settings": ["oxevent-check 1", "oxEventInitialize 3", "oxEventReloadConfig 3", "oxevent 3"],
            "oxevent-errors": ["oxevent-check 1", "oxEventGetLastError 3", "oxevent 3", "oxevent-settings 5"]}
TOGETHER = {"oxEventUnregisterCallback": "oxEventRegisterCallback",  # Functions that are on another's page.
            "oxEventRemoveWindowsEventSource": "oxEventInstallWindowsEventSource"}


def escape(text):
    return re.sub(r"^(?=[.'])", r"\\&", text.replace("\\", r"\e"), flags=re.M)


def lines(text):
    """Filled text: lines of at most 80 bytes, each sentence on a new one."""
    filled = [line for sentence in re.split(r'(?<=[\w)"`][.:]) +(?=["`(A-Z])|(?<=\w\.) +', " ".join(text.split()))
              for line in textwrap.wrap(re.sub("`([^`]*)`", r"\\fB\1\\fP", sentence.replace("\\", r"\e")), 78,
                                        break_long_words=False, break_on_hyphens=False)]
    return re.sub(r"^(?=[.'])", r"\\&", "\n".join(filled), flags=re.M)


def mark(text, own):
    """The same, with functions, result codes and parameters of the header marked up."""
    out = []
    for word in re.sub(r"^\\&", "", lines(text), flags=re.M).replace("\n", " \n ").split(" "):
        name = re.fullmatch(r'(["(]*)(oxEvent[A-Z]\w+|OXEVENT_\w+[a-zA-Z]|\*?[a-z]+_[a-z_]+)(::\w+)?([).,;:"]*)', word)
        if not name or name[3] or name[2] == "oxEventCallback":
            out.append(word)
            continue
        macro = ("Fn" if name[2] in own else "Xr") if name[2].startswith("oxEvent") else (
            "Dv" if name[2].startswith("OXEVENT") else "Fa")
        macro += f" {name[2]}" + (" 3" if macro == "Xr" else "")
        before = " ".join(name[1]).replace('"', "\\(dq")
        after = "".join(f" {c}" for c in name[4])
        out.append(f"\n.{macro.replace(' ', f' {before} ', 1) if before else macro}{after}\n")
    return re.sub(r" *\n[ \n]*", "\n", " ".join(out)).strip("\n")


def begin(name, section, purpose):
    return f".Dd November 25, 2026\n.Dt {name.upper()} {section}\n.Os\n.Sh NAME\n{purpose}\n"


def see_also(pages):
    ordered = sorted(pages, key=lambda page: (page.split()[1], page.lower()))
    return ".Sh SEE ALSO\n" + " ,\n".join(f".Xr {page}" for page in ordered) + "\n"


# Of Markdown.

def table(rows):
    cells = [[cell.strip().replace("\\|", "|") for cell in re.split(r"(?<!\\)\|", row)[1:-1]] for row in rows]
    out = ".Bl -tag -width Ds\n"
    for term, meaning, *others in cells[2:]:
        named = "".join(f" {title}: {cell}." for title, cell in zip(cells[0][2:], others) if cell)
        out += f".It Cm {escape(term.strip('`'))}\n{lines(meaning + named)}\n"
    return out + ".El\n"


def markdown_page(name, section, text):
    title, *parts = re.split(r"\n\n(?=\S)", text.strip())
    out = begin(name, section, f".Nm {name}\n.Nd {title.removeprefix('# ')[0].lower() + title[3:]}") + ".Sh DESCRIPTION\n"
    for part in parts:
        if part.startswith("```"):
            out += f".Bd -literal -offset indent\n{escape(part.split(chr(10), 1)[1].rsplit('```', 1)[0])}.Ed\n"
        elif part.startswith("|"):
            out += table(part.split("\n"))
        elif part.startswith("#"):
            out += f".Ss {escape(part.lstrip('# '))}\n"
        else:
            follows_heading = out.rsplit("\n", 2)[1].startswith(".S")
            out += ("" if follows_heading else ".Pp\n") + lines(part) + "\n"
    return out + see_also(SEE_ALSO[name])


# Of the header.

def comment(text):
    return [" ".join(part.split()) for part in re.sub(r"^ ?\*( |$)", "", text.strip(), flags=re.M).split("\n\n")]


def codes_of(header):
    return dict(re.findall(r"#define (OXEVENT_[A-Z_]+) 0x800\w+u +/\* (.*?)\.? \*/", header))


def errors(paragraph, codes, of):
    """[(codes, reason)] of a paragraph such as "OXEVENT_A: reason. OXEVENT_B; OXEVENT_C, OXEVENT_D: reason." """
    if same := re.search(r"Errors as (\w+)\.", paragraph):
        return of[same[1]]
    parts = re.split(r"((?:OXEVENT_[A-Z_]+, )*OXEVENT_[A-Z_]+)([:.;])", paragraph)[1:]
    return [(names.split(", "), reason.strip(" ;") if colon == ":" else codes[names] + ".")
            for names, colon, reason in zip(parts[::3], parts[1::3], parts[2::3])]


def prototype(text):
    returned, name, parameters = re.fullmatch(r"(.+?)\b(\w+)\((.*)\)", " ".join(text.split())).groups()
    return f".Ft {returned.strip()}\n.Fn {name} " + " ".join(f'"{part}"' for part in parameters.split(", "))


def header_pages(header):
    codes = codes_of(header)
    functions, of = {}, {}  # name: (paragraphs, prototypes); name: errors
    found = re.findall(r'/\*((?:(?!\*/).)*)\*/\n((?:(?:extern "C" )?OXEVENT_API [^;]*;\n)+)', header, re.S)
    for text, declarations in found:
        prototypes = [re.sub(r'\s+|extern "C" |OXEVENT_API ', " ", one).strip()
                      for one in declarations.split(";\n") if one]
        names = [re.search(r"(\w+)\(", one)[1] for one in prototypes]
        body = comment(text)
        failing = next((part for part in body if re.search(r"^OXEVENT_|Errors as", part)), None)
        of[names[0]] = errors(failing, codes, of) if failing else []
        for name in names:
            shown = TOGETHER.get(name, names[0])
            functions.setdefault(shown, []).append((names, body, prototypes, failing))
    pages = {}
    callback = re.search(r"/\*((?:(?!\*/).)*)\*/\n(typedef void \(\*oxEventCallback\)[^;]*;)", header, re.S)
    for name, entries in functions.items():
        entries = list({tuple(entry[0]): entry for entry in entries}.values())
        own = [one for entry in entries for one in entry[0]]
        first = entries[0][1][0]
        purpose = re.split(r"[.,:;(]", first)[0].strip()
        if first.startswith("Returns"):
            purpose = first.split(",")[0]
        out = begin(name, 3, " ,\n".join(f".Nm {one}" for one in own) + f"\n.Nd {purpose[0].lower() + purpose[1:]}")
        out += ".Sh LIBRARY\noxEvent (-loxEvent)\n.Sh SYNOPSIS\n.In oxEvent.h\n"
        if "Callback" in name:
            out += ".Bd -literal\n" + callback[2] + "\n.Ed\n.Pp\n"
        out += "\n".join(prototype(one) for entry in entries for one in entry[2]) + "\n.Sh DESCRIPTION\n"
        told = []
        for names, body, _, failing in entries:
            for i, part in enumerate(body):
                part = re.sub(r" ?Errors as \w+\.", "", part)
                if part and not part.startswith("OXEVENT_"):
                    told.append((f"\n.Fn {names[0]}\n" if i == 0 and len(entries) > 1 else "") +
                                mark(part[0].lower() + part[1:] if i == 0 and len(entries) > 1 else part, own))
        if "Callback" in name:
            told += [mark("The callback " + part[0].lower() + part[1:] if i == 0 else part, own)
                     for i, part in enumerate(comment(callback[1]))]
        out += "\n.Pp\n".join(part.strip("\n") for part in told) + "\n"
        failures = [failure for entry in entries for failure in of[entry[0][0]]]
        out += ".Sh RETURN VALUES\n"
        if failures:
            out += mark("OXEVENT_OK, or one of the result codes below; oxEventGetLastError then gives the reason.",
                        own) + "\n.Sh ERRORS\n.Bl -tag -width Ds\n"
            for names, reason in failures:
                out += f".It {' , '.join(f'Dv {one}' for one in names)}\n{mark(reason[0].upper() + reason[1:], own)}\n"
            out += ".El\n"
        else:
            out += mark("OXEVENT_API_VERSION.", own) + "\n"
        others = {"oxevent 3", "oxevent-errors 7"} | {f"{one} 3" for one in re.findall(r"\.Xr (\w+) 3", out)}
        others |= {"oxEventRecord 3"} if "oxEventRecord" in out else set()
        pages[name] = out + see_also(others - {f"{name} 3"})
        pages |= {one: f".so man3/{name}.3\n" for one in own[1:]}
    return pages | {"oxEventRecord": record_page(header)}


def record_page(header):
    text, fields = re.search(r"/\*((?:(?!\*/).)*)\*/\ntypedef struct oxEventRecord \{\n(.*?)\n\}", header, re.S).groups()
    out = begin("oxEventRecord", 3, ".Nm oxEventRecord\n.Nd one event")
    out += ".Sh SYNOPSIS\n.In oxEvent.h\n.Vt oxEventRecord\n.Sh DESCRIPTION\n"
    out += "\n.Pp\n".join(mark(part, ()) for part in comment(text)) + "\n.Pp\nThe fields, in order:\n.Bl -tag -width Ds\n"
    for kind, name, meaning in re.findall(r"^  ([\w ]+\*?) (\w+); */\* (.*?) \*/", fields, re.M):
        out += f".It Vt {kind} Va {name}\n{mark(meaning, ())}\n"
    return out + ".El\n" + see_also(["oxevent 3", "oxEventSubmit 3", "oxEventRegisterCallback 3"])


def main():
    if sys.argv[1:2] == ["header"] and len(sys.argv) == 3:
        pages = header_pages((ROOT / "include" / "oxEvent.h").read_text())
        for name, page in pages.items():
            (Path(sys.argv[2]) / "man3" / f"{name}.3").write_text(page)
    elif sys.argv[1:2] == ["page"] and len(sys.argv) == 6:
        _, _, name, section, source, folder = sys.argv
        (Path(folder) / f"man{section}" / f"{name}.{section}").write_text(markdown_page(name, section, Path(source).read_text()))
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
