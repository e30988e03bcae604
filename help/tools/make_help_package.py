#!/usr/bin/env python3
"""Turns the manual's source (resources/help/*.md) into the help package "Help.TWwrite".

The source is a small Markdown-like language that a maintainer edits as text:

    # Topic                      a heading; "##" a subtopic, "###" a third level
    # Topic {#name}              the same, with the bookmark name that links and the program use
    {#name} Paragraph text.      a bookmark where a paragraph starts
    Text with **bold**, *italic*, `code` and [a link](#name).
    - a bullet item              (lines indented by two spaces continue it; "  - " nests)
    1. a numbered item
    ```                          a block of text shown as it is (commands, output)
    ![Caption](screenshot.png)   a picture from the pictures folder, with its caption
    %% a comment                 left out of the package

Paragraphs are separated by blank lines; the lines of one paragraph are joined. Every heading
gets a bookmark named after its words ("# Ignore rules" -> "ignore-rules") unless it names its
own. Files are read in the order of their names; each heading starts a chapter of the package.

The package is a folder holding "structure.xml" (the knots, the text length and the pictures),
"format.xml" (fonts, property records, styles, character and paragraph runs), "document.txt" (the
text, one character U+0001 for each knot) and "Images" (the pictures). A chapter's text begins
with its chapter knot and its heading, whose leading tabs give its outline level. Links are a
pair of link knots around the link's text whose "bookmark" is the number of the bookmark they
lead to; bookmarks are numbered in the order of the text.

Usage: make_help_package.py SOURCE_DIR PICTURES_DIR OUTPUT_PACKAGE [--bookmarks-header FILE]
"""

import argparse
import os
import re
import shutil
import sys
from xml.sax.saxutils import escape

KNOT = "\u0001"
FORMAT_VERSION = 2


class ManualError(Exception):
    pass


# ---------------------------------------------------------------------------------------------
# Reading the source

HEADING = re.compile(r"^(#{1,3})\s+(.*?)(?:\s+\{#([A-Za-z0-9_-]+)\})?\s*$")
ANCHOR = re.compile(r"^\{#([A-Za-z0-9_-]+)\}\s*")
PICTURE = re.compile(r"^!\[(.*)\]\(([^)\s]+)\)\s*$")
BULLET = re.compile(r"^( *)- (.*)$")
NUMBERED = re.compile(r"^( *)(\d+)\. (.*)$")


def slug(text):
    words = re.findall(r"[A-Za-z0-9]+", text.lower())
    return "-".join(words)


class Block:
    """One paragraph-like piece of a chapter: kind is "para", "bullet", "number", "code" or "picture"."""

    def __init__(self, kind, text, where, level=0, number=None, anchor=None, caption=None):
        self.kind, self.text, self.where = kind, text, where
        self.level, self.number, self.anchor, self.caption = level, number, anchor, caption


class Chapter:
    def __init__(self, level, title, bookmark, where):
        self.level, self.title, self.bookmark, self.where = level, title, bookmark, where
        self.blocks = []


def read_source(source_dir):
    files = sorted(f for f in os.listdir(source_dir) if f.endswith(".md"))
    if not files:
        raise ManualError(f"{source_dir}: no .md files")
    chapters = []
    for name in files:
        path = os.path.join(source_dir, name)
        with open(path, encoding="utf-8") as handle:
            lines = handle.read().split("\n")
        read_file(path, lines, chapters)
    return chapters


