"""Reads the public headers: what they declare, and the comments that describe it.

A comment belongs to what follows it without a blank line; declarations that follow each other share it. The first comment of a
header is about the whole header. A comment before a blank line opens a section: what it says holds for all that follows, up to the
next such comment."""
import collections
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
FOLDERS = ("header/zeb", "sim/testing")
HOW = "/* What follows is how they do it."  # a header that has its functions in it: here is the end of what is for others
HEADERS = ("zeb.h", "zeb_ext.h", "zeb_msg.h", "zeb_tlv.h", "zeb_diag.h")

# kind: function, type, callback, variable or constant. `text` is the declaration without its comments, `after` the comment on the
# same line. `members` of a record or an enumeration are (name, value, comment).
Item = collections.namedtuple("Item", "kind name text after members")
# What shares one comment.
Group = collections.namedtuple("Group", "header comment section items")
Header = collections.namedtuple("Header", "name comment groups")

TOKEN = re.compile(r"(?P<comment>/\*.*?\*/)|(?P<line>\#(?:[^\n\\/]|\\\n|\\|/(?!\*))*)|(?P<space>\s+)|(?P<text>[^\s])", re.S)


def plain(comment):
    """The text of a comment, without what makes it one."""
    lines = comment[2:-2].strip().splitlines()
    return "\n".join(re.sub(r"^\s*\* ?", "", line) if number else line for number, line in enumerate(lines)).rstrip()


def declaration_end(text, start):
    """The end of the declaration at `start`, and of the function body that is not part of its text."""
    depth, at = 0, start
    while at < len(text):
        if text.startswith("/*", at):
            at = text.index("*/", at) + 1
        elif text[at] == "{" and depth == 0 and text[start:at].rstrip().endswith(")"):
            return at, body_end(text, at)
        elif text[at] in "{(":
            depth += 1
        elif text[at] in "})":
            depth -= 1
        elif text[at] == ";" and depth == 0:
            return at + 1, at + 1
        at += 1
    raise ValueError(f"no end of: {text[start:start + 60]}")


def body_end(text, start):
    depth = 0
    for at in range(start, len(text)):
        depth += {"{": 1, "}": -1}.get(text[at], 0)
        if depth == 0:
            return at + 1
    raise ValueError("no end of a function")


def without_cplusplus(text):
    """The header as C sees it, without pragmas. Lines stay."""
    kept, skipping = [], 0
    for line in text.splitlines():
        opens = re.match(r"#\s*if", line)
        if skipping or (opens and "__cplusplus" in line):
            skipping += 1 if opens else -1 if re.match(r"#\s*endif", line) else 0
            line = "#"
        kept.append("#" if re.match(r"#\s*(pragma|include|ifndef|endif|define \w+_H$)", line) else line)
    return "\n".join(kept) + "\n"


def members_of(body, prefix=""):
    """The members of a record, in the order in which they are declared, those of unnamed records by their path."""
    found, at, before = [], 0, ""
    while at < len(body):
        token = TOKEN.match(body, at)
        if token.group("space"):
            at = token.end()
        elif token.group("comment"):
            before, at = plain(token.group(0)), token.end()
        else:
            end, _ = declaration_end(body, at)
            text = body[at:end - 1]
            after = re.match(r"[ \t]*(/\*.*?\*/)", body[end:], re.S)
            at = end + (after.end() if after else 0)
            comment = plain(after.group(1)) if after else before
            before = ""
            found += member(text, comment, prefix)
    return found


def member(text, comment, prefix):
    inner = re.match(r"(?:struct|union)\s*\{(.*)\}\s*(\w+)$", text, re.S)
    if inner:
        name = prefix + inner.group(2)
        parts = members_of(inner.group(1), name + ".")
        return parts + ([(name, "", comment)] if comment else [])
    macro = re.match(r"[A-Z_]+\([^)]*\)\s*(\w+)$", text)
    name = macro.group(1) if macro else re.search(r"(\w+)\s*(?:\[[^]]*\])?\s*$", text).group(1)
    return [(prefix + name, "", comment)]


def enumerators_of(body):
    found = []
    for match in re.finditer(r"(\w+)\s*=\s*([^,/\s]+)\s*,?[ \t]*(/\*.*?\*/)?", body, re.S):
        found.append((match.group(1), match.group(2), plain(match.group(3)) if match.group(3) else ""))
    return found


def without_comments(text):
    return re.sub(r"[ \t]*/\*.*?\*/", "", text, flags=re.S)


def item_of(text, after):
    """What a declaration declares; nothing when it only names a record, or what is not ours."""
    bare = without_comments(text).strip()
    if re.match(r"(struct \w+;|extern int usleep)", bare):
        return None
    callback = re.match(r"typedef\b.*?\(\*(\w+)\)\(", bare, re.S)
    if callback:
        return Item("callback", callback.group(1), bare, after, [])
    record = re.match(r"(typedef )?(enum|struct|union) (\w+) \{(.*)\}\s*(\w*);$", text.strip(), re.S)
    if record:
        members = enumerators_of(record.group(4)) if record.group(2) == "enum" else members_of(record.group(4))
        return Item("type", record.group(5) or record.group(3), re.sub(r"\n\s*\n", "\n", bare), after, members)
    function = re.search(r"(\w+)\s*\(", bare)
    if function:
        bare = re.sub(r"^(static inline|extern) ", "", bare).rstrip(";").strip() + ";"
        return Item("function", function.group(1), " ".join(bare.split()), after, [])
    return Item("variable", re.search(r"(\w+)(\[[^]]*\])?;$", bare).group(1), bare, after, [])


def title_and_text(section):
    """A section's comment as a title and what it says."""
    first = re.match(r"([^.:,\n]+)([.:,])\s*", section)
    title = first.group(1) if first and len(first.group(1).split()) < 6 else "Notes"
    text = section[first.end():] if title != "Notes" and first.group(2) == "." else section
    return title, text


def read(name):
    """One header."""
    path = next(ROOT / folder / name for folder in FOLDERS if (ROOT / folder / name).exists())
    text = without_cplusplus(path.read_text(encoding="utf-8").split(HOW)[0])
    groups, top, section, comment, at = [], None, "", None, 0
    fresh = True  # whether the next declaration begins a group
    while at < len(text):
        token = TOKEN.match(text, at)
        word = token.group(0)
        if token.group("space"):
            if word.count("\n") > 1:
                if comment and top is not None and fresh:
                    section = comment
                comment, fresh = None, True
            at = token.end()
        elif token.group("comment"):
            if top is None:
                top = plain(word)
            elif "NOLINT" not in word:
                comment, fresh = plain(word), True
            at = token.end()
        else:
            item, at = next_item(text, token)
            if item is None and "usleep" in text[token.start():at]:
                comment = None
            if item:
                if fresh:
                    groups.append(Group(name, comment or "", section, []))
                groups[-1].items.append(item)
                fresh = False
    return Header(name, top, groups)


def next_item(text, token):
    """The constant or declaration at a token, and where the text goes on after it and the comment on its line."""
    if token.group("line"):
        end = after_at = token.end()
    else:
        end, after_at = declaration_end(text, token.start())
    after = re.match(r"[ \t]*(/\*.*?\*/)", text[after_at:], re.S)
    said = plain(after.group(1)) if after else ""
    at = after_at + (after.end() if after else 0)
    if token.group("line"):
        define = re.match(r"#define (\w+) (.*\S)", text[token.start():end])
        return (Item("constant", define.group(1), define.group(2), said, []) if define else None), at
    return item_of(text[token.start():end], said), at


def read_all():
    return [read(name) for name in HEADERS]
