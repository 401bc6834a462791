#!/usr/bin/env python3
"""Makes the manual pages of section 3 from the header and README's example:
manual.py HEADER README VERSION FOLDER"""

import pathlib
import re
import sys


def escape(text):
    """Text as troff has it, with code set in bold."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    text = re.sub(r"`([^`]*)`", r"\\fB\1\\fP", text)
    return re.sub(r"^(['.])", r"\\&\1", text, flags=re.M)


def paragraphs(comment):
    """The paragraphs of a comment, each on one line."""
    text = re.sub(r"^\s*/?\*+/? ?", "", comment, flags=re.M)
    return [" ".join(part.split()) for part in re.split(r"\n\s*\n", text.strip()) if part.strip()]


def section(title, *lines):
    return [f".SH {title}", *lines]


def prose(parts):
    return [line for part in parts for line in (".PP", escape(part))]


def listed(entries):
    return [line for name, text in entries for line in (".TP", f".B {name}", escape(text))]


def members(block, form):
    """Name and comment of each member: comments stand before it or, with <, after it."""
    found = []
    before = ""
    for comment, name in re.findall(rf"/\*\*(.*?)\*/|{form}", block, re.S):
        text = " ".join(paragraphs(comment.lstrip("<")))
        if name:
            found.append((name, before))
        elif comment.startswith("<"):
            found[-1] = found[-1][0], text
        else:
            before = text
    return found


def page(name, title, version, sections):
    head = [f'.TH {name} 3 "" "tn_corvel {version}" "Library functions"']
    names = section("NAME", f"{name} \\- {escape(title)}")
    library = section("LIBRARY", "libtn_corvel (\\-ltn_corvel)")
    return "\n".join(head + names + library + sections) + "\n"


def synopsis(prototypes):
    lines = [".nf", ".B #include <tn_corvel.h>"]
    for prototype in prototypes:
        lines += [".PP", ".B " + escape(prototype)]
    return section("SYNOPSIS", *lines, ".fi")


def main():
    header, readme = (pathlib.Path(name).read_text() for name in sys.argv[1:3])
    version, folder = sys.argv[3], pathlib.Path(sys.argv[4])
    folder.mkdir(parents=True, exist_ok=True)
    functions = {}
    for comment, code in re.findall(r"/\*\*((?:(?!\*/).)*?)\*/\s*CORVEL_API (.*?\));", header, re.S):
        prototype = " ".join(code.split()) + ";"
        functions[re.search(r"(\w+)\(", prototype).group(1)] = comment, prototype

    for name, (comment, prototype) in functions.items():
        text, *tags = re.split(r"@(?=param|return)", comment)
        title, *rest = paragraphs(text)
        entries = {"param": [], "return": []}
        for tag in tags:
            kind, words = " ".join(" ".join(paragraphs(tag)).split()).split(" ", 1)
            entries[kind].append(words.split(" ", 1) if kind == "param" else words)
        others = [f".BR {other} (3)," for other in functions if other != name]
        title = title[0].lower() + title[1:].rstrip(".")
        (folder / f"{name}.3").write_text(page(name, title, version, [
            *synopsis([prototype]),
            *section("DESCRIPTION", *prose(rest)) * bool(rest),
            *section("PARAMETERS", *listed(entries["param"])),
            *section("RETURN VALUE", escape(entries["return"][0])),
            *section("SEE ALSO", *others, ".BR tn_corvel (3)"),
        ]))

    comment = re.search(r"/\*\*\s*\* @file(.*?)\*/", header, re.S).group(1)
    record = re.search(r"/\*\*((?:(?!\*/).)*?)\*/\s*typedef struct (\w+) (\{.*?^\})", header, re.S | re.M)
    states = re.search(r"enum \w+ \{(.*?)\}", header, re.S).group(1)
    example = re.search(r"```c\n(.*?)```", readme, re.S).group(1)
    code = [escape(line) for line in example.rstrip().split("\n")]
    (folder / "tn_corvel.3").write_text(page("tn_corvel", "access to Corvel USB-to-CAN adapters", version, [
        *synopsis(prototype for _, prototype in functions.values()),
        *section("DESCRIPTION", *prose(paragraphs(comment))),
        *section("STATUS", *listed(members(states, r"(\w+ = \d)"))),
        *section("RECORD", *prose(paragraphs(record.group(1))),
                 *listed(members(record.group(3), r"(\w+)(?:\[\d\])?;"))),
        *section("EXAMPLE", ".nf", *code, ".fi"),
        *section("SEE ALSO", *(f".BR {name} (3)," for name in functions), ".BR simcan (1)"),
    ]))


if __name__ == "__main__":
    main()
