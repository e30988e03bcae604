#!/usr/bin/env python3
"""Writes the manual page tanner-backup(1) from the program's own `--help`, so that the two never
disagree: the usage line becomes the synopsis, the first paragraph the description, every line
of "Commands:" an entry of COMMANDS (its description's continuation lines joined), and the
paragraphs after the commands NOTES.

Usage: manpage.py PROGRAM OUTPUT   (OUTPUT ending in .gz is compressed reproducibly)
"""
import gzip
import re
import subprocess
import sys


def roff_text(text):
    """Escapes text for roff: backslashes, a leading control character, and the minus signs of
    options."""
    text = text.replace("\\", "\\e")
    text = re.sub(r"(^|[\s(\"\[|])(--?)(?=[A-Za-z])", lambda m: m.group(1) + m.group(2).replace("-", "\\-"), text)
    if text.startswith((".", "'")):
        text = "\\&" + text
    return text


def starts_description(word):
    return word[:1].isupper() and word != word.upper()


def split_usage(line):
    """Splits a command line of the help into its usage and its description."""
    body = line[2:]
    gap = body.find("  ")
    if gap >= 0:
        return body[:gap].strip(), body[gap:].strip()
    words = body.split(" ")
    for index, word in enumerate(words):
        if index > 0 and starts_description(word):
            return " ".join(words[:index]), " ".join(words[index:])
    return body.strip(), ""


def roff_usage(usage):
    """Bold words, italic placeholders (words in capitals)."""
    escaped = roff_text(usage)
    escaped = re.sub(r"\b([A-Z][A-Z0-9_]+)\b", r"\\fI\1\\fB", escaped)
    return "\\fB" + escaped + "\\fR"


def paragraphs(lines):
    result, current = [], []
    for line in lines:
        if line.strip():
            current.append(line.strip())
        elif current:
            result.append(current)
            current = []
    if current:
        result.append(current)
    return result


def manual(help_text, version):
    lines = help_text.rstrip("\n").split("\n")
    if not lines or not lines[0].startswith("Usage: ") or "Commands:" not in lines:
        raise SystemExit("manpage.py: the help has no usage line or no \"Commands:\"")
    synopsis = lines[0][len("Usage: "):].split(" ", 1)
    commands_at = lines.index("Commands:")
    description = paragraphs(lines[1:commands_at])
    commands, after = [], commands_at + 1
    # Commands may come in groups; the paragraphs after them are not indented.
    while after < len(lines) and (not lines[after].strip() or lines[after].startswith(" ")):
        line = lines[after]
        if not line.strip():
            pass
        elif line.startswith("  ") and not line.startswith("   "):
            usage, text = split_usage(line)
            commands.append([usage, [text] if text else []])
        elif commands:
            commands[-1][1].append(line.strip())
        after += 1
    notes = paragraphs(lines[after:])

    out = [
        '.TH TANNER\\-BACKUP 1 "" "Tanner Backup %s" "User Commands"' % version,
        ".SH NAME",
        "tanner\\-backup \\- mirror chosen folders onto a backup device",
        ".SH SYNOPSIS",
        "\\fB%s\\fR" % roff_text(synopsis[0]),
        ".br",
        roff_usage(" ".join(synopsis)),
        ".SH DESCRIPTION",
        "Without a command, \\fBtanner\\-backup\\fR opens its window;"
        " with one, it runs the command on the same state and ends.",
    ]
    for paragraph in description:
        out += [".PP"] + [roff_text(line) for line in paragraph]
    out.append(".SH COMMANDS")
    for usage, text in commands:
        out += [".TP", roff_usage(usage)] + [roff_text(line) for line in text]
    if notes:
        out.append(".SH NOTES")
        for paragraph in notes:
            out += [".PP"] + [roff_text(line) for line in paragraph]
    return "\n".join(out) + "\n"


def main():
    if len(sys.argv) != 3:
        raise SystemExit(__doc__)
    program, output = sys.argv[1], sys.argv[2]
    help_run = subprocess.run([program, "--help"], capture_output=True, check=True)
    version_run = subprocess.run([program, "--version"], capture_output=True, check=True)
    version = version_run.stdout.decode().strip().rsplit(" ", 1)[-1]
    page = manual(help_run.stdout.decode(), version).encode()
    if output.endswith(".gz"):
        with open(output, "wb") as raw, gzip.GzipFile(filename="", mode="wb", fileobj=raw, mtime=0, compresslevel=9) as f:
            f.write(page)
    else:
        with open(output, "wb") as f:
            f.write(page)


if __name__ == "__main__":
    main()
