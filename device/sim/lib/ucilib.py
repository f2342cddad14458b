# UCI configuration store of the simulated device: parser and writer of the
# config file syntax, staged changes ("delta" files in the save directory,
# /tmp/.uci on the device) and the operations behind the `uci` tool.
import os
import re
import zlib


class UciError(Exception):
    """Error with the text that `uci` prints after "uci: "."""


NOT_FOUND = "Entry not found"
INVALID = "Invalid argument"
PARSE = "Parse error"

_NAME_RE = re.compile(r"^[A-Za-z0-9_]+$")
_TYPE_RE = re.compile(r"^[A-Za-z0-9_\-]+$")


def tokenize(line):
    """Split one line of UCI syntax into words: blanks separate, single
    quotes are literal, double quotes and bare words honour backslashes,
    '#' outside quotes starts a comment."""
    words, cur, have, i, n = [], [], False, 0, len(line)
    while i < n:
        c = line[i]
        if c in " \t\r\n":
            if have:
                words.append("".join(cur))
                cur, have = [], False
            i += 1
        elif c == "#" and not have:
            break
        elif c == "'":
            j = line.find("'", i + 1)
            if j < 0:
                raise UciError(PARSE + " (unterminated ')")
            cur.append(line[i + 1:j])
            have, i = True, j + 1
        elif c == '"':
            i += 1
            while True:
                if i >= n:
                    raise UciError(PARSE + ' (unterminated ")')
                if line[i] == '"':
                    i += 1
                    break
                if line[i] == "\\" and i + 1 < n:
                    i += 1
                cur.append(line[i])
                i += 1
            have = True
        elif c == "\\" and i + 1 < n:
            cur.append(line[i + 1])
            have, i = True, i + 2
        else:
            cur.append(c)
            have, i = True, i + 1
    if have:
        words.append("".join(cur))
    return words


def quote(value):
    return "'" + value.replace("'", "'\\''") + "'"


class Section:
    def __init__(self, name, stype, anonymous):
        self.name, self.type, self.anonymous = name, stype, anonymous
        self.options = {}  # name -> str or list of str (insertion ordered)


class Package:
    def __init__(self, name):
        self.name = name
        self.sections = []

    def find(self, name):
        for s in self.sections:
            if s.name == name:
                return s
        return None

    def of_type(self, stype):
        return [s for s in self.sections if s.type == stype]

    def new_anon_name(self, stype):
        idx = len(self.sections)
        while True:
            h = zlib.crc32(("%s:%d" % (stype, idx)).encode()) & 0xFFFF
            name = "cfg%02x%04x" % (idx & 0xFF, h)
            if self.find(name) is None:
                return name
            idx += 1


def parse_config(pkgname, text):
    pkg, cur = Package(pkgname), None
    for lineno, line in enumerate(text.splitlines(), 1):
        words = tokenize(line)
        if not words:
            continue
        kw = words[0]
        if kw == "package":
            continue
        if kw == "config":
            if len(words) < 2:
                raise UciError(PARSE + " (line %d)" % lineno)
            stype = words[1]
            if len(words) > 2 and words[2]:
                cur = pkg.find(words[2])
                if cur is None:
                    cur = Section(words[2], stype, False)
                    pkg.sections.append(cur)
                else:
                    cur.type = stype
            else:
                cur = Section(pkg.new_anon_name(stype), stype, True)
                pkg.sections.append(cur)
        elif kw in ("option", "list"):
            if cur is None or len(words) < 2:
                raise UciError(PARSE + " (line %d)" % lineno)
            value = words[2] if len(words) > 2 else ""
            if kw == "option":
                cur.options[words[1]] = value
            else:
                old = cur.options.get(words[1])
                if isinstance(old, list):
                    old.append(value)
                elif old is None:
                    cur.options[words[1]] = [value]
                else:
                    cur.options[words[1]] = [old, value]
        else:
            raise UciError(PARSE + " (line %d)" % lineno)
    return pkg


