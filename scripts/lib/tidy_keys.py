#!/usr/bin/env python3
"""Prints a key for each source that scripts/lint.sh gives to clang-tidy:
the SHA-256 of everything its analysis depends on, so that a source whose key
has been analysed clean before needs no new analysis. The key covers the
source's compile command and its preprocessed text with the comments kept
(every header it includes, and the NOLINT comments), both with the top of the
tree written as "." so that two clones share their keys, and the text given
as the first argument (tool versions, the .clang-tidy configuration).

Usage: tidy_keys.py <extra text> <top> <compile database> <jobs> < sources
Prints "<key> <source>" for each source read, one a line; "-" as the key of a
source that could not be preprocessed (it is analysed every time)."""

import concurrent.futures
import hashlib
import json
import shlex
import subprocess
import sys

# Options that name the compiler's outputs, with the argument each takes.
OUTPUT_OPTIONS = {"-o": True, "-MF": True, "-MT": True, "-MQ": True, "-c": False, "-MD": False, "-MMD": False}


def preprocessing_command(entry):
    words = entry["arguments"] if "arguments" in entry else shlex.split(entry["command"])
    command = []
    skip = False
    for word in words:
        if skip:
            skip = False
        elif word in OUTPUT_OPTIONS:
            skip = OUTPUT_OPTIONS[word]
        else:
            command.append(word)
    return command + ["-E", "-C", "-o", "-"]


def key(extra, top, entry):
    command = preprocessing_command(entry)
    result = subprocess.run(command, cwd=entry["directory"], capture_output=True, check=False)
    if result.returncode != 0:
        return "-"
    digest = hashlib.sha256()
    digest.update(extra.encode())
    digest.update(b"\0")
    digest.update(" ".join(command).replace(top, ".").encode())
    digest.update(b"\0")
    digest.update(result.stdout.replace(top.encode(), b"."))
    return digest.hexdigest()


def main():
    extra, top, database, jobs = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
    entries = {entry["file"]: entry for entry in json.load(open(database))}
    sources = [line.strip() for line in sys.stdin if line.strip()]
    with concurrent.futures.ThreadPoolExecutor(max_workers=jobs) as pool:
        keys = pool.map(lambda source: key(extra, top, entries[source]) if source in entries else "-", sources)
        for source, value in zip(sources, keys):
            print(value, source)


if __name__ == "__main__":
    main()
