#!/usr/bin/python3
"""Usage: oxevent-catalogue [OPTION]... FILE

Checks a catalogue, a file that describes the types of events that a program reports, and shows all
errors in the catalogue. With one of the first five options, prints a file generated from it:

  --header                  print a header for C and C++: constants for the
                            name, the severity and the MESSAGE_ID of each
                            type, and a callback for tests that finds events
                            whose type is not in the catalogue
  --python                  print a Python module with the same content
  --markdown                print a table for a document
  --alertmanager            print notification templates for the Alertmanager
  --journal                 print a message catalog for the systemd journal
  --output OUTPUT           write to the file OUTPUT instead of standard output,
                            unless the catalogue has errors
  --help                    print this help and exit
  --version                 print the version and exit

FILE has a section [catalogue], in which the key name gives the prefix of all constants and
templates, and a section for each type:
  [catalogue]
  name = press

  [pressure.low]
  severity = error
  meaning = The hydraulic pressure is below its limit.
  action = Stop the press, and look for a leak.
  runbook = https://runbooks.example/pressure-low

The severity is debug, info, warning or error. The runbook is optional. A text continues on the lines
that are indented more than its key; its line breaks are kept. A line whose first character other
than a blank is # or ; is a comment, even between the lines of a text.

Each error is reported in a line of this form; TYPE is missing if the error belongs to no type:
  FILE:LINE: error: TYPE: TEXT

The tool reads no settings file and no events, and installs nothing. It does not change what the
library does: the library does not know the catalogue, and delivers events of any type.

Exit status: 0 no errors, 1 errors in the catalogue, or a file could not be read or written, 2 an
invalid command line.
"""
import getopt
import json
import re
import string
import sys
import uuid

VERSION = "@PROJECT_VERSION@"
SEVERITIES = ("debug", "info", "warning", "error")
HEAD_KEYS = ("name",)
REQUIRED_KEYS = ("severity", "meaning", "action")
TYPE_KEYS = (*REQUIRED_KEYS, "runbook")
# Control characters, and characters that change the lines or the direction of the text around them.
CONTROL = re.compile("[\0-\x08\x0b-\x1f\x7f-\x9f\u2028-\u202e\u2066-\u2069]")
URL = re.compile(r"https?://[\w.~:/?#\[\]@!$&'()*+,;=%-]+", re.ASCII)  # The characters of RFC 3986.
NAMESPACE = uuid.UUID("3a5dfe31-6577-416b-9a1d-945c90f97d7e")  # Never change it: every MESSAGE_ID would change.
WORD_JOINER = "\u2060"


class Section:
    """One section of the file. `texts` has the lines of each key's text, `lines` the number of the first of them."""

    def __init__(self, title, line):
        self.title, self.line = title, line
        self.is_type = title != "catalogue"
        self.keys = TYPE_KEYS if self.is_type else HEAD_KEYS
        self.texts, self.lines = {}, {}

    def __getitem__(self, key):
        return "\n".join(self.texts.get(key, ())).strip()

    def line_of(self, key):
        return self.lines.get(key, self.line)

    def constants(self):
        """Returns the names of the type's constants, without the name of the catalogue."""
        upper = re.sub("[a-z]", lambda letter: letter[0].upper(), self.title)  # upper() would make SS from a sharp s.
        name = re.sub("[^A-Z0-9]+", "_", upper).strip("_")
        return (name, f"{name}_SEVERITY", f"{name}_MESSAGE_ID") if name else ()

    def label(self):
        """Returns the label event_type that the library gives to an alert of this type."""
        return re.sub("[^A-Za-z0-9_.:-]+", "_", self.title).lower().rstrip("_").removeprefix("_")


