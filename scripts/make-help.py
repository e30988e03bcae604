#!/usr/bin/env python3
"""Writes the application's help package, resources/Help.TWwrite, from the chapters below.

A heading's leading tabs give its level in the help window's outline. A paragraph may hold one
link written [text->bookmark] and a bookmark written {bookmark}; "@picture.png" alone on a line
embeds a picture from docs/. Run it again after changing the text and commit the result."""
import os
import re
import shutil
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

CHAPTERS = [
    ("Welcome to Tanner Backup", [
        "Tanner Backup makes manual backups for people who want to know exactly what happens to their files. "
        "You keep a list of backup folders and two lists of ignore rules, pick a backup device and press Backup.",
        "Nothing runs on a schedule and nothing outside the device is ever touched. Each backup folder is "
        "mirrored at the top of the device under its own name; see [Ignore rules->rules] for what is left out.",
        "@screenshot-idle.png",
    ]),
    ("\tThe window", [
        "The left side lists your devices under \"Recent Devices\" and \"Other Devices\". Below it are your "
        "backup folders and the rule lists. The table on the right lists what a backup does.",
        "File > Analyze lists what a backup would do without touching the device. Go > Next Error steps "
        "through failed items, and a double click shows an item in the file manager.",
    ]),
    ("\tBacking up", [
        "Select a device and press Backup. The analysis compares every backup folder with its mirror on the "
        "device and lists the actions: Copy for a new or newer file, Update for changed attributes, Delete for "
        "an item that no longer exists in the backup folder or is now ignored.",
        "The backup then carries the actions out in order. Ticks and crosses show each result as it comes.",
        "Before a backup that would delete half or more of what the device holds, the window asks first.",
    ]),
    ("\t\tChoosing a device", [
        "Any writable volume that the desktop mounts can be a backup device. A device that holds anything "
        "but its mirrors at its top level is refused, so that a wrong disk is never changed.",
    ]),
    ("\t\tWhen something fails", [
        "A file that can't be read or written is marked with a cross and the reason. A full or ejected "
        "device stops the backup; the next backup carries on from what is already there.",
    ]),
    ("Ignore rules", [
        "{rules}Ignore rules leave folders and files out of the backup. A folder rule looks at folder names, a "
        "file rule at file names or their extensions.",
        "A rule relates a name with \"is\", \"contains\", \"starts with\" or \"ends with\". Matching ignores "
        "case and the way accented letters are written.",
    ]),
    ("\tAdding and editing rules", [
        "Press Add Rule, choose what the rule looks at and type the name. A double click on a rule edits it. "
        "Add Defaults brings back the default rules that are missing.",
    ]),
    ("The command line", [
        "Every command of the window also works from a terminal: tanner-backup folders, rules, devices, "
        "analyze and backup. Run tanner-backup --help for the list.",
        "tanner-backup help --window opens this help; with --file PATH it shows a help package you wrote.",
    ]),
    ("Reading this help", [
        "Choose a topic on the left, or type words into the search field and press Return. Find Next "
        "goes on to the next place. Back and Forward retrace the places you read.",
        "View > Zoom In and Zoom Out change the size of the text, and Show Fonts chooses the help font. "
        "Edit > Speech > Start Speaking reads the selection or the visible text aloud.",
    ]),
]


def main():
    target = os.path.join(ROOT, "resources", "Help.TWwrite")
    shutil.rmtree(target, ignore_errors=True)
    os.makedirs(os.path.join(target, "Images"))
    text = []
    knots = []
    char_runs = []  # (cp, property)
    images = []
    bookmarks = {}
    links = []

    def cp():
        return sum(len(piece.encode("utf-16-le")) // 2 for piece in text)

    def run(prop):
        char_runs.append((cp(), prop))

    for name, paragraphs in CHAPTERS:
        level = len(name) - len(name.lstrip("\t"))
        knots.append((cp(), f'<knot cp="{cp()}" type="chapter" kink="beg"><lev>{level + 1}</lev></knot>'))
        run(0 if level == 0 else 3)
        text.append("\0")
        text.append(name + "\n")
        run(1)
        for paragraph in paragraphs:
            if paragraph.startswith("@"):
                knots.append((cp(), f'<knot cp="{cp()}" type="pic" kink="-"><image>{len(images)}</image></knot>'))
                images.append(paragraph[1:])
                text.append("\0\n")
                continue
            for piece in re.split(r"(\[[^\]]+->[^\]]+\]|\{[^}]+\})", paragraph):
                link = re.fullmatch(r"\[([^\]]+)->([^\]]+)\]", piece)
                mark = re.fullmatch(r"\{([^}]+)\}", piece)
                if link:
                    links.append((cp(), link.group(2)))
                    text.append("\0")
                    text.append(link.group(1))
                    knots.append((cp(), f'<knot cp="{cp()}" type="link" kink="end"/>'))
                    text.append("\0")
                elif mark:
                    bookmarks[mark.group(1)] = (len(bookmarks), cp())
                    knots.append((cp(), f'<knot cp="{cp()}" type="bookmark" kink="beg"><bookmark>{len(bookmarks) - 1}</bookmark></knot>'))
                    text.append("\0")
                else:
                    text.append(piece)
            text.append("\n")
    for at, name in links:
        knots.append((at, f'<knot cp="{at}" type="link" kink="beg"><bookmark>{bookmarks[name][0]}</bookmark></knot>'))
    knots.sort()
    length = cp()
    with open(os.path.join(target, "document.txt"), "w", encoding="utf-8") as f:
        f.write("".join(text))
    image_list = "".join(f'<image source="embed">{name}</image>' for name in images)
    with open(os.path.join(target, "structure.xml"), "w", encoding="utf-8") as f:
        f.write('<?xml version="1.0" encoding="UTF-8"?>\n<structure>\n<ver>2</ver>\n'
                f"<length>{length},{length}</length>\n<knots>\n"
                + "\n".join(k for _, k in knots) + "\n</knots>\n"
                f"<images>{image_list}</images>\n</structure>\n")
    for name in images:
        shutil.copy(os.path.join(ROOT, "docs", name), os.path.join(target, "Images", name))
    runs = "".join(f"<r>{at},{prop}</r>" for at, prop in char_runs)
    with open(os.path.join(target, "format.xml"), "w", encoding="utf-8") as f:
        f.write('<?xml version="1.0" encoding="UTF-8"?>\n<format>\n<ver>1</ver>\n'
                "<fonts><f>Sans Serif</f></fonts>\n<properties>\n"
                '<prop type="char"><bold>1</bold><size>18</size><color>(40, 60, 90)</color></prop>\n'
                '<prop type="char"></prop>\n'
                '<prop type="para"><after>8</after></prop>\n'
                '<prop type="char"><bold>1</bold><size>14</size><color>(40, 60, 90)</color></prop>\n'
                "</properties>\n"
                '<styles><style name="Normal" type="para"><prop>2</prop><char>1</char></style></styles>\n'
                f"<char>{runs}</char>\n<para><r>0,2</r></para>\n</format>\n")
    print(f"{target}: {len(CHAPTERS)} chapters, {length} characters")


if __name__ == "__main__":
    sys.exit(main())
