"""The CSV file and its rotated files."""
import bz2
import gzip
import io
import lzma
import os
import re
import sys
import time
import zlib

from .rows import InputError, RowReader

OPENERS = {"": lambda raw: raw, ".gz": lambda raw: gzip.GzipFile(fileobj=raw), ".bz2": bz2.BZ2File,
           ".xz": lzma.LZMAFile}
DAMAGED = (OSError, EOFError, zlib.error, lzma.LZMAError)
ROTATED = re.compile(r"(?:\.(?P<number>\d+)|-(?P<date>\d[\d-]{5,}))(?P<suffix>\.[a-z0-9]+)?")
ATTEMPTS = 20
POLL_S = 0.25
ROWS_PER_REPORT = 4096


def rotated_files(path, warn):
    """Returns the names of the rotated files, oldest first. Of a file that is being compressed, returns the name of the
    uncompressed version, which is complete."""
    directory, base = os.path.split(path)
    found = {}
    for name in sorted(os.listdir(directory or ".")):
        match = ROTATED.fullmatch(name[len(base):]) if name.startswith(base) else None
        if not match:
            continue
        if (match["suffix"] or "") not in OPENERS:
            warn(f"{os.path.join(directory, name)}: not read: the compression is unknown")
            continue
        order = (1, -int(match["number"])) if match["number"] else (0, match["date"])
        found.setdefault(order, name)  # The name without a suffix sorts before the others.
    return [os.path.join(directory, found[order]) for order in sorted(found)]


def identities(paths):
    """Returns pairs of path and inode, which a rotation changes."""
    return [(path, os.stat(path).st_ino) for path in paths]


class History:
    """The open files, oldest first. The last one is the file itself, which may be missing during a rotation."""

    def __init__(self, path, rotated=True, report_skipped=None, warn=lambda text: None, progress=None):
        self.path = path
        self.report_skipped = report_skipped
        self.warn = warn
        self.progress = progress
        self.readers = []  # Of the last two files, while they are followed.
        self.raw = self.open_all(rotated)
        self.total = sum(os.fstat(raw.fileno()).st_size for raw in self.raw) or 1

    def open_all(self, rotated):
        """Opens the files, and tries again if they were rotated meanwhile: a file might be missing, or open twice."""
        for _ in range(ATTEMPTS):
            paths = (rotated_files(self.path, self.warn) if rotated else []) + [self.path] * os.path.exists(self.path)
            try:
                before = identities(paths)
                raw = [open(path, "rb") for path in paths]
                if before == identities(paths) == [(file.name, os.fstat(file.fileno()).st_ino) for file in raw]:
                    break
            except FileNotFoundError:
                continue
        else:
            raise InputError(f"{self.path}: rotated during each of {ATTEMPTS} attempts to open the files")
        if not raw:
            raise InputError(f"{self.path}: there is no such file")
        return raw

    def rows(self):
        done = 0
        for raw in self.raw:
            opener = OPENERS.get(os.path.splitext(raw.name)[1], OPENERS[""])
            file = opener(raw)
            reader = RowReader(file if file is raw else io.BufferedReader(file, 1 << 16), raw.name, self.report_skipped)
            try:
                for count, row in enumerate(reader.rows()):
                    if self.progress and count % ROWS_PER_REPORT == 0:
                        self.progress(f"reading {raw.name}", (done + raw.tell()) / self.total)
                    yield row
            except DAMAGED as error:
                raise InputError(f"{raw.name}:{reader.line + 1}: {error}") from error
            done += os.fstat(raw.fileno()).st_size
            self.readers = [reader]

    def follow(self):
        """Yields rows as they are appended, and never ends. A rotation renames the file. The host writes to the renamed
        file until the host has created the new one, and once more after that, so the renamed file is read until the
        next rotation."""
        while True:
            for reader in self.readers:
                yield from reader.rows()
            self.readers = self.readers[-2:]
            if not self.open_next():
                sys.stdout.flush()
                time.sleep(POLL_S)

    def open_next(self):
        """Opens the new file after a rotation, or returns to the start of a truncated file. Returns whether it did
        either."""
        reader = self.readers[-1]
        own = os.fstat(reader.file.fileno())
        try:
            status = os.stat(self.path)
            if (status.st_dev, status.st_ino) != (own.st_dev, own.st_ino):
                self.readers.append(RowReader(open(self.path, "rb"), self.path, self.report_skipped))
                return True
        except FileNotFoundError:
            return False
        if status.st_size >= reader.file.tell():
            return False
        reader.file.seek(0)
        reader.restart()
        return True