class Catalogue:
    """A catalogue and its errors. Each error is a tuple of its line, its type (or "") and its text."""

    def __init__(self, data):
        self.errors, self.sections = [], {}
        self.repeated = []  # Sections whose title an earlier section has: checked, but not used.
        self.read(self.decode(data))
        self.types = [self.sections[title] for title in sorted(self.sections) if self.sections[title].is_type]
        self.check_head()
        for section in self.types + [section for section in self.repeated if section.is_type]:
            self.check_type(section)
        self.check_constants()
        self.errors.sort()

    def fail(self, line, text, section=None):
        self.errors.append((line, section.title if section and section.is_type else "", text))

    def decode(self, data):
        lines = []
        for number, line in enumerate(data.removeprefix(b"\xef\xbb\xbf").splitlines(), 1):
            lines.append(line.decode(errors="replace"))
            control = CONTROL.search(lines[-1])
            if lines[-1].encode() != line:
                self.fail(number, "the line is not UTF-8")
            elif control:
                self.fail(number, f"the line contains the control character U+{ord(control[0]):04X}")
        return lines

    def read(self, lines):
        """Reads what Python's configparser would read, but continues after an error, and keeps the line numbers."""
        section, texts, indent = None, None, 0
        for number, line in enumerate(lines, 1):
            text = line.strip()
            depth = len(line) - len(line.lstrip())
            if text.startswith(("#", ";")):
                continue
            if texts and (depth > indent or not text):
                texts.append(text)
            elif text.startswith("["):
                section, texts = self.add_section(text, number), None
            elif text:
                texts, indent = self.add_key(section, text, number), depth

    def add_section(self, text, line):
        section = Section(text[1:].removesuffix("]"), line)
        if not text.endswith("]") or section.title.strip() != section.title or not section.title:
            self.fail(line, "the line must be a type in brackets, without blanks around the type")
        elif section.title in self.sections:
            self.fail(line, f"the section is already on line {self.sections[section.title].line}", section)
            self.repeated.append(section)
        else:
            self.sections[section.title] = section
        return section

    def add_key(self, section, text, line):
        key, equals, value = (part.strip() for part in text.partition("="))
        texts = [value]
        if section is None:
            self.fail(line, "the line is not in a section")
        elif not equals:
            self.fail(line, "the line must be KEY = TEXT; a line that continues a text must be indented", section)
        elif key not in section.keys:
            self.fail(line, f"unknown key '{key}'; allowed keys: {', '.join(section.keys)}", section)
        elif key in section.lines:
            self.fail(line, f"the key {key} is already on line {section.lines[key]}", section)
        else:
            section.texts[key], section.lines[key] = texts, line
        return texts

    def check_head(self):
        head = self.sections.get("catalogue", Section("catalogue", 1))
        self.name = head["name"]
        for section in (head, *(section for section in self.repeated if not section.is_type)):
            if not re.fullmatch("[a-z][a-z0-9]*", section["name"]) or section["name"] == "oxevent":
                self.fail(section.line_of("name"), "the section [catalogue] must have a name of lower-case ASCII "
                          "letters and digits, which begins with a letter and is not oxevent")
        if not self.types:
            self.fail(head.line, "the catalogue has no type")

    def check_type(self, section):
        for key in REQUIRED_KEYS:
            if not section[key]:
                self.fail(section.line_of(key), f"the type has no {key}", section)
        if section["severity"] not in ("", *SEVERITIES):
            self.fail(section.line_of("severity"),
                      f"the severity must be one of {', '.join(SEVERITIES)}, not '{section['severity']}'", section)
        if "runbook" in section.texts and not URL.fullmatch(section["runbook"]):
            self.fail(section.line_of("runbook"), "the runbook must be an http or https URL", section)
        if not section.constants():
            self.fail(section.line, "the type has no ASCII letter or digit for the name of its constant", section)

    def check_constants(self):
        """Reports each type with a constant of an earlier type. Types without a common constant have different labels
        in the Alertmanager too."""
        owners = {}
        for section in sorted(self.types, key=lambda section: section.line):
            taken = next((name for name in section.constants() if name in owners), None)
            if taken:
                self.fail(section.line, f"the constant {taken} belongs to the type on line {owners[taken]}", section)
            owners = dict.fromkeys(section.constants(), section.line) | owners

    def message_id(self, section):
        return uuid.uuid5(NAMESPACE, f"{self.name}:{section.title}").hex

    def fill(self, template, **texts):
        return string.Template(template).substitute(texts, name=self.name, NAME=self.name.upper())


