#!/usr/bin/env python3
"""The documents hold together.

  docs_test.py links ROOT              every relative link leads to a file, and every anchor to a heading of it
  docs_test.py messages ROOT           messages.md has every status, and every message that the library's sources print
  docs_test.py compatibility ROOT      every "Compat: <id>" of the sources stands in compatibility.md, each id once
  docs_test.py examples ROOT CXX [FLAG...]   the C++ of README.md and docs/guide compiles, and the C as C99
  docs_test.py transcripts ROOT KESTRUN      the commands of docs/operations/cli.md print what stands there; with --update as
                                             a last argument the page is given what they print
  docs_test.py readme ROOT CXX LIBRARY       README.md's example prints what README.md says
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile

SOURCE_FOLDERS = ["base", "format", "storage", "block", "engine", "store", "record", "napi", "bindings/c"]


def documents(root):
    """The documents of the project, without what others keep below it."""
    pages = [page for page in root.glob("*.md")]
    for folder in ["docs", "examples", "packaging", "bindings"]:
        pages += [page for page in (root / folder).rglob("*.md") if "node_modules" not in page.parts]
    return sorted(pages)


def without_code(text):
    """The text with fenced blocks and code spans blanked, line for line."""
    text = re.sub(r"^```.*?^```", lambda block: "\n" * block.group(0).count("\n"), text, flags=re.S | re.M)
    text = re.sub(r"^(?: {4}|\t).*$", "", text, flags=re.M)
    return re.sub(r"`[^`\n]*`", "`code`", text)


def anchors(page):
    """The anchors of a page's headings, as a viewer makes them."""
    found = set()
    in_fence = False
    for line in page.read_text(encoding="utf-8").splitlines():
        if line.startswith("```"):
            in_fence = not in_fence
        match = None if in_fence else re.match(r"#+ (.*)", line)
        if not match:
            continue
        slug = re.sub(r"[^\w\- ]", "", match.group(1).lower()).strip().replace(" ", "-")
        number, unique = 0, slug
        while unique in found:
            number += 1
            unique = f"{slug}-{number}"
        found.add(unique)
    return found


def check_links(root):
    problems = []
    count = 0
    for page in documents(root):
        text = without_code(page.read_text(encoding="utf-8"))
        for match in re.finditer(r"\]\(([^)\s]+)\)", text):
            target = match.group(1)
            if re.match(r"[a-z]+:", target):
                continue
            count += 1
            where = f"{page.relative_to(root)}:{text.count(chr(10), 0, match.start()) + 1}"
            path, _, anchor = target.partition("#")
            file = page if path == "" else (page.parent / path)
            if not file.exists():
                problems.append(f"{where}: {target} leads nowhere")
            elif anchor and anchor not in anchors(file):
                problems.append(f"{where}: {target} has no such heading")
    if count == 0:
        problems.append("no link was found at all")
    return problems, f"{count} links"


def sources(root, suffixes=(".cc", ".h")):
    for folder in SOURCE_FOLDERS:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix in suffixes and "node_modules" not in path.parts:
                yield path


def join_literals(text):
    """Adjacent string literals made one."""
    return re.sub(r'"\s*\n\s*"', "", text)


def printed_messages(root):
    """The texts that are handed to whatever prints, with the place of each. TellReason adds a path and the reason."""
    call = re.compile(r'\b(?:std::printf|Print|Printf|PrintMessage|Report|Tell)\(\s*"((?:[^"\\]|\\.)*)"')
    reason = re.compile(r'\bTellReason\([^"]*?"((?:[^"\\]|\\.)*)"')
    for path in sources(root):
        text = join_literals(path.read_text(encoding="utf-8"))
        for message in call.findall(text):
            yield path.relative_to(root), message
        for message in reason.findall(text):
            yield path.relative_to(root), message + " %s: %s\\n"