def export_config(pkg, with_package=False):
    out = []
    if with_package:
        out.append("package %s\n" % pkg.name)
    for s in pkg.sections:
        out.append("\nconfig %s" % s.type)
        if not s.anonymous:
            out.append(" %s" % quote(s.name))
        out.append("\n")
        for k, v in s.options.items():
            if isinstance(v, list):
                for item in v:
                    out.append("\tlist %s %s\n" % (k, quote(item)))
            else:
                out.append("\toption %s %s\n" % (k, quote(v)))
    out.append("\n")
    return "".join(out)


class Ptr:
    """A parsed path pkg[.section[.option]][=value]."""

    def __init__(self, text, want_value=False):
        self.value = None
        if "=" in text:
            text, self.value = text.split("=", 1)
        elif want_value:
            raise UciError(INVALID)
        parts = text.split(".", 2)
        if not parts[0]:
            raise UciError(INVALID)
        self.package = parts[0]
        self.section = parts[1] if len(parts) > 1 else None
        self.option = parts[2] if len(parts) > 2 else None
        if self.section == "" or self.option == "":
            raise UciError(INVALID)


_EXT_RE = re.compile(r"^@([A-Za-z0-9_\-]*)\[(-?\d+)\]$")


def resolve_section(pkg, ref):
    """Section named `ref`, or selected by the @type[index] syntax."""
    m = _EXT_RE.match(ref)
    if m:
        lst = pkg.of_type(m.group(1)) if m.group(1) else list(pkg.sections)
        idx = int(m.group(2))
        if -len(lst) <= idx < len(lst):
            return lst[idx]
        return None
    return pkg.find(ref)