HEADER = """\
/* Event types of the catalogue $name. Generated by oxevent-catalogue: edit the catalogue instead. */
#ifndef ${NAME}_CATALOGUE_H_
#define ${NAME}_CATALOGUE_H_

#include <oxEvent.h>
#include <string.h>
$constants
/* Returns the MESSAGE_ID of an event type, or null if the catalogue does not have the type. */
static inline const char* ${name}MessageId(const char* event_type) {
  static const char* const types[][2] = {
      /* Sorted in the order of strcmp. */
$types  };
  size_t first = 0;
  size_t end = sizeof(types) / sizeof(types[0]);
  while (first < end) {
    const size_t middle = first + (end - first) / 2;
    const int order = strcmp(types[middle][0], event_type);
    if (order == 0) return types[middle][1];
    if (order < 0) {
      first = middle + 1;
    } else {
      end = middle;
    }
  }
  return NULL;
}

/* Returns 1 if the catalogue has the event type, otherwise 0. */
static inline int ${name}Knows(const char* event_type) { return ${name}MessageId(event_type) != NULL; }

/* Counts events whose type the catalogue does not have. Set it to zero first. */
typedef struct ${name}Unknown {
  unsigned long count;
  char first[128]; /* The first such type, truncated to 127 bytes. */
} ${name}Unknown;

/*
 * A callback for tests. user_data points to a ${name}Unknown; read that after oxEventFlush or oxEventShutdown has
 * succeeded:
 *   oxEventRegisterCallback(${name}Check, &unknown, &id)
 */
static inline void ${name}Check(const oxEventRecord* event, void* user_data) {
  ${name}Unknown* unknown;
  memcpy(&unknown, &user_data, sizeof(unknown)); /* Without a cast, about which a C++ compiler may warn. */
  if (${name}Knows(event->event_type)) return;
  if (unknown->count++ == 0) strncpy(unknown->first, event->event_type, sizeof(unknown->first) - 1);
}

#endif
"""

CONSTANTS = """
$comment
#define ${NAME}_$type $string
#define ${NAME}_$severity OXEVENT_SEVERITY_$value
#define ${NAME}_$message_id "$id"
"""


def c_string(text):
    # An octal escape ends after three digits, so that a digit may follow it. A question mark may begin a trigraph.
    return '"' + re.sub(rb'[^ -~]|["\\?]', lambda byte: b"\\%03o" % ord(byte[0]), text.encode()).decode() + '"'


def c_comment(text):
    return "/* " + re.sub(r"\*(?=/)|/(?=\*)", r"\g<0> ", " ".join(text.split())) + " */"


def header(catalogue):
    constants, types = "", ""
    for section in catalogue.types:
        name, severity, message_id = section.constants()
        constants += catalogue.fill(
            CONSTANTS, comment=c_comment(f"{section.title}: {section['meaning']}"), type=name, severity=severity,
            message_id=message_id, string=c_string(section.title), value=section["severity"].upper(),
            id=catalogue.message_id(section))
        types += catalogue.fill("      {${NAME}_$type, ${NAME}_$message_id},\n", type=name, message_id=message_id)
    return catalogue.fill(HEADER, constants=constants, types=types)


PYTHON = '''\
"""Event types of the catalogue $name. Generated by oxevent-catalogue: edit the catalogue instead."""
from oxevent import Severity
$constants
message_ids = {  # MESSAGE_ID of each event type.
$types}


def check(event):
    """A callback for tests: makes the next flush or shutdown fail after an event whose type is not in the catalogue."""
    if event.event_type not in message_ids:
        raise LookupError(f"the catalogue $name does not have the event type {event.event_type!r}")
'''


def python(catalogue):
    constants, types = "", ""
    for section in catalogue.types:
        values = (repr(section.title), f"Severity.{section['severity'].upper()}", repr(catalogue.message_id(section)))
        names = [f"{catalogue.name.upper()}_{name}" for name in section.constants()]
        constants += "\n" + "".join(f"{name} = {value}\n" for name, value in zip(names, values))
        types += f"    {names[0]}: {names[2]},\n"
    return catalogue.fill(PYTHON, constants=constants, types=types)


def markdown_text(text):
    return re.sub(r"[\\`*_{}\[\]<>|~&$]", r"\\\g<0>", text).replace("\n", "<br>")


def markdown(catalogue):
    out = "| Type | Severity | Meaning | Action | Runbook |\n|---|---|---|---|---|\n"
    for section in catalogue.types:
        url = re.sub("[()&]", r"\\\g<0>", section["runbook"])
        texts = (section.title, section["severity"], section["meaning"], section["action"])
        cells = (*map(markdown_text, texts), f"[runbook]({url})" if url else "")
        out += f"| {' | '.join(cells)} |\n"
    return out