def check_messages(root):
    page = (root / "docs/operations/messages.md").read_text(encoding="utf-8")
    problems = []
    header = (root / "include/kestrun/status.h").read_text(encoding="utf-8")
    statuses = re.findall(r"inline constexpr uint32_t (kStatus\w+) = (\d+);", header)
    for name, number in statuses:
        if not re.search(rf"^\| {number} \| `{name}` \|", page, flags=re.M):
            problems.append(f"messages.md has no row for {number} {name}")
    messages = set()
    for path, message in printed_messages(root):
        if not re.search(r"[A-Za-z]{3}", message):
            continue  # what puts the parts of a message together
        shown = message.replace("\\n", " (line end)").replace('\\"', '"').strip()
        messages.add(shown)
        if f"| {shown} |" not in page:
            problems.append(f"messages.md has no row for {path}: {message}")
    if len(statuses) < 20 or len(messages) < 20:
        problems.append(f"only {len(statuses)} statuses and {len(messages)} messages were found in the sources")
    return problems, f"{len(statuses)} statuses, {len(messages)} messages"


def check_compatibility(root):
    page = (root / "docs/compatibility.md").read_text(encoding="utf-8")
    ids = re.findall(r"^\| `([a-z0-9-]+)` \|", page, flags=re.M)
    problems = [f"compatibility.md has {name} twice" for name in sorted(set(ids)) if ids.count(name) > 1]
    used = 0
    paths = list(sources(root)) + sorted((root / "include/kestrun").glob("*.h"))
    for path in paths:
        text = re.sub(r"\n\s*//", " ", path.read_text(encoding="utf-8"))
        for names in re.findall(r"Compat: ([a-z0-9-]+(?:, [a-z0-9-]+)*)", text):
            for name in names.split(", "):
                used += 1
                if name not in ids:
                    problems.append(f"{path.relative_to(root)}: compatibility.md has no {name}")
    if used == 0:
        problems.append("no source names an id")
    return problems, f"{len(ids)} ids, named {used} times"


PRELUDE = """\
#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>
#include "kestrun/kestrun.h"
"""


def check_examples(root, compiler, flags):
    """One translation unit for all blocks, each in a namespace of its own.

    A block that begins with #include is a file; any other one holds functions, as they would stand in a file that
    includes what PRELUDE has and says `using namespace Kestrun`.
    """
    unit = [PRELUDE]
    count = 0
    for page in [root / "README.md"] + sorted((root / "docs/guide").glob("*.md")):
        text = page.read_text(encoding="utf-8")
        for match in re.finditer(r"^```cpp\n(.*?)^```", text, flags=re.S | re.M):
            code = match.group(1)
            if "napi/native_api.h" in code:
                continue  # a module for another host, which tests/napi builds
            count += 1
            line = text.count("\n", 0, match.start()) + 2
            marked = [f'#line {line} "{page}"']
            includes = []
            for source_line in code.splitlines():
                is_include = source_line.startswith("#include")
                if is_include:
                    includes.append(source_line)
                marked.append("" if is_include else source_line)
            unit += includes
            unit.append(f"namespace block_{count} {{\nusing namespace Kestrun;")
            unit += marked
            unit.append("}")
    result = subprocess.run(
        [compiler, "-std=c++17", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-Wno-unused-function",
         "-Wno-unused-parameter", f"-I{root / 'include'}", *flags, "-x", "c++", "-"],
        input="\n".join(unit) + "\n", text=True, stderr=subprocess.PIPE, check=False)
    problems = [result.stderr] if result.returncode != 0 else []
    if count == 0:
        problems.append("no C++ was found at all")

    programs = 0
    for page in sorted((root / "docs/guide").glob("*.md")):
        for code in re.findall(r"^```c\n(.*?)^```", page.read_text(encoding="utf-8"), flags=re.S | re.M):
            programs += 1
            result = subprocess.run(
                [compiler, "-std=c99", "-pedantic", "-fsyntax-only", "-Wall", "-Wextra", "-Werror",
                 f"-I{root / 'include'}", *flags, "-x", "c", "-"],
                input=code, text=True, stderr=subprocess.PIPE, check=False)
            if result.returncode != 0:
                problems.append(f"{page}: {result.stderr}")
    return problems, f"{count} pieces of C++, {programs} programs in C"


