#!/usr/bin/env python3
"""Compares the includes of the sources with the table of folders in docs/architecture.md, in both directions.

Usage: check_folders.py ROOT

A row of the table is a folder, what it holds, the headers that other folders may include, and the folders that it
uses, whose rows are below its own. `libkv/include` stands for the library as whoever is outside it sees it.
"""
import pathlib
import re
import sys

OUTSIDE = "libkv/include"
SHARED = {"brevane": "brevane", "kvsim": "simulator", "command_line": "tools/command_line"}  # by how includes begin
root = pathlib.Path(sys.argv[1])
table = root / "docs" / "architecture.md"

rows = []  # (line number, folder, offered headers, used folders)
for number, line in enumerate(table.read_text().splitlines(), 1):
    cells = line.split("|")
    if len(cells) == 6 and re.fullmatch(r" `[\w/]+` ", cells[1]):
        rows.append((number, cells[1].strip(" `"), *(set(re.findall(r"`([^`]+)`", cell)) for cell in cells[3:5])))
folders = [folder for _, folder, _, _ in rows]
offered = {folder: headers for _, folder, headers, _ in rows}
owners = {header[1:-1]: folder for folder, headers in offered.items() for header in headers if header[0] == "<"}


def owner_of(header, folder):
    """The folder that a header belongs to, as the including folder knows it; None for what is not ours."""
    first = header.split("/")[0]
    if first == "kv":
        return owners.get(header) if folder.startswith("libkv/") else OUTSIDE
    if first in SHARED:
        return SHARED[first]
    return f"libkv/{first}" if (root / "libkv" / header).is_file() else None


def includes(folder):
    """Yields (place, is quoted, header) of each include, those of the folder's exported headers among them."""
    files = [file for file in sorted((root / folder).rglob("*")) if file.suffix in (".c", ".cpp", ".h")]
    files += [root / OUTSIDE / header for header, owner in owners.items() if owner == folder]
    for file in files if folder != OUTSIDE else []:
        for number, line in enumerate(file.read_text().splitlines(), 1):
            if match := re.match(r'\s*#\s*include\s+(["<])([\w/.]+)[">]', line):
                yield f"{file.relative_to(root)}:{number}", match[1] == '"', match[2]


faults = [f"{header}: no folder offers it" for header in
          {f"kv/{file.name}" for file in (root / OUTSIDE / "kv").iterdir()} - owners.keys() - {"kv/export.h"}]
for row, (number, folder, _, uses) in enumerate(rows):
    found = set()
    for place, is_quoted, header in includes(folder):
        owner = owner_of(header, folder)
        if owner is None or owner == folder:
            continue
        found.add(owner)
        if owner not in uses:
            faults.append(f"{place}: {folder} may not use {owner} ({header})")
        elif is_quoted and not offered[owner] & {header.split("/")[-1], "*.h"}:
            faults.append(f"{place}: {header} is internal to {owner}")
    faults += [f"{table}:{number}: {folder} does not use {used}" for used in sorted(uses - found)]
    faults += [f"{table}:{number}: {used} is not below {folder}" for used in sorted(uses - set(folders[row + 1:]))]

print("\n".join(faults) or f"{len(rows)} folders keep to the table")
sys.exit(bool(faults) or not rows)
