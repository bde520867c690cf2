#!/usr/bin/python3
"""Generates man pages, in mdoc, from other documents.

man_pages.py header DIRECTORY                     from the headers in include: each entry point, and oxEventRecord(3)
man_pages.py page NAME SECTION FILE.md DIRECTORY  from a Markdown page of headings, paragraphs, code blocks and tables
man_pages.py tool NAME HELP DIRECTORY             from the output of a tool's --help

DIRECTORY contains man1, man3, man5 and man7.
"""
import re
import sys
import textwrap
from pathlib import Path

ROOT = Path(__file__).parent.parent
LIBRARIES = {"oxEvent.h": "oxEvent (-loxEvent)",  # By header.
             "oxEvent/alert_poster.h": "oxEvent alert poster (-loxevent-alertposter)"}
STRUCTS = {"oxEventAlertmanagerFormatterConfig": "The configuration", "oxEventAlertPosterConfig": "The configuration",
           "oxEventAlertPosterState": "The state"}  # Described on the page of the first function that takes one.
SEE_ALSO = {"oxevent-settings": ["oxevent-check 1", "oxEventInitialize 3", "oxEventReloadConfig 3", "oxevent 3"],
            "oxevent-errors": ["oxevent-check 1", "oxEventGetLastError 3", "oxevent 3", "oxevent-settings 5"]}
TOOLS = {"oxevent-send": ("report an event from a shell", """\
: >settings.xml
oxevent-send --severity warning --source-id fan-2 settings.xml 'Fan 2 stands still'
echo '{"message": "Fan 2 stands still", "value": 0, "units": "1/min"}' | oxevent-send settings.xml --json
"""), "oxevent-check": ("find what is wrong with a settings file", """\
oxevent-check settings.xml
oxevent-check --explain queue_size
"""), "oxevent-alarms": ("show the alarm list from a CSV file", """\
oxevent-alarms events.csv
oxevent-alarms --history fan-2:fan.stopped --since 7d events.csv
oxevent-alarms --html alarms.html events.csv
"""), "oxevent-catalogue": ("check a catalogue of event types, and make headers and templates from it", """\
oxevent-catalogue press.ini
oxevent-catalogue --header --output press_events.h press.ini
oxevent-catalogue --journal press.ini >/usr/local/lib/systemd/catalog/press.catalog && journalctl --update-catalog
"""), "oxevent-stat": ("show what the library counts in a running process", """\
oxevent-stat oxevent-watch
oxevent-stat --watch=10 4711
oxevent-stat --listen 9464 oxevent-watch
""")}
CAVEATS = {"oxevent-check": """\
The library may not start with a file in which the tool finds no error, because the tool does not do all that a start
does: for example, it does not notice that the host name of a syslog or SNMP sink cannot be resolved.
It tests whether the file of a CSV sink can be written only if its path is absolute: a relative path depends on the
working directory of the host.

If a section below sink\\native is enabled, the tool connects to the socket /dev/log, without sending anything, to see whether
there is a system log. A missing system log is only a note, because the file may be meant for another machine.
"""}
SHARED_PAGES = {"oxEventUnregisterCallback": "oxEventRegisterCallback",  # Functions, and those whose page they share.
                "oxEventRemoveWindowsEventSource": "oxEventInstallWindowsEventSource"}
# Phrases of the header about all functions, each with those for a page about one function and for a page about two.
ON_PAGE = {"Every function": ("This function", "Both functions"),
           "None lets a": ("It lets no", "Neither lets a"),
           "No function returns": ("It returns no", "Neither returns")}


def escape(text):
    return re.sub(r"^(?=[.'])", r"\\&", text.replace("\\", r"\e"), flags=re.M)


def lines(text):
    """Wraps text to lines of at most 80 characters and starts each sentence on a new line."""
    filled = [line for sentence in re.split(r'(?<=[\w)"`][.:]) +(?=["`(A-Z])|(?<=\w\.) +', " ".join(text.split()))
              for line in textwrap.wrap(re.sub("`([^`]*)`", r"\\fB\1\\fP", sentence.replace("\\", r"\e")), 78,
                                        break_long_words=False, break_on_hyphens=False)]
    return re.sub(r"^(?=[.'])", r"\\&", "\n".join(filled), flags=re.M)


