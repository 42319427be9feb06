"""The text of comments and pages as blocks, and blocks as roff.

A block is ("text", [sentence…]), ("list", [[sentence…]…]), ("tags", [(tag, [sentence…])…]), ("code", text) or ("heading", level,
text)."""
import re
import textwrap

NAME = re.compile(r"(?<![\w.$/-])(?:zeb_\w+|TLV_[A-Z_]+|g_print_msg)(?!\w|/|=|\.\w)(?:\(\))?")
# What stands out in running text: a constant, an error, a call, a header.
WORDS = re.compile(r"(-E[A-Z]+\b|(?<![\w-])-1\b|<?\b(?:zeb|platform)/?\w*\.h\b>?|\b(?:tipcsim|zeb\.conf|zeb|tipc)\(\d\)|"
                   rf"\b(?:ZEBD?|INT|AF|TIPC)_[A-Z_]+\b(?:\.\.\.)?|{NAME.pattern})")


def sentences(text):
    return re.split(r"(?<=[.?!])\s+(?=[A-Z0-9`(]|zeb_)", " ".join(text.split()))


def sentence_case(said):
    """The sentences of a phrase: a capital letter where a word begins, and a full stop."""
    said = " ".join(said.split())
    if re.match(r"[a-z][a-z]*[ ,;:.']|[a-z]+$", said) or said[:2] == "a ":
        said = said[0].upper() + said[1:]
    return sentences(said if said.endswith((".", ":")) else said + ".")


def clauses(sentence):
    """The parts of a sentence between semicolons, and before errors that follow "or", outside brackets."""
    parts, depth, start = [], 0, 0
    for at, letter in enumerate(sentence):
        depth += {"(": 1, ")": -1}.get(letter, 0)
        split = re.match(r"; or (?=-E|-1\b)|; |: (?=-E)|,? or (?=-E|-1\b)", sentence[at:]) if depth == 0 and at >= start else None
        if split:
            parts.append(sentence[start:at])
            start = at + split.end()
    return parts + [sentence[start:].rstrip(".")]


def of_comment(text):
    """The blocks of a comment."""
    found = []
    for paragraph in re.split(r"\n\s*\n", text):
        for lines in runs(paragraph.splitlines()):
            found.append(block_of(lines))
    return [block for block in found if block]


def runs(lines):
    """A paragraph's lines, cut where running text turns into a list or indented lines."""
    run = []
    for line in lines:
        begins = line.startswith("- ") and not (run and run[0].startswith("- "))
        indents = line.startswith("  ") and run and not run[0].startswith(("- ", "  ")) and not tag_of(run[0])
        if run and (begins or indents):
            yield run
            run = []
        run.append(line)
    if run:
        yield run


def tag_of(line):
    return re.match(r"([\w.]+(?:, [\w.]+)*)  +(?=\S)", line)


def block_of(lines):
    if not lines:
        return None
    if lines[0].startswith("- "):
        items = []
        for line in lines:
            items += [line[2:]] if line.startswith("- ") else []
            items[-1:] = [items[-1]] if line.startswith("- ") else [f"{items[-1]} {line.strip()}"]
        return list_of(items)
    if lines[0].startswith("  "):
        indent = min(len(line) - len(line.lstrip()) for line in lines)
        return ("code", "\n".join(line[indent:] for line in lines))
    if tag_of(lines[0]):
        tags = []
        for line in lines:
            tag = tag_of(line) if not line.startswith("  ") else None
            if tag:
                tags.append([tag.group(1), line[tag.end():]])
            else:
                tags[-1][1] += " " + line.strip()
        return ("tags", [(tag, sentence_case(said)) for tag, said in tags])
    return ("text", sentences(" ".join(lines)))


def list_of(items):
    """A list whose items all begin with a name and a colon is one of tags."""
    split = [re.match(r"((?:`?[\w-]+`?(?:, )?)+): (.*)$", item, re.S) for item in items]
    if all(split):
        return ("tags", [(match.group(1), sentence_case(match.group(2))) for match in split])
    return ("list", [sentences(item) for item in items])


def of_markdown(text):
    """The blocks of a page."""
    found, at = [], 0
    lines = text.splitlines()
    while at < len(lines):
        fence = re.match(r"```", lines[at])
        if fence:
            end = lines.index("```", at + 1)
            found.append(("code", "\n".join(lines[at + 1:end])))
            at = end + 1
        elif lines[at].startswith("#"):
            marks, title = lines[at].split(" ", 1)
            found.append(("heading", len(marks), title.replace("`", "")))
            at += 1
        elif not lines[at].strip():
            at += 1
        else:
            end = at
            while end < len(lines) and lines[end].strip() and not lines[end].startswith(("#", "```")):
                end += 1
            found += prose(lines[at:end])
            at = end
    return found