ALERTMANAGER = """\
{{/* Templates for events of the catalogue $name. Generated by oxevent-catalogue: edit the catalogue instead. */}}

{{/* For one alert. Empty if the catalogue does not have its type, or not this text for it. */}}
$pieces{{ define "$name.details" }}$details
{{- end }}

{{/* For all alerts of a notification. */}}
{{ define "$name.text" }}{{ range .Alerts }}{{ .Annotations.summary }} ({{ .Status }}){{ template "$name.details" . }}
{{ end }}{{ end }}
"""


def go_string(text):
    return json.dumps(text, ensure_ascii=False)  # By default, dumps writes escaped surrogates, which Go refuses.


def if_type_is(types, text):
    labels = " ".join(go_string(section.label()) for section in types)
    return f"\n{{{{- if eq .Labels.event_type {labels} }}}}{text}{{{{ end }}}}" if types else ""


def alertmanager(catalogue):
    pieces, details = "", ""
    for key in ("meaning", "action", "runbook"):
        types = [section for section in catalogue.types if section[key]]
        name = f'"{catalogue.name}.{key}"'
        texts = [if_type_is([section], f"{{{{ {go_string(section[key])} }}}}") for section in types]
        pieces += f"{{{{ define {name} }}}}{''.join(texts)}\n{{{{- end }}}}\n"
        details += if_type_is(types, f"\n{key.capitalize()}: {{{{ template {name} . }}}}")
    return catalogue.fill(ALERTMANAGER, pieces=pieces, details=details)


def journal_text(text):
    """Keeps journalctl -x, which has no escape, from taking capital letters between two @ for the name of a field."""
    return re.sub("@(?=[A-Z_]+@)", "@" + WORD_JOINER, text)


def journal(catalogue):
    out = catalogue.fill("# Message catalog of $name. Generated by oxevent-catalogue: edit the catalogue instead.\n")
    for section in catalogue.types:
        out += f"\n-- {catalogue.message_id(section)}\nSubject: {section.title}\nDefined-By: {catalogue.name}\n"
        out += f"Documentation: {section['runbook']}\n" if section["runbook"] else ""
        # An indented line cannot be a comment or begin an entry.
        out += re.sub("^(?=.)", "  ", f"\n{section['meaning']}\n\nAction: {section['action']}\n", flags=re.MULTILINE)
    return journal_text(out)


OUTPUTS = {"header": header, "python": python, "markdown": markdown, "alertmanager": alertmanager, "journal": journal}


def show(text, path=1):
    # Not print: the output is UTF-8 in every locale, and a failed write must not be repeated at exit.
    with open(path, "wb", closefd=path != 1) as out:
        out.write(text.encode())
    return 0


def show_error(text):
    printable = CONTROL.sub(lambda control: f"\\u{ord(control[0]):04x}", text.replace("\n", "\\n"))
    print(printable.encode(errors="backslashreplace").decode(), file=sys.stderr)


def make(path, output, output_path):
    with open(path, "rb") as file:
        catalogue = Catalogue(file.read())
    for line, title, text in catalogue.errors:
        show_error(f"{path}:{line}: error: {f'{title}: ' if title else ''}{text}")
    if catalogue.errors:
        return 1
    return show(output(catalogue), output_path) if output else 0


def run(arguments):
    options, paths = getopt.gnu_getopt(arguments, "", [*OUTPUTS, "output=", "help", "version"])
    names = [name.removeprefix("--") for name, _ in options]
    outputs = [OUTPUTS[name] for name in names if name in OUTPUTS]
    if "help" in names:
        return show(__doc__)
    if "version" in names:
        return show(f"oxevent-catalogue {VERSION}\n")
    if len(paths) != 1 or len(outputs) > 1:
        raise getopt.GetoptError("give one FILE, and at most one kind of output")
    return make(paths[0], *(outputs or [None]), dict(options).get("--output", 1))


def main():
    try:
        return run(sys.argv[1:])
    except getopt.GetoptError as error:
        show_error(f"oxevent-catalogue: {error}; see oxevent-catalogue --help")
        return 2
    except OSError as error:
        show_error(f"oxevent-catalogue: {error.filename or 'standard output'}: {error.strerror}")
        return 1


if __name__ == "__main__":
    sys.exit(main())