def mark(text, own):
    """Like lines(), but marks up functions, result codes and parameters of the header: "(oxEventFlush)." becomes
    ".Xr ( oxEventFlush 3 ) ." on a line of its own.
    """
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
    return f".Dd November 28, 2026\n.Dt {name.upper()} {section}\n.Os\n.Sh NAME\n{purpose}\n"


def see_also(pages):
    ordered = sorted(pages, key=lambda page: (page.split()[1], page.lower()))
    return ".Sh SEE ALSO\n" + " ,\n".join(f".Xr {page}" for page in ordered) + "\n"


# Pages from Markdown.

def table(rows):
    cells = [[cell.strip().replace("\\|", "|") for cell in re.split(r"(?<!\\)\|", row)[1:-1]] for row in rows]
    titles = cells[0]
    meaning = titles.index("Description") if "Description" in titles else 1
    out = ".Bl -tag -width Ds\n"
    for row in cells[2:]:
        others = [(title, cell) for title, cell in zip(titles, row, strict=True) if title not in (titles[0], titles[meaning])]
        named = "".join(f" {title}: {cell.rstrip('.')}." for title, cell in others if cell)
        term = escape(row[0].strip("`")).replace('"', '""')
        out += f".It Cm \"{term}\"\n{lines(row[meaning] + named)}\n"
    return out + ".El\n"


def markdown_page(name, section, text):
    title, *parts = re.split(r"\n\n(?=\S)", text.strip())
    out = begin(name, section, f".Nm {name}\n.Nd {decapitalized(title.removeprefix('# '))}") + ".Sh DESCRIPTION\n"
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


# Pages from the header.

def comment(text):
    return [" ".join(part.split()) for part in re.sub(r"^ ?\*( |$)", "", text.strip(), flags=re.M).split("\n\n")]


def file_comment(header):
    return " ".join(comment(re.search(r"/\*(.*?)\*/", header, re.S)[1]))


def codes_of(header):
    return dict(re.findall(r"#define (OXEVENT_[A-Z_]+) 0x800\w+u +/\* (.*?)\.? \*/", header))


def errors(paragraph, codes):
    """Returns [(codes, reason)] of a text such as "OXEVENT_A: reason. OXEVENT_B; OXEVENT_C, OXEVENT_D: reason." """
    parts = re.split(r"((?:OXEVENT_[A-Z_]+, )*OXEVENT_[A-Z_]+)([:.;])", paragraph)[1:]
    return [(tuple(names.split(", ")), reason.strip(" ;") if colon == ":" else codes[names] + ".")
            for names, colon, reason in zip(parts[::3], parts[1::3], parts[2::3])]


def prototype(text):
    returned, name, parameters = re.fullmatch(r"(.+?)\b(\w+)\((.*)\)", " ".join(text.split())).groups()
    return f".Ft {returned.strip()}\n.Fn {name} " + " ".join(f'"{part}"' for part in parameters.split(", "))