class Store:
    """Configuration files in `confdir`, staged changes in `savedir`."""

    def __init__(self, confdir="/etc/config", savedir="/tmp/.uci"):
        self.confdir, self.savedir = confdir, savedir

    # ---- loading -------------------------------------------------------
    def packages(self):
        try:
            names = os.listdir(self.confdir)
        except OSError:
            return []
        return sorted(n for n in names
                      if not n.startswith(".") and
                      os.path.isfile(os.path.join(self.confdir, n)))

    def load(self, name, with_delta=True):
        path = os.path.join(self.confdir, name)
        if not _NAME_RE.match(name) or not os.path.isfile(path):
            raise UciError(NOT_FOUND)
        with open(path, encoding="utf-8", errors="surrogateescape") as f:
            pkg = parse_config(name, f.read())
        if with_delta:
            for entry in self.read_delta(name):
                try:
                    self.apply(pkg, *entry)
                except UciError:
                    pass
        return pkg

    def delta_path(self, name):
        return os.path.join(self.savedir, name)

    def read_delta(self, name):
        """Entries (cmd, section, option, value) of the staged changes."""
        try:
            with open(self.delta_path(name), encoding="utf-8",
                      errors="surrogateescape") as f:
                lines = f.read().splitlines()
        except OSError:
            return []
        out = []
        for line in lines:
            if not line:
                continue
            cmd = line[0] if line[0] in "-@+|~^" else ""
            body = line[len(cmd):]
            path, _, raw = body.partition("=")
            value = None
            if _:
                words = tokenize(raw)
                value = words[0] if words else ""
            parts = path.split(".", 2)
            if len(parts) < 2:
                continue
            out.append((cmd, parts[1], parts[2] if len(parts) > 2 else None,
                        value))
        return out

    def add_delta(self, name, cmd, section, option, value):
        os.makedirs(self.savedir, mode=0o700, exist_ok=True)
        line = cmd + name + "." + section
        if option is not None:
            line += "." + option
        if value is not None:
            line += "=" + quote(value)
        with open(self.delta_path(name), "a", encoding="utf-8",
                  errors="surrogateescape") as f:
            f.write(line + "\n")

    # ---- applying one change to a package in memory ------------------------
    @staticmethod
    def apply(pkg, cmd, section, option, value):
        s = pkg.find(section)
        if cmd == "+":
            if s is None:
                pkg.sections.append(Section(section, value, True))
            return
        if cmd == "" and option is None:
            if s is None:
                pkg.sections.append(Section(section, value, False))
            else:
                s.type = value
            return
        if s is None:
            raise UciError(NOT_FOUND)
        if cmd == "":
            if value == "":
                s.options.pop(option, None)
            else:
                s.options[option] = value
        elif cmd == "-":
            if option is None:
                pkg.sections.remove(s)
            elif value is not None and isinstance(s.options.get(option), list):
                s.options[option] = [v for v in s.options[option] if v != value]
            else:
                s.options.pop(option, None)
        elif cmd == "@":
            if option is None:
                s.name, s.anonymous = value, False
            elif option in s.options:
                items = list(s.options.items())
                s.options = {(value if k == option else k): v for k, v in items}
        elif cmd == "|":
            old = s.options.get(option)
            if old is None:
                s.options[option] = [value]
            elif isinstance(old, list):
                old.append(value)
            else:
                s.options[option] = [old, value]
        elif cmd == "~":
            old = s.options.get(option)
            if isinstance(old, list):
                s.options[option] = [v for v in old if v != value]
        elif cmd == "^":
            pkg.sections.remove(s)
            pkg.sections.insert(max(0, int(value)), s)

    def change(self, pkg, cmd, section, option, value):
        """Apply a change in memory and stage it."""
        self.apply(pkg, cmd, section, option, value)
        self.add_delta(pkg.name, cmd, section, option, value)

    # ---- commands ------------------------------------------------------
    def lookup(self, ptr, need_section=True):
        pkg = self.load(ptr.package)
        sec = None
        if ptr.section is not None:
            sec = resolve_section(pkg, ptr.section)
            if sec is None and need_section:
                raise UciError(NOT_FOUND)
        return pkg, sec

    def get(self, path):
        ptr = Ptr(path)
        if ptr.section is None:
            raise UciError(INVALID)
        pkg, sec = self.lookup(ptr)
        if ptr.option is None:
            return sec.type
        if ptr.option not in sec.options:
            raise UciError(NOT_FOUND)
        v = sec.options[ptr.option]
        return " ".join(v) if isinstance(v, list) else v

    def set(self, arg):
        ptr = Ptr(arg, want_value=True)
        if ptr.section is None:
            raise UciError(INVALID)
        pkg, sec = self.lookup(ptr, need_section=False)
        if ptr.option is None:
            if not _TYPE_RE.match(ptr.value or ""):
                raise UciError(INVALID)
            if sec is None:
                if not _NAME_RE.match(ptr.section):
                    raise UciError(INVALID)
                name = ptr.section
            else:
                name = sec.name
            self.change(pkg, "", name, None, ptr.value)
            return
        if sec is None or not _NAME_RE.match(ptr.option):
            raise UciError(INVALID)
        if ptr.value == "" and ptr.option not in sec.options:
            return
        self.change(pkg, "", sec.name, ptr.option, ptr.value)

    def add(self, pkgname, stype):
        if not _TYPE_RE.match(stype):
            raise UciError(INVALID)
        pkg = self.load(pkgname)
        name = pkg.new_anon_name(stype)
        self.change(pkg, "+", name, None, stype)
        return name

    def _list_op(self, arg, cmd):
        ptr = Ptr(arg, want_value=True)
        if ptr.option is None:
            raise UciError(INVALID)
        pkg, sec = self.lookup(ptr)
        if cmd == "~" and ptr.option not in sec.options:
            return
        self.change(pkg, cmd, sec.name, ptr.option, ptr.value)

    def add_list(self, arg):
        self._list_op(arg, "|")

    def del_list(self, arg):
        self._list_op(arg, "~")

    def delete(self, arg):
        ptr = Ptr(arg)
        if ptr.section is None:
            raise UciError(INVALID)
        pkg, sec = self.lookup(ptr)
        if ptr.option is not None and ptr.option not in sec.options:
            raise UciError(NOT_FOUND)
        value = ptr.value if ptr.option is not None else None
        self.change(pkg, "-", sec.name, ptr.option, value)

    def rename(self, arg):
        ptr = Ptr(arg, want_value=True)
        if ptr.section is None or not _NAME_RE.match(ptr.value or ""):
            raise UciError(INVALID)
        pkg, sec = self.lookup(ptr)
        if ptr.option is not None and ptr.option not in sec.options:
            raise UciError(NOT_FOUND)
        self.change(pkg, "@", sec.name, ptr.option, ptr.value)

    def reorder(self, arg):
        ptr = Ptr(arg, want_value=True)
        if ptr.section is None or ptr.option is not None:
            raise UciError(INVALID)
        pkg, sec = self.lookup(ptr)
        int(ptr.value)
        self.change(pkg, "^", sec.name, None, ptr.value)

    def show(self, path=None, real_names=False):
        names = self.packages() if path is None else [Ptr(path).package]
        ptr = Ptr(path) if path else None
        out = []
        for name in names:
            pkg = self.load(name)
            sections = pkg.sections
            if ptr is not None and ptr.section is not None:
                sec = resolve_section(pkg, ptr.section)
                if sec is None:
                    raise UciError(NOT_FOUND)
                sections = [sec]
            for s in sections:
                label = s.name
                if s.anonymous and not real_names:
                    label = "@%s[%d]" % (s.type, pkg.of_type(s.type).index(s))
                prefix = "%s.%s" % (name, label)
                opts = list(s.options.items())
                if ptr is not None and ptr.option is not None:
                    if ptr.option not in s.options:
                        raise UciError(NOT_FOUND)
                    opts = [(ptr.option, s.options[ptr.option])]
                else:
                    out.append("%s=%s" % (prefix, s.type))
                for k, v in opts:
                    vals = v if isinstance(v, list) else [v]
                    out.append("%s.%s=%s" % (prefix, k,
                                             " ".join(quote(x) for x in vals)))
        return out

    def changes(self, pkgname=None):
        names = [pkgname] if pkgname else sorted(
            n for n in (os.listdir(self.savedir)
                        if os.path.isdir(self.savedir) else [])
            if not n.startswith("."))
        out = []
        ops = {"": "", "-": "-", "@": "@", "+": "+", "|": "+", "~": "-",
               "^": "^"}
        for name in names:
            for cmd, sec, opt, val in self.read_delta(name):
                line = ops[cmd] + name + "." + sec
                if opt is not None:
                    line += "." + opt
                if val is not None:
                    line += "=" + quote(val)
                out.append(line)
        return out

    def commit(self, pkgname=None):
        if pkgname:
            names = [Ptr(pkgname).package]
        else:
            names = [n for n in self.packages()
                     if os.path.isfile(self.delta_path(n))]
        for name in names:
            pkg = self.load(name)
            path = os.path.join(self.confdir, name)
            tmp = os.path.join(self.confdir, ".%s.uci-new" % name)
            with open(tmp, "w", encoding="utf-8",
                      errors="surrogateescape") as f:
                f.write(export_config(pkg))
            os.rename(tmp, path)
            try:
                os.unlink(self.delta_path(name))
            except FileNotFoundError:
                pass

    def revert(self, path):
        ptr = Ptr(path)
        if ptr.section is None:
            self.load(ptr.package)
            try:
                os.unlink(self.delta_path(ptr.package))
            except FileNotFoundError:
                pass
            return
        pkg = self.load(ptr.package)
        sec = resolve_section(pkg, ptr.section)
        secname = sec.name if sec is not None else ptr.section
        kept = []
        for entry in self.read_delta(ptr.package):
            cmd, s, o, v = entry
            hit = s == secname and (ptr.option is None or o == ptr.option)
            if not hit:
                kept.append(entry)
        try:
            os.unlink(self.delta_path(ptr.package))
        except FileNotFoundError:
            pass
        for cmd, s, o, v in kept:
            self.add_delta(ptr.package, cmd, s, o, v)