def prose(lines):
    if lines[0].startswith("|"):
        return [table([[cell.strip() for cell in line.strip().strip("|").split("|")] for line in lines])]
    return [block_of(run) for run in runs(lines)]


def table(rows):
    """A table as tags: the first column, the second, and others by the name of their column."""
    header, rows = rows[0], rows[2:]
    named = lambda row: [f"{name.capitalize()}: {cell}." for name, cell in zip(header[2:], row[2:]) if cell]
    return ("tags", [(row[0], sentences(row[1]) + named(row)) for row in rows])


def escape(text, code=False):
    text = text.replace("\\", "\\e")
    if code:
        text = text.replace("-", "\\-").replace("'", "\\(aq").replace("`", "\\(ga").replace("^", "\\(ha").replace("~", "\\(ti")
    else:
        text = re.sub(r"(?<![\w])-(?=[\w-])|(?<=-)-", "\\-", text)
        text = text.replace("~", "\\(ti").replace("^", "\\(ha").replace('"', "\\(dq")
    return re.sub(r"[^\x00-\x7f]", lambda letter: f"\\[u{ord(letter.group(0)):04X}]", text)


class Roff:
    """Writes blocks as roff. `pages` says which names have a page in section 3, `own` whose page this is, `arguments` what is set
    in italics. What it refers to is gathered in `refers`."""

    def __init__(self, pages, own=(), arguments=()):
        self.pages, self.own, self.arguments = pages, set(own), set(arguments)
        self.refers = set()

    def name(self, name):
        name = name[:-2] if name.endswith("()") else name
        if name in self.own or name not in self.pages:
            return f"\\fB{escape(name)}\\fP"
        self.refers.add(name)
        return f"\\fB{escape(name)}\\fP(3)"

    def word(self, word):
        if NAME.fullmatch(word):
            return self.name(word)
        if word.endswith((".h", ".h>")):
            return f"\\fI{escape(word, True)}\\fP"
        if word.endswith(")"):
            return f"\\fB{word[:-3]}\\fP{word[-3:]}"
        return f"\\fB{escape(word, True)}\\fP"

    def code_word(self, word):
        if word in self.arguments:
            return f"\\fI{escape(word)}\\fP"
        return self.name(word) if NAME.fullmatch(word) else f"\\fB{escape(word, True)}\\fP"

    def words(self, text):
        return "".join(self.word(part) if number % 2 else escape(part) for number, part in enumerate(WORDS.split(text)))

    def line(self, sentence):
        sentence = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", sentence)
        parts = []
        for number, part in enumerate(sentence.split("`")):
            if number % 2:
                parts.append(self.code_word(part))
            else:
                strong = re.split(r"\*{1,2}(?=\S)([^*]+?)\*{1,2}", part)
                parts += [f"\\fI{escape(piece)}\\fP" if odd % 2 else self.words(piece) for odd, piece in enumerate(strong)]
        return "".join(parts)

    def lines(self, said):
        """Each sentence on lines of its own, which is where roff wants them to end."""
        found = []
        for sentence in said:
            found += textwrap.wrap(self.line(sentence), 78, break_long_words=False, break_on_hyphens=False)
        return "".join(("\\&" if line.startswith((".", "'")) else "") + line + "\n" for line in found)

    def tag(self, tag):
        names = [name.strip() for name in tag.split(",")]
        if all(name in self.arguments for name in names):
            return ", ".join(f"\\fI{escape(name)}\\fP" for name in names)
        if " " in tag and "`" not in tag:
            return self.line(tag)
        tag = tag.replace("`", "")
        return f"\\fB{escape(tag, True)}\\fP"

    def block(self, block, first=False):
        """One block; `first` after a heading, where a paragraph needs no request."""
        kind, content = block[0], block[-1]
        if kind == "heading":
            return f".{'SH' if block[1] < 3 else 'SS'} {escape(content.upper() if block[1] < 3 else content)}\n"
        if kind == "text":
            return ("" if first else ".PP\n") + self.lines(content)
        if kind == "code":
            return (".PP\n" if not first else "") + ".in +4n\n.EX\n" + code(content) + ".EE\n.in\n.nh\n"
        if kind == "list":
            return "".join(".IP \\(bu 2\n" + self.lines(item) for item in content)
        return "".join(f".TP\n{self.tag(tag)}\n{self.lines(said) or chr(92) + '&' + chr(10)}" for tag, said in content)

    def blocks(self, blocks):
        text, first = "", True
        for block in blocks:
            text += self.block(block, first)
            first = block[0] == "heading"
        return text


def code(text):
    return "".join(("\\&" if line.startswith((".", "'")) else "") + escape(line, True) + "\n" for line in text.splitlines())