def header_pages(name):
    """Returns {page: text}, with one page for each function or group of functions of a header, and oxEventRecord."""
    header = (ROOT / "include" / name).read_text()
    codes, entries, errors_of = codes_of((ROOT / "include" / "oxEvent.h").read_text()), {}, {}
    for text, declaration in re.findall(r'/\*((?:(?!\*/).)*)\*/\n(?:extern "C" )?OXEVENT_API ([^;]*);\n', header, re.S):
        function = re.search(r"(\w+)\(", declaration)[1]
        failing = next((part for part in comment(text) if part.startswith("OXEVENT_")), "")
        errors_of[function] = errors(failing, codes)
        entries.setdefault(SHARED_PAGES.get(function, function), []).append((function, comment(text), declaration))
    callback = re.search(r"/\*((?:(?!\*/).)*)\*/\n(typedef void \(\*oxEventCallback\)[^;]*;)", header, re.S)
    pages = {"oxEventRecord": record_page(header)} if callback else {}
    threads, texts = re.search(r"(Every function .*? escape\.).*?(Strings are .*? must free\.)", file_comment(header)).groups()
    for page, functions in entries.items():
        own = [name for name, _, _ in functions]
        described = [description(name if len(own) > 1 else "", body, own) for name, body, _ in functions]
        shown = [prototype(declaration) for _, _, declaration in functions]
        has_texts = any("const char*" in one or "const oxEventRecord*" in one for one in shown)
        if "Callback" in page:
            shown.insert(0, f".Bd -literal\n{callback[2]}\n.Ed\n.Pp")
            described.append(description("", ["The callback " + decapitalized(comment(callback[1])[0])], own))
        described += [f"{title}:\n{fields(header, struct)}" for struct, title in STRUCTS.items() if struct in shown[0]]
        described.append(mark(on_page(threads, own), own) + ("\n" + mark(on_page(texts, own), own) if has_texts else ""))
        out = begin(page, 3, " ,\n".join(f".Nm {name}" for name in own) + f"\n.Nd {purpose(functions)}")
        out += f".Sh LIBRARY\n{LIBRARIES[name]}\n.Sh SYNOPSIS\n.In {name}\n" + "\n".join(shown)
        out += "\n.Sh DESCRIPTION\n" + "\n.Pp\n".join(described) + "\n" + return_values([f for name in own for f in errors_of[name]], own)
        others = {"oxevent 3", "oxevent-errors 7"} | {f"{one} 3" for one in re.findall(r"\.Xr (\w+) 3", out)}
        others |= {"oxEventRecord 3"} if "oxEventRecord" in out else set()
        pages[page] = out + see_also(others)
        pages |= {other: f".so man3/{page}.3\n" for other in own[1:]}
    return pages


def on_page(text, own):
    for general, special in ON_PAGE.items():
        text = text.replace(general, special[len(own) - 1])
    return text


def purpose(functions):
    """Returns the beginning of the first comment. Functions that share a page do different things to the same object."""
    verbs, objects = zip(*(re.split(r"[.:;(]|, [a-z]+ (?!the)", body[0])[0].strip().split(" ", 1) for _, body, _ in functions))
    return f"{' or '.join(map(decapitalized, verbs))} {objects[0]}"


def decapitalized(text):
    return text[0].lower() + text[1:]


def capitalized(text):
    """Capitalizes the first word, unless it is the name of a parameter, as in "config_path null or empty"."""
    is_parameter = re.match(r"[a-z]+_[a-z_]+|\w+ (or \w+ )?null", text)
    return text if is_parameter else text[0].upper() + text[1:]


def description(name, body, own):
    """Returns the paragraphs without the errors, starting with the function's name if one is given."""
    parts = [part for part in body if not part.startswith("OXEVENT_")]
    if name:
        parts[0] = decapitalized(parts[0])
    return (f".Fn {name}\n" if name else "") + "\n.Pp\n".join(mark(part, own) for part in parts)


def return_values(failures, own):
    if not failures:
        return ".Sh RETURN VALUES\n" + mark("OXEVENT_API_VERSION.", own) + "\n"
    # The comment of a function that does not set the last error says so.
    sets_last_error = not any("last error" in reason for _, reason in failures)
    out = ".Sh RETURN VALUES\n" + mark("OXEVENT_OK, or one of the result codes below"
                                       + ("; oxEventGetLastError then gives the reason." if sets_last_error else "."), own)
    out += "\n.Sh ERRORS\n.Bl -tag -width Ds\n"
    for names, reason in dict.fromkeys(failures):
        out += f".It {' , '.join(f'Dv {one}' for one in names)}\n{mark(capitalized(reason), own)}\n"
    return out + ".El\n"


def fields(header, struct):
    out = ".Bl -tag -width Ds\n"
    within = re.search(rf"struct {struct} \{{\n(.*?)\n\}}", header, re.S)[1]
    for kind, name, default, meaning in re.findall(r"^  ([\w: ]+\*?) (\w+)( = .*?)?; */\* (.*?) \*/", within, re.M | re.S):
        out += f".It Vt {kind} Va {name}{default}\n{mark(meaning, ())}\n".replace('"OxEvent"\n', '\\(dqOxEvent\\(dq\n', 1)
    return out + ".El"


def severities(header):
    out = mark(re.search(r"/\* (Severities: .*?) \*/", header)[1], ()) + "\n.Bl -tag -width Ds\n"
    for name, value, meaning in re.findall(r"#define (OXEVENT_SEVERITY_\w+) (\d)u +/\* (.*?) \*/", header):
        out += f".It Dv {name} Pq {value}\n{meaning}\n"
    return out + ".El\n"


