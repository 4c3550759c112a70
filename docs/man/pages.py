#!/usr/bin/env python3
"""Writes the manual pages of section 3 from the public headers, whose comments are the one description of
each function, and packs all pages as systems install them:
pages.py <folder of the headers> <folder> <pages of other sections>...
makes folder/man3/ and folder/packed/man<section>/."""

import gzip
import pathlib
import re
import sys

DATE = "November 25, 2026"

# Page, its header, one line, and the functions on it where the header has those of several pages.
PAGES = [
    ("k42MC_malloc", "alloc.h", "allocate and release guarded blocks", None),
    ("MCInit", "memcheck.h", "record live blocks and report those that survive",
     r"MC(Lock|Unlock|Init|Deinit|Report|Alloc|Free)$"),
    ("MCCheck", "memcheck.h", "ask for one block, write debug messages", r"MC(Check|DebugMsg)$"),
    ("MCBTFilterIn", "memcheck.h", "choose the sites that get stack traces", r"MCBTFilter\w+$"),
    ("k42mc_guard_alloc", "guard.h", "lay guards around memory and check them", None),
    ("FDOpen", "fdcheck.h", "keep histories of descriptors", None),
    ("k42mcx", "extra.h", "additions: verification, JSON, descriptors, libc's allocating functions", None),
    ("DS", "ds.h", "conventions of the containers", None),
    ("SL", "sl.h", "singly-linked list", None),
    ("DL", "dl.h", "doubly-linked list", None),
    ("HT", "ht.h", "hash table", None),
    ("AVL", "avl.h", "balanced tree in an order of the caller's", None),
    ("PT", "pt.h", "Patricia tree", None),
    ("PX", "px.h", "prefix table with longest-match search", None),
    ("BH", "bh.h", "binary heap", None),
]

PROTOTYPE = re.compile(r"^(?P<type>[\w\s*]*?[\s*])(?P<name>\w+)\((?P<arguments>.*)\);$")


class Item:
    """A comment of a header and the declarations below it."""

    def __init__(self, comment, code):
        self.comment = comment
        self.functions = [match for match in map(PROTOTYPE.match, declarations(code)) if match]
        self.code = [] if self.functions else code

    def names(self):
        return [function["name"] for function in self.functions]


def declarations(code):
    """The declarations in some lines, each as one line, without attributes."""
    text = re.sub(r"\bK42MC_\w+(\([^()]*\))?", "", " ".join(code))
    text = re.sub(r"__attribute__\(\(\w+\)\)", "", text)
    for declaration in re.findall(r"[^;{}]*;", text):
        yield re.sub(r"\s*;$", ";", re.sub(r"\s+", " ", declaration).strip())


def comment_lines(lines):
    text = "\n".join(lines)
    text = re.sub(r"^/\* ?|\s*\*/$", "", text)
    return [re.sub(r"^ \* ?", "", line).rstrip() for line in text.split("\n")]


def items_of(path):
    """The header's first comment, and what stands between the guards, as pairs of comment and code."""
    lines = path.read_text().split("\n")
    items, comment, code, at = [], [], [], 0
    while at < len(lines):
        line = lines[at]
        if line.startswith("/*"):
            end = at
            while "*/" not in lines[end]:
                end += 1
            if comment or code:
                items.append(Item(comment, code))
            comment, code = comment_lines(lines[at:end + 1]), []
            at = end
        elif line and not line.startswith(("#ifndef K42MC_", "#endif", "#include", "K42MC_")) or \
                line.startswith("K42MC_DATA"):
            if not re.match(r"#define K42MC_\w+_H$", line):
                code.append(line.replace("K42MC_DATA", "extern"))
        elif not line and code:
            items.append(Item(comment, code))
            comment, code = [], []
        at += 1
    if comment or code:
        items.append(Item(comment, code))
    return items


def escaped(text):
    text = text.replace("\\", "\\e")
    return "\\&" + text if text.startswith((".", "'")) else text


def sentences(text):
    """Each on a line of its own, as the formatter wants them."""
    return [escaped(part) for part in re.split(r"(?<=[.!?]) (?=\S)", text.strip())]


def quoted(text):
    return '"' + text.replace("\\", "\\e").replace('"', "\\(dq") + '"'


def is_table(line):
    return len(re.split(r"\s{2,}", line.strip())) >= 4


TERM = re.compile(r"^ {2}(\S.*?) {2,}(\S.*)$")
BULLET = re.compile(r"^ *- (.*)$")


def indented(lines):
    """How many of the first lines are indented."""
    return next((i for i, line in enumerate(lines) if not line.startswith("  ")), len(lines))


