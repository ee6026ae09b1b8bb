#!/usr/bin/env python3
"""Prints a file as doxygen reads it.

Headers: plain comments before a declaration become its description, those at the end of a line that of the declaration
before. The columns in which statuses and their causes stand are kept.

Documents: the anchor that a viewer makes of a heading is written out, because doxygen makes others, and links lead to it.
The words after ```hex are dropped.
"""

import os
import re
import sys


def header(text):
    lines = []
    in_block = False
    for number, line in enumerate(text.split("\n")):
        comment = re.match(r"^(\s*)// ?(.*)$", line)
        if comment:
            indent, words = comment.groups()
            if not in_block:
                lines.append(f"{indent}/** \\file\n\\verbatim" if number == 0 else f"{indent}/** \\verbatim")
                in_block = True
            lines.append(words.replace("*/", "* /"))
            continue
        if in_block:
            lines[-1] += "\n\\endverbatim */"
            in_block = False
        lines.append(re.sub(r"(\S\s+)// (.*)$", lambda m: f"{m.group(1)}/**< {escape(m.group(2))} */", line))
    return "\n".join(lines)


def escape(words):
    words = words.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
    return re.sub(r"([@\\#%])", r"\\\1", words).replace("*/", "* /")


def anchor_of(heading):
    return re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")


# Anchors share one name space in doxygen: those of a page begin with the page's path.
def unique_anchor(path, anchor):
    return re.sub(r"[^a-z0-9]+", "-", str(path).lower()) + "-" + anchor


def document(text, path):
    seen = {}

    def link(match):
        target, _, anchor = match.group(2).partition("#")
        page = os.path.normpath(os.path.join(os.path.dirname(path), target)) if target else path
        return f"[{match.group(1)}](@ref {unique_anchor(page, anchor)})"

    lines = []
    in_fence = False
    for line in text.split("\n"):
        if line.startswith("```"):
            in_fence = not in_fence
            line = re.sub(r"^```hex .*", "```", line)
        elif not in_fence:
            line = re.sub(r"\[([^\]]*)\]\((?![a-z]+:)([^)\s]*#[^)\s]+)\)", link, line)
            if re.match(r"##+ ", line):
                anchor = anchor_of(line.lstrip("#"))
                seen[anchor] = seen.get(anchor, 0) + 1
                suffix = f"-{seen[anchor] - 1}" if seen[anchor] > 1 else ""
                line = f"{line} {{#{unique_anchor(path, anchor + suffix)}}}"
        lines.append(line)
    return "\n".join(lines)


def main():
    path = sys.argv[1]
    with open(path, encoding="utf-8") as file:
        text = file.read()
    sys.stdout.write(document(text, os.path.relpath(path)) if path.endswith(".md") else header(text))


if __name__ == "__main__":
    main()
