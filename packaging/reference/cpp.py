"""What Doxygen reads in place of a header of C++: its `//` comments become doc comments.

A comment is of the declaration that follows it without a blank line, and of the functions that follow that one in the same way; or
of what stands before it on its line. The first one is of the file. What is not for users is left out: function bodies, private
members, the namespace detail, and the inline namespace that names the standard. The text is expected as clang-format leaves it."""
import re

OPENS = re.compile(r"\s*(namespace|inline namespace|class|struct|union|enum)\b|.*\bextern \"C\"")
RECORD = re.compile(r"(template <.*>\n)?(class|struct)\b", re.S)
SEPARATES = re.compile(r"#|\s*(\{|\};|public:)$")


def without_details(text):
    """Without what is not for users, and without what only the compiler needs."""
    text = re.sub(r"^namespace detail\n\{\n.*?^\} // namespace detail\n", "", text, flags=re.S | re.M)
    text = re.sub(r"^  private:\n.*?^(?=\};)", "", text, flags=re.S | re.M)
    text = re.sub(r"(^#define ZEB_CPP_\w+\n).*?(?=^namespace zeb$)", r"\1", text, flags=re.S | re.M)
    text = re.sub(r"^    \w+\((std::shared_ptr<)?detail::.*?^    \}\n", "", text, flags=re.S | re.M)
    text = re.sub(r"^(inline namespace \w+\n\{|\} // namespace ZEB_HPP_STANDARD|#pragma .*|\s*// NOLINT.*|#include .*)\n", "", text, flags=re.M)
    text = re.sub(r" // NOLINT.*", "", text)
    text = re.sub(r" : detail::\w+$", "", text, flags=re.M)
    return re.sub(r"(^\} // namespace zeb\n).*(?=^#endif)", r"\1", text, flags=re.S | re.M)


def without_bodies(text):
    """Each function's body is empty."""
    out, end, before = [], None, ""
    for line in text.splitlines():
        if end is None:
            out.append(line)
            if line.strip() == "{" and not OPENS.match(before):
                end = line.replace("{", "}")
            elif line.strip():
                before = line
        elif line == end:
            out.append(line)
            end = None
    return out


def arguments(declaration):
    """The names of a function's arguments."""
    found = re.search(r"(\w+|operator\S+)\((.*)", re.sub(r"^template <.*>$", "", declaration, count=1, flags=re.M), re.S)
    if not found:
        return []
    depth, names, part = 0, [], ""
    for letter in found.group(2):
        depth += {"(": 1, "<": 1, ")": -1, ">": -1}.get(letter, 0)
        if depth < 0 or (letter == "," and depth == 0):
            name = re.search(r"(\w+)\s*$", part.split("=")[0])
            names += [name.group(1)] if name else []
            part = ""
        else:
            part += letter
        if depth < 0:
            break
    return names


def is_function(declaration):
    named = any(OPENS.match(line) for line in declaration.splitlines())
    return "(" in declaration and not named and not re.search(r"= (default|delete);|^\s*(using|~)", declaration)


def with_docs(name, text, documented, escaped):
    """`documented` makes the text of a comment, given the names of arguments; `escaped` that of a line."""
    lines, out, at, first, shared = without_bodies(without_details(text)), [], 0, True, None
    while at < len(lines):
        line = lines[at]
        if line.strip().startswith("//"):
            end = at
            while end < len(lines) and lines[end].strip().startswith("//"):
                end += 1
            said = "\n".join(re.sub(r"^\s*// ?", "", each) for each in lines[at:end])
            following = declaration_at(lines, end)
            if first:
                out.append(f"/** \\file\n{headed(documented(said, []))} */")
            elif RECORD.match(following):
                out.append(f"/** {documented(said, ['none'])}\n\n\\headerfile {name} <zeb/zeb.hpp> */")
            elif following:
                out.append(f"/** {documented(said, arguments(following) or ['none'])} */")
            shared = said if following and is_function(following) else None
            first, at = False, end
            at = copy_declaration(lines, at, out, escaped) if following and is_function(following) else at
        elif not line.strip() or SEPARATES.match(line):
            shared = None
            out.append(line)
            at += 1
        else:
            following = declaration_at(lines, at)
            if shared and is_function(following):
                out.append(f"/** {documented(shared, arguments(following) or ['none'])} */")
            at = copy_declaration(lines, at, out, escaped) if is_function(following) else copy_line(line, out, escaped, at)
    return "\n".join(out) + "\n"


def headed(said):
    """The words that paragraphs begin with, in bold."""
    return re.sub(r"^((?<=\n\n)[A-Z]\w+\.)(?= )", r"<b>\1</b>", said, flags=re.M)


def declaration_at(lines, at):
    """The declaration that begins on a line; empty when none does."""
    found = []
    for line in lines[at:]:
        if not line.strip() or line.strip().startswith("//") or SEPARATES.match(line) and not (found and line.strip() == "{"):
            break
        found.append(re.sub(r"\s*//.*", "", line))
        if found[-1].endswith((";", "{", "}")):
            break
    return "\n".join(found)


def copy_line(line, out, escaped, at):
    code, mark, said = line.partition(" // ")
    if mark and not code.startswith("}"):
        line = f"{code} /**< {escaped(said)} */"
    out.append(line)
    return at + 1


def copy_declaration(lines, at, out, escaped):
    """Copies a function with its empty body, and gives the line after it."""
    while at < len(lines):
        line = lines[at]
        at = copy_line(line, out, escaped, at)
        if line.split(" // ")[0].rstrip().endswith((";", "}")):
            return at
    return at