def table(lines):
    return [".Bd -literal -offset indent", *(escaped(line[2:]) for line in lines), ".Ed"]


def entries(lines, entry, kind):
    """A list of which each entry begins with a line that matches."""
    out = [f".Bl -{kind}"]
    for line in lines:
        match = entry.match(line)
        if match:
            out.append(".It " + quoted(match[1]) if match.lastindex == 2 else ".It")
        out += sentences(match[match.lastindex] if match else line)
    return out + [".El"]


def text_of(lines):
    """Running text, lists of terms, bullets and tables, as the comments indent them."""
    out, begins_paragraph = [], False
    while lines:
        count = indented(lines)
        if not lines[0]:
            begins_paragraph = bool(out)
            count = 1
        elif count and is_table(lines[0]):
            out += table(lines[:count])
        elif TERM.match(lines[0]):
            out += entries(lines[:count], TERM, "tag -width Ds")
        elif BULLET.match(lines[0]):
            count = max(count, 1)
            out += entries(lines[:count], BULLET, "bullet")
        else:
            count = 1
            out += [".Pp"] * begins_paragraph + sentences(lines[0])
        if lines[0]:
            begins_paragraph = False
        lines = lines[count:]
    return out


def arguments_of(function):
    return [] if function["arguments"] == "void" else re.split(r", ", function["arguments"])


def prototype(function):
    yield ".Ft " + quoted(function["type"].strip())
    yield ".Fo " + function["name"]
    for argument in arguments_of(function) or ["void"]:
        yield ".Fa " + quoted(argument)
    yield ".Fc"


def described(item):
    """What one item says, under the names of its functions."""
    title = re.match(r"^---- (.*?) ----", item.comment[0]) if item.comment else None
    body = text_of(item.comment[1:] if title else item.comment)
    if title:
        yield ".Ss " + escaped(title[1])
    if item.functions and not title:
        yield ".Bl -tag -width Ds"
        yield from (f".It Fn {name}" for name in item.names())
        yield from body or ["See above."]
        yield ".El"
        return
    if body:
        yield from ([] if title else [".Pp"]) + body
    if item.code:
        yield from [".Bd -literal -offset indent", *map(escaped, item.code), ".Ed"]


def page(name, header, summary, items, others):
    functions = [function for item in items for function in item.functions]
    yield from (f".Dd {DATE}", f".Dt {name.upper()} 3", ".Os k42mc_r", ".Sh NAME")
    names = [function["name"] for function in functions]
    for i, function in enumerate(names):
        yield f".Nm {function}" + (" ," if i + 1 < len(names) else "")
    yield from (f".Nd {summary}", ".Sh LIBRARY", "libk42mc_r (\\-lk42mc_r)", ".Sh SYNOPSIS",
                f".In k42mc/{header}")
    for function in functions:
        yield from prototype(function)
    yield ".Sh DESCRIPTION"
    above = ".Sh"
    for line in (line for item in items for line in described(item)):
        if line != ".Pp" or not above.startswith((".Sh", ".Ss")):
            yield line
        above = line
    yield ".Sh SEE ALSO"
    yield from (f".Xr {other} 3 ," for other in sorted(others, key=str.casefold) if other != name)
    yield ".Xr k42mc_r 7"


def selected(items, pattern):
    """The first comment, and the functions that match with what stands ahead of each."""
    if pattern is None:
        return items
    keep, ahead = [items[0]], []
    for item in items[1:]:
        ahead.append(item)
        if item.functions:
            if any(re.match(pattern, name) for name in item.names()):
                keep += ahead
            ahead = []
    return keep


def pack(source, target):
    packed = target / "packed" / f"man{source.suffix[1:]}" / f"{source.name}.gz"
    packed.parent.mkdir(parents=True, exist_ok=True)
    packed.write_bytes(gzip.compress(source.read_bytes(), mtime=0))  # the same bytes from every build


def main(headers, target, others):
    folder = target / "man3"
    folder.mkdir(parents=True, exist_ok=True)
    names = [name for name, _, _, _ in PAGES]
    for name, header, summary, pattern in PAGES:
        items = selected(items_of(headers / header), pattern)
        (folder / f"{name}.3").write_text("\n".join(page(name, header, summary, items, names)) + "\n")
        for function in (function for item in items for function in item.names()):
            if function != name:
                (folder / f"{function}.3").write_text(f".so man3/{name}.3\n")
    for source in [*folder.iterdir(), *others]:
        pack(source, target)


main(*map(pathlib.Path, sys.argv[1:3]), [*map(pathlib.Path, sys.argv[3:])])