def record_page(header):
    text = re.search(r"/\*((?:(?!\*/).)*)\*/\ntypedef struct oxEventRecord \{", header, re.S)[1]
    out = begin("oxEventRecord", 3, ".Nm oxEventRecord\n.Nd one event")
    out += ".Sh SYNOPSIS\n.In oxEvent.h\n.Vt oxEventRecord\n.Sh DESCRIPTION\n"
    out += "\n.Pp\n".join(mark(part, ()) for part in comment(text)) + "\n.Pp\nThe fields, in order:\n"
    out += fields(header, "oxEventRecord") + "\n.Pp\n" + severities(header)
    return out + see_also(["oxevent 3", "oxEventSubmit 3", "oxEventRegisterCallback 3"])


# Pages from a tool's --help.

def tool_page(name, text):
    purpose, example = TOOLS[name]
    out = begin(name, 1, f".Nm {name}\n.Nd {purpose}") + ".Sh SYNOPSIS\n"
    usage = re.findall(rf"^(?:Usage:)? +{name} (.*)\n", text, re.M)
    for words in usage:
        out += ".Nm\n"
        for word in words.split():
            macro = "Fl " + word[1:] if word.startswith("-") else "Ar " + word.strip("[]").replace("]", " ")
            out += f".{'Op ' if '[' in word else ''}{macro}\n"
    out += ".Sh DESCRIPTION\n"
    rest = text[text.rindex(f" {name} {usage[-1]}\n") + len(f" {name} {usage[-1]}\n"):]
    text, status = re.split("Exit status: ?", rest)
    for part in re.split(r"\n{2,}", text.strip("\n")):
        heading, _, options = part.rpartition(":\n") if re.match(r"[\w ]+:\n  --", part) else ("", "", part)
        out += f".Ss {heading}\n" if heading else ""
        if options.startswith("  --"):
            out += ".Bl -tag -width Ds\n"
            for option, value, meaning in re.findall(r"^  --(\S+)(?: (\S+))? +(.*(?:\n {10,}.*)*)", options, re.M):
                out += f".It Fl -{option}{' Ar ' + value if value else ''}\n{lines(meaning)}\n"
            out += ".El\n"
        else:
            for literal, text_lines in re.findall(r"((?:^  .*\n?)+)|((?:^\S.*\n?)+)", part, re.M):
                out += f".Bd -literal -offset indent\n{escape(literal).rstrip()}\n.Ed\n" if literal else (
                    ("" if out.rsplit("\n", 2)[1].startswith((".Sh", ".Ss")) else ".Pp\n") + lines(text_lines) + "\n")
    out += ".Sh EXIT STATUS\n.Bl -tag -width Ds\n"
    for code, meaning in re.findall(r"(\d) +(.*?)(?=,? +\d |$)", " ".join(status.split())):
        out += f".It {code}\n{lines(meaning[0].upper() + meaning[1:].rstrip('.'))}.\n"
    out += f".El\n.Sh EXAMPLES\n.Bd -literal\n{escape(example)}.Ed\n"
    out += see_also({"oxevent 3", "oxevent-settings 5", "oxevent-errors 7"} | {f"{one} 1" for one in TOOLS if one != name})
    if name in CAVEATS:
        out += ".Sh CAVEATS\n" + "\n.Pp\n".join(lines(part) for part in CAVEATS[name].split("\n\n")) + "\n"
    return out


def main():
    if sys.argv[1:2] == ["header"] and len(sys.argv) == 3:
        for header in LIBRARIES:
            for name, page in header_pages(header).items():
                (Path(sys.argv[2]) / "man3" / f"{name}.3").write_text(page)
    elif sys.argv[1:2] == ["page"] and len(sys.argv) == 6:
        _, _, name, section, source, directory = sys.argv
        (Path(directory) / f"man{section}" / f"{name}.{section}").write_text(markdown_page(name, section, Path(source).read_text()))
    elif sys.argv[1:2] == ["tool"] and len(sys.argv) == 5:
        _, _, name, text, directory = sys.argv
        (Path(directory) / "man1" / f"{name}.1").write_text(tool_page(name, text))
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