def read_file(path, lines, chapters):
    i = 0
    pending = []  # lines of the paragraph or item being gathered
    pending_kind = None
    pending_info = {}

    def where(n):
        return f"{path}:{n + 1}"

    def flush():
        nonlocal pending, pending_kind, pending_info
        if pending_kind is None:
            return
        if not chapters:
            raise ManualError(f"{pending_info['where']}: text before the first heading")
        text = " ".join(s.strip() for s in pending)
        anchor = None
        m = ANCHOR.match(text)
        if m:
            anchor, text = m.group(1), text[m.end():]
        chapters[-1].blocks.append(Block(pending_kind, text, pending_info["where"], pending_info.get("level", 0),
                                         pending_info.get("number"), anchor))
        pending, pending_kind, pending_info = [], None, {}

    while i < len(lines):
        line = lines[i].rstrip()
        if line.startswith("%%"):
            i += 1
            continue
        if line.startswith("```"):
            flush()
            start = i
            i += 1
            code = []
            while i < len(lines) and not lines[i].startswith("```"):
                code.append(lines[i].rstrip())
                i += 1
            if i == len(lines):
                raise ManualError(f"{where(start)}: a ``` block that is never closed")
            if not chapters:
                raise ManualError(f"{where(start)}: text before the first heading")
            chapters[-1].blocks.append(Block("code", "\n".join(code), where(start)))
            i += 1
            continue
        m = HEADING.match(line)
        if m:
            flush()
            level = len(m.group(1)) - 1
            title = m.group(2).strip()
            if not title:
                raise ManualError(f"{where(i)}: a heading without words")
            if "\t" in title or KNOT in title:
                raise ManualError(f"{where(i)}: a heading may not hold tabs")
            chapters.append(Chapter(level, title, m.group(3) or slug(title), where(i)))
            i += 1
            continue
        m = PICTURE.match(line)
        if m:
            flush()
            if not chapters:
                raise ManualError(f"{where(i)}: a picture before the first heading")
            block = Block("picture", m.group(2), where(i))
            block.caption = m.group(1)
            chapters[-1].blocks.append(block)
            i += 1
            continue
        if not line.strip():
            flush()
            i += 1
            continue
        m = BULLET.match(line)
        n = NUMBERED.match(line)
        if m or n:
            flush()
            indent = len((m or n).group(1))
            pending_kind = "bullet" if m else "number"
            pending_info = {"where": where(i), "level": indent // 2}
            if n:
                pending_info["number"] = n.group(2)
            pending = [(m.group(2) if m else n.group(3))]
            i += 1
            continue
        if pending_kind in ("bullet", "number") and line.startswith("  "):
            pending.append(line)
            i += 1
            continue
        if pending_kind in ("bullet", "number"):
            flush()
        if pending_kind is None:
            pending_kind = "para"
            pending_info = {"where": where(i)}
        pending.append(line)
        i += 1
    flush()


# Inline text: **bold**, *italic*, `code`, [text](#bookmark), and "\" before a character to take
# it as it is.
def parse_inline(text, where):
    runs = []  # (text, style, link) with style a frozenset of "bold", "italic", "code"
    bold = italic = False
    link = None
    buf = []

    def emit():
        if buf:
            style = set()
            if bold:
                style.add("bold")
            if italic:
                style.add("italic")
            runs.append(("".join(buf), frozenset(style), link))
            buf.clear()

    i = 0
    while i < len(text):
        c = text[i]
        if c == "\\" and i + 1 < len(text):
            buf.append(text[i + 1])
            i += 2
        elif text.startswith("**", i):
            emit()
            bold = not bold
            i += 2
        elif c == "*":
            emit()
            italic = not italic
            i += 1
        elif c == "`":
            end = text.find("`", i + 1)
            if end < 0:
                raise ManualError(f"{where}: a ` that is never closed")
            emit()
            runs.append((text[i + 1:end], frozenset({"code"} | ({"bold"} if bold else set())), link))
            i = end + 1
        elif c == "[" and link is None:
            m = re.compile(r"\[([^\]]*)\]\(#([A-Za-z0-9_-]+)\)").match(text, i)
            if not m:
                buf.append(c)
                i += 1
                continue
            emit()
            link = m.group(2)
            inner = parse_inline(m.group(1), where)
            runs.append(("", frozenset({"link-start"}), link))
            for piece, style, _ in inner:
                runs.append((piece, style, link))
            runs.append(("", frozenset({"link-end"}), link))
            link = None
            i = m.end()
        else:
            buf.append(c)
            i += 1
    emit()
    if bold or italic:
        raise ManualError(f"{where}: a ** or * that is never closed")
    return runs


# ---------------------------------------------------------------------------------------------
# Building the document

def utf16_length(text):
    return len(text.encode("utf-16-le")) // 2


class Properties:
    """The property records, each a type and its elements; one record per distinct content."""

    def __init__(self):
        self.records = []
        self.index = {}

    def get(self, kind, elements):
        key = (kind, tuple(elements))
        if key not in self.index:
            self.index[key] = len(self.records)
            self.records.append((kind, list(elements)))
        return self.index[key]


FONT_TEXT, FONT_CODE = 0, 1
FONTS = ["Sans Serif", "Monospace"]
LINK_COLOR = "(0, 84, 166)"
CODE_BACK = "(238, 240, 243)"
HEADING_SIZES = [20, 16, 13]


class Document:
    def __init__(self, chapters):
        self.chapters = chapters
        self.parts = []  # pieces of text
        self.length = 0  # in UTF-16 units
        self.knots = []  # (cp, type, kink, children)
        self.char_runs = []  # (cp, prop)
        self.para_runs = []
        self.props = Properties()
        self.images = []  # file names in Images
        self.bookmark_numbers = {}  # name -> number, in text order
        self.bookmark_order = []
        self.styles = []
        self.normal_char = self.props.get("char", [])
        self.normal_chapter = self.props.get("chap", [])

    # -- text, runs, knots

    def add_text(self, text, char_prop):
        if not text:
            return
        if not self.char_runs or self.char_runs[-1][1] != char_prop:
            if self.char_runs and self.char_runs[-1][0] == self.length:
                self.char_runs[-1] = (self.length, char_prop)
            else:
                self.char_runs.append((self.length, char_prop))
        self.parts.append(text)
        self.length += utf16_length(text)

    def add_knot(self, kind, kink, children, char_prop):
        self.knots.append((self.length, kind, kink, children))
        self.add_text(KNOT, char_prop)

    def start_paragraph(self, para_prop):
        if not self.para_runs or self.para_runs[-1][1] != para_prop:
            self.para_runs.append((self.length, para_prop))

    # -- formatting

    def char_prop(self, style, link=False, heading=None):
        elements = []
        if heading is not None:
            elements += [("bold", "1"), ("size", str(HEADING_SIZES[heading]))]
        if "bold" in style and heading is None:
            elements.append(("bold", "1"))
        if "italic" in style:
            elements.append(("italic", "1"))
        if "code" in style:
            elements.append(("font", str(FONT_CODE)))
        if link:
            elements += [("underline", "Single"), ("color", LINK_COLOR)]
        return self.props.get("char", elements) if elements else self.normal_char

    def para_prop(self, kind, level=0):
        if kind == "heading":
            elements = [("before", str(18 - 4 * level)), ("after", "6"), ("keepnext", "1")]
        elif kind in ("bullet", "number"):
            left = 20 + 18 * level
            elements = [("indentl", str(left)), ("indent1", "-14"), ("after", "3")]
        elif kind == "code":
            elements = [("indentl", "16"), ("back", CODE_BACK), ("nospell", "1")]
        elif kind == "picture":
            elements = [("align", "center"), ("before", "6"), ("after", "2")]
        elif kind == "caption":
            elements = [("align", "center"), ("after", "10")]
        else:
            elements = [("after", "6")]
        return self.props.get("para", elements)

    # -- the chapters

    def number_bookmarks(self):
        for chapter in self.chapters:
            names = [(chapter.bookmark, chapter.where)]
            names += [(b.anchor, b.where) for b in chapter.blocks if b.anchor]
            for name, where in names:
                if name in self.bookmark_numbers:
                    raise ManualError(f"{where}: the bookmark \"{name}\" is named twice")
                self.bookmark_numbers[name] = len(self.bookmark_order)
                self.bookmark_order.append(name)

    def check_outline(self):
        previous = -1
        for chapter in self.chapters:
            if chapter.level > previous + 1:
                raise ManualError(f"{chapter.where}: \"{chapter.title}\" skips an outline level")
            if not chapter.blocks:
                raise ManualError(f"{chapter.where}: \"{chapter.title}\" has no text of its own")
            previous = chapter.level

    def build(self, pictures_dir):
        self.check_outline()
        self.number_bookmarks()
        for chapter in self.chapters:
            self.build_chapter(chapter, pictures_dir)

    def bookmark_knot(self, name, char_prop):
        self.add_knot("bookmark", "beg", [("bookmark", str(self.bookmark_numbers[name]))], char_prop)

    def build_chapter(self, chapter, pictures_dir):
        heading_char = self.char_prop(frozenset(), heading=chapter.level)
        self.start_paragraph(self.para_prop("heading", chapter.level))
        self.add_knot("chapter", "beg", [("lev", str(chapter.level + 1))], heading_char)
        self.add_text("\t" * chapter.level + chapter.title, heading_char)
        self.add_text("\n", heading_char)
        for index, block in enumerate(chapter.blocks):
            last = index == len(chapter.blocks) - 1
            self.build_block(chapter, block, index == 0, pictures_dir)
            if last:
                self.add_knot("chapter", "end", [], self.normal_char)
            self.add_text("\n", self.normal_char)

    def build_block(self, chapter, block, first, pictures_dir):
        if block.kind == "picture":
            source = os.path.join(pictures_dir, block.text)
            if not os.path.isfile(source):
                raise ManualError(f"{block.where}: no picture \"{source}\"")
            if block.text not in self.images:
                self.images.append(block.text)
            self.start_paragraph(self.para_prop("picture"))
            if first:
                self.bookmark_knot(chapter.bookmark, self.normal_char)
            self.add_knot("pic", None, [("image", str(self.images.index(block.text)))], self.normal_char)
            if block.caption:
                self.add_text("\n", self.normal_char)
                self.start_paragraph(self.para_prop("caption"))
                self.build_inline(parse_inline(block.caption, block.where), block.where, frozenset({"italic"}))
            return
        self.start_paragraph(self.para_prop(block.kind, block.level))
        # The topic's own bookmark opens its first paragraph: the heading is the chapter's name and
        # holds nothing but its tabs and words.
        if first:
            self.bookmark_knot(chapter.bookmark, self.normal_char)
        if block.anchor:
            self.bookmark_knot(block.anchor, self.normal_char)
        if block.kind == "code":
            # The lines of a block stay lines of one paragraph (U+2028).
            self.add_text(block.text.replace("\n", "\u2028"), self.char_prop(frozenset({"code"})))
            return
        if block.kind == "bullet":
            self.add_text("\u2022\t", self.normal_char)
        elif block.kind == "number":
            self.add_text(f"{block.number}.\t", self.normal_char)
        self.build_inline(parse_inline(block.text, block.where), block.where)

    def build_inline(self, runs, where, extra=frozenset()):
        for text, style, link in runs:
            if "link-start" in style or "link-end" in style:
                if link not in self.bookmark_numbers:
                    raise ManualError(f"{where}: a link to \"#{link}\", which no heading or paragraph names")
                kink = "beg" if "link-start" in style else "end"
                self.add_knot("link", kink, [("bookmark", str(self.bookmark_numbers[link]))],
                              self.char_prop(frozenset(), link=True))
                continue
            self.add_text(text, self.char_prop(style | extra, link=link is not None))

    def text(self):
        return "".join(self.parts)

    # -- writing

    def structure_xml(self):
        out = ['<?xml version="1.0" encoding="UTF-8"?>', "<structure>", f"<ver>{FORMAT_VERSION}</ver>",
               f"<length>{self.length},{self.length}</length>", "<knots>"]
        for cp, kind, kink, children in self.knots:
            attributes = f' cp="{cp}" type="{kind}"' + (f' kink="{kink}"' if kink else "")
            inner = "".join(f"<{name}>{escape(value)}</{name}>" for name, value in children)
            out.append(f"<knot{attributes}>{inner}</knot>")
        out.append("</knots>")
        out.append("<images>")
        for name in self.images:
            out.append(f'<image source="embed">{escape(name)}</image>')
        out.append("</images>")
        out.append("</structure>")
        return "\n".join(out) + "\n"

    def format_xml(self):
        out = ['<?xml version="1.0" encoding="UTF-8"?>', "<format>", f"<ver>{FORMAT_VERSION}</ver>", "<fonts>"]
        out += [f"<font>{escape(name)}</font>" for name in FONTS]
        out.append("</fonts>")
        out.append("<properties>")
        for kind, elements in self.props.records:
            inner = "".join(f"<{name}>{escape(value)}</{name}>" for name, value in elements)
            out.append(f'<prop type="{kind}">{inner}</prop>')
        out.append("</properties>")
        out.append("<styles>")
        for name, kind, prop, char in self.styles:
            inner = f"<prop>{prop}</prop>" + (f"<char>{char}</char>" if char is not None else "")
            out.append(f'<style name="{escape(name)}" type="{kind}">{inner}</style>')
        out.append("</styles>")
        out.append("<char>")
        out += [f"<run>{cp},{prop}</run>" for cp, prop in self.char_runs]
        out.append("</char>")
        out.append("<para>")
        out += [f"<run>{cp},{prop}</run>" for cp, prop in self.para_runs]
        out.append("</para>")
        out.append(f"<normal_chapter>{self.normal_chapter}</normal_chapter>")
        out.append("</format>")
        return "\n".join(out) + "\n"

    def add_styles(self):
        # Named styles for the kinds of paragraph, so that the formatting reads as what it is.
        for level, name in enumerate(["Heading 1", "Heading 2", "Heading 3"]):
            self.styles.append((name, "para", self.para_prop("heading", level),
                                self.char_prop(frozenset(), heading=level)))
        self.styles.append(("Body", "para", self.para_prop("para"), self.normal_char))
        self.styles.append(("List", "para", self.para_prop("bullet"), self.normal_char))
        self.styles.append(("Example", "para", self.para_prop("code"), self.char_prop(frozenset({"code"}))))
        self.styles.append(("Emphasis", "char", self.char_prop(frozenset({"italic"})), None))
        self.styles.append(("Strong", "char", self.char_prop(frozenset({"bold"})), None))
        self.styles.append(("Link", "char", self.char_prop(frozenset(), link=True), None))


def write_package(document, pictures_dir, output):
    temporary = output + ".new"
    if os.path.exists(temporary):
        shutil.rmtree(temporary)
    os.makedirs(os.path.join(temporary, "Images"))
    with open(os.path.join(temporary, "structure.xml"), "w", encoding="utf-8", newline="\n") as handle:
        handle.write(document.structure_xml())
    with open(os.path.join(temporary, "format.xml"), "w", encoding="utf-8", newline="\n") as handle:
        handle.write(document.format_xml())
    with open(os.path.join(temporary, "document.txt"), "w", encoding="utf-8", newline="\n") as handle:
        handle.write(document.text())
    for name in document.images:
        shutil.copyfile(os.path.join(pictures_dir, name), os.path.join(temporary, "Images", name))
    if os.path.exists(output):
        shutil.rmtree(output)
    os.rename(temporary, output)


def write_bookmarks_header(document, path):
    lines = ["// Generated from resources/help by help/tools/make_help_package.py: do not edit.",
             "// The number of each bookmark of the application's help, for displayHelp(bookmark).",
             "#pragma once", "", "namespace BUHelpBookmark {", ""]
    for name in document.bookmark_order:
        constant = "k" + "".join(word.capitalize() for word in re.split(r"[-_]", name) if word)
        lines.append(f"inline constexpr int {constant} = {document.bookmark_numbers[name]};")
    lines += ["", "} // namespace BUHelpBookmark", ""]
    text = "\n".join(lines)
    if os.path.exists(path):
        with open(path, encoding="utf-8") as handle:
            if handle.read() == text:
                return  # unchanged: nothing that includes it is rebuilt
    os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    with open(path, "w", encoding="utf-8") as handle:
        handle.write(text)


def main():
    parser = argparse.ArgumentParser(description="Builds the help package from the manual's source.")
    parser.add_argument("source")
    parser.add_argument("pictures")
    parser.add_argument("output")
    parser.add_argument("--bookmarks-header")
    args = parser.parse_args()
    try:
        document = Document(read_source(args.source))
        document.build(args.pictures)
        document.add_styles()
        write_package(document, args.pictures, args.output)
        if args.bookmarks_header:
            write_bookmarks_header(document, args.bookmarks_header)
    except (ManualError, OSError) as error:
        print(f"make_help_package: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