def check_readme(root, compiler, library):
    """Builds the first C++ of README.md, runs it and compares with the transcript that follows."""
    text = (root / "README.md").read_text(encoding="utf-8")
    match = re.search(r"^```cpp\n(.*?)^```\n+((?: {4}[^\n]*\n)+)", text, flags=re.S | re.M)
    if match is None:
        return ["README.md has no example with a transcript"], "nothing"
    command, *expected = [line[4:] for line in match.group(2).splitlines()]
    with tempfile.TemporaryDirectory() as directory:
        program = pathlib.Path(directory) / "program"
        built = subprocess.run(
            [compiler, "-std=c++17", f"-I{root / 'include'}", "-x", "c++", "-", "-x", "none", "-o", program, library,
             f"-Wl,-rpath,{pathlib.Path(library).parent}"],
            input=match.group(1), text=True, stderr=subprocess.PIPE, check=False)
        if built.returncode != 0:
            return [built.stderr], "an example that does not build"
        run = subprocess.run([program], cwd=directory, text=True, capture_output=True, check=False)
    problems = []
    if run.returncode != 0 or run.stdout.splitlines() != expected:
        problems.append(f"status {run.returncode}, printed {run.stdout!r} and {run.stderr!r}, not {expected}")
    return problems, f"the example of README.md, {command}"


TRANSCRIPT = re.compile(r"^ {4}\$ ([^\n]*)\n((?:(?: {4}(?!\$ )[^\n]*)?\n)*)", flags=re.M)
TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ")


def comparable(line):
    line = TIME.sub("TIME", line)
    # Blocks are made of pages.
    return line if os.sysconf("SC_PAGE_SIZE") == 4096 else re.sub(r" *[\d,]+", " N", line)


def check_transcripts(root, kestrun, update):
    """Runs the commands of the page in its order, in one directory. Times differ; "..." stands for the rest."""
    page = root / "docs/operations/cli.md"
    text = page.read_text(encoding="utf-8")
    problems = []
    pieces = []
    done = 0
    count = 0
    with tempfile.TemporaryDirectory() as directory:
        folder = pathlib.Path(directory)
        (folder / "bin").mkdir()
        (folder / "bin" / "kestrun").symlink_to(kestrun)
        (folder / "towns.csv").write_text("name,founded\nSeattle,1851\nTacoma,1868\n", encoding="utf-8")
        days = (root / "examples/data/seattle-weather.csv").read_bytes()
        (folder / "seattle-weather.csv").write_bytes(days)
        environment = {"PATH": f"{folder / 'bin'}:/usr/bin:/bin", "LC_ALL": "C.UTF-8", "TZ": "UTC"}
        for match in TRANSCRIPT.finditer(text):
            count += 1
            command = match.group(1)
            run = subprocess.run(["/bin/bash", "-c", command], cwd=folder, env=environment, text=True,
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                 check=False)
            printed = run.stdout.splitlines()
            if run.returncode != 0:
                printed.append(f"[exit status {run.returncode}]")
            expected = [line[4:] for line in match.group(2).rstrip().splitlines()]
            if expected and expected[-1] == "...":
                printed = "\n".join(printed[:len(expected) - 1]).rstrip().splitlines() + ["..."]
            if [comparable(line) for line in printed] != [comparable(line) for line in expected]:
                problems.append("\n".join([f"{page}: {command}", "printed", *printed, "but the page has", *expected]))
            shown = "".join(f"    {line}".rstrip() + "\n" for line in [f"$ {command}", *printed])
            pieces += [text[done:match.start()], shown + "\n"]
            done = match.end()
    if count == 0:
        problems.append("no transcript was found at all")
    if update and problems:
        page.write_text("".join(pieces) + text[done:], encoding="utf-8")
    return problems, f"{count} commands"


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    what, root = sys.argv[1], pathlib.Path(sys.argv[2]).resolve()
    if what == "links":
        problems, account = check_links(root)
    elif what == "messages":
        problems, account = check_messages(root)
    elif what == "compatibility":
        problems, account = check_compatibility(root)
    elif what == "examples":
        problems, account = check_examples(root, sys.argv[3], sys.argv[4:])
    elif what == "transcripts":
        problems, account = check_transcripts(root, pathlib.Path(sys.argv[3]).resolve(), sys.argv[4:] == ["--update"])
    elif what == "readme":
        problems, account = check_readme(root, sys.argv[3], str(pathlib.Path(sys.argv[4]).resolve()))
    else:
        sys.exit(__doc__)
    for problem in problems:
        print(problem)
    print(f"{account}, {len(problems)} problems")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
