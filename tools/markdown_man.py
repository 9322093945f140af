# SPDX-License-Identifier: Apache-2.0
"""Turns the Markdown that our documents are written in into the man macros.

Understood: headings, paragraphs, fenced and indented code, bullet and numbered lists, tables, bold, code, links.
A table becomes a tagged list, because a boxed table of three columns is unreadable at eighty characters."""
import re

SPECIAL = str.maketrans({"…": "...", "–": r"\[en]", "—": r"\[em]", "“": r"\[lq]", "”": r"\[rq]", "’": "'", "×": r"\[mu]",
                         "→": r"\[->]", "≤": r"\[<=]", "≥": r"\[>=]"})


def escape(text: str) -> str:
    text = text.replace("\\", r"\e").replace("-", r"\-").replace("'", r"\(aq").replace("`", r"\(ga")
    text = text.translate(SPECIAL)
    return text.replace("^", r"\(ha").replace("~", r"\(ti")


def inline(text: str, page_of: dict[str, str]) -> str:
    """One paragraph's text: **bold**, `code`, [links](to) as man references where the target is a page of ours."""
    result = []
    pattern = re.compile(r"``\s?(.+?)\s?``|`([^`]+)`|\*\*(.+?)\*\*|(?<![\w*])\*([^*\s][^*]*?)\*(?!\w)|!?\[([^\]]*)\]\(([^)\s]+)\)")
    position = 0
    for match in pattern.finditer(text):
        result.append(escape(text[position:match.start()].replace("\\|", "|")))
        position = match.end()
        code = match.group(1) or match.group(2)
        if code is not None:
            result.append(r"\fB" + escape(code.replace("\\|", "|")) + r"\fP")
        elif match.group(3) is not None:
            result.append(r"\fB" + escape(re.sub(r"`", "", match.group(3))) + r"\fP")
        elif match.group(4) is not None:
            result.append(r"\fI" + escape(match.group(4)) + r"\fP")
        else:
            label, target = match.group(5), match.group(6)
            page = page_of.get(target.split("#")[0].removeprefix("docs/"))
            if page:
                name, section = page.rstrip(")").split("(")
                result.append(rf"\fB{escape(name)}\fP({section})")
            elif target.startswith("http"):
                result.append(f"{inline(label, page_of)} <{escape(target)}>")
            else:
                result.append(inline(label, page_of) if label != target else escape(label))
    result.append(escape(text[position:].replace("\\|", "|")))
    joined = "".join(result)
    return "\\&" + joined if joined.startswith((".", "'")) else joined


def cells(row: str) -> list[str]:
    row = row.strip().removeprefix("|").removesuffix("|")
    return [cell.strip() for cell in re.split(r"(?<!\\)\|", row)]


def table(rows: list[str], page_of: dict[str, str]) -> list[str]:
    titles = cells(rows[0])
    result = []
    for row in rows[2:]:
        values = cells(row) + [""] * len(titles)
        tag = inline(values[0], page_of)
        if titles[1:2] == ["also"] and values[1]:
            tag += ", " + inline(values[1], page_of)
        body = []
        for title, value in list(zip(titles, values))[1:]:
            if not value or title == "also":
                continue
            # Several columns are named, so that they can be told apart; one that only explains needs no name.
            plain = len(titles) == 2 or title in ("", "meaning")
            text = inline(value, page_of)
            body.append(text if plain else f"{escape(title.capitalize())}: {text.removesuffix('.')}.")
        result += [".TP", tag or r"\&"] + (body or [r"\&"])
    return result


def convert(markdown: str, page_of: dict[str, str], level: int = 0) -> list[str]:
    """The lines of a page. Headings of `level` + 1 become sections (.SH), deeper ones subsections (.SS)."""
    lines = markdown.split("\n")
    result: list[str] = []
    i = 0

    def code(block: list[str]) -> None:
        result.extend([".PP", ".in +4n", ".EX"])
        for each in block:
            text = escape(each)
            result.append("\\&" + text if text.startswith((".", "\\(aq")) else text)
        result.extend([".EE", ".in"])

    while i < len(lines):
        line = lines[i]
        heading = re.match(r"(#+)\s+(.*)", line)
        if not line.strip():
            i += 1
        elif line.startswith("```"):
            block = []
            i += 1
            while not lines[i].startswith("```"):
                block.append(lines[i])
                i += 1
            i += 1
            code(block)
        elif heading:
            depth = len(heading.group(1)) - level
            text = inline(heading.group(2), page_of)
            result.append(f".SH {text.upper()}" if depth <= 1 and "\\" not in text else
                          f".SH {text}" if depth <= 1 else f".SS {text}")
            i += 1
        elif line.startswith("    "):
            block = []
            while i < len(lines) and (lines[i].startswith("    ") or not lines[i].strip()):
                block.append(lines[i][4:])
                i += 1
            while block and not block[-1].strip():
                block.pop()
            code(block)
        elif line.startswith("|"):
            rows = []
            while i < len(lines) and lines[i].startswith("|"):
                rows.append(lines[i])
                i += 1
            result += table(rows, page_of)
            result.append(".PP")
        elif item := re.match(r"([-*]|\d+\.)\s+(.*)", line):
            text = item.group(2)
            i += 1
            # What is indented below an item belongs to it: text, or code when it is indented further.
            block: list[str] = []
            while i < len(lines) and (re.match(r" {2,}\S", lines[i]) or
                                      (not lines[i].strip() and i + 1 < len(lines) and lines[i + 1].startswith("      "))):
                if re.match(r" {6,}", lines[i]) or block or not lines[i].strip():
                    block.append(lines[i].strip() if not lines[i].strip() else lines[i][6:])
                else:
                    text += " " + lines[i].strip()
                i += 1
            bullet = r"\(bu 2" if item.group(1) in "-*" else f"{item.group(1)} 4"
            result += [f".IP {bullet}", inline(text, page_of)]
            while block and not block[0].strip():
                block.pop(0)
            if block:
                result.append(".RS")
                code(block)
                result.append(".RE")
        else:
            paragraph = []
            while i < len(lines) and lines[i].strip() and not re.match(r"#|```|\||[-*]\s|\d+\.\s", lines[i]):
                paragraph.append(lines[i].strip())
                i += 1
            if not paragraph:  # A line that only looks like the start of something else.
                paragraph = [lines[i].strip()]
                i += 1
            result += [".PP", inline(" ".join(paragraph), page_of)]
    return tidy(result)


def tidy(lines: list[str]) -> list[str]:
    """Without paragraphs that a heading makes superfluous."""
    result: list[str] = []
    for index, line in enumerate(lines):
        following = lines[index + 1] if index + 1 < len(lines) else ".SH"
        if line == ".PP" and ((result and result[-1].startswith((".SH", ".SS")))
                              or following.startswith((".SH", ".SS", ".PP", ".TP", ".IP"))):
            continue
        result.append(line)
    return result
