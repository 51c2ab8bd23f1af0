#!/usr/bin/env python3
"""Whether the unit tests notice mistakes: small ones are made in the library and in its platform layer, one at a time.

    scripts/mutants.py [--build DIR] --count 10 --seed 1     the build's unit tests have to be there

A mistake is an operator, a constant or a condition changed, a statement dropped, or two neighbours swapped. Each is
made in a copy of the sources, compiled and linked aside from the build directory, which is only read; then the test
programs run, likeliest first, until one fails, crashes or does not end. What does not compile, or compiles to the same
code, is no mistake; another is drawn. Which ones are drawn depends on the seed and on the lines' text alone, so that an
edit elsewhere does not change them.

Status 1 when fewer than 90 % are noticed, or one that is not has no explanation. Those stand in
tests/mutants/survivors.tsv: file, line as it was, line as it became, explanation. An explanation that begins with
"Equivalent: " says why nobody could ever see a difference; such a change is no mistake, and is counted apart.
"""

import argparse
import concurrent.futures
import hashlib
import os
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SOURCES = ("libruk", "common")
COPIED = SOURCES + ("softnic", "tests", "bench")
LEAST_PERCENT = 90

# They count the instructions of a program as it is shipped, which these are not.
LEFT_OUT = ["tests/hpp_cost_tests"]

# The programs likeliest to notice, by the beginning of the file's name; the others follow, quick ones first.
LIKELY = {
    "libruk/ruk_init": ["libruk_open_tests"],
    "libruk/ruk_open": ["libruk_open_tests", "libruk_bind_tests"],
    "libruk/ruk_bind": ["libruk_bind_tests"],
    "libruk/ruk_recv_event": ["libruk_recv_tests", "libruk_bind_tests"],
    "libruk/ruk_arista": ["libruk_arista_tests", "libruk_switch_adapter_tests"],
    "libruk/arista_switch": ["libruk_arista_tests"],
    "libruk/oxel_clksync": ["libruk_recv_tests"],
    "libruk/ruk_core_send": ["libruk_send_tests", "libruk_send_order_tests"],
    "libruk/ruk_send_connect": ["libruk_handle_tests"],
    "libruk/ruk_send": ["libruk_handle_tests", "libruk_send_tests"],
    "libruk/ruk_route": ["libruk_route_tests"],
    "libruk/ruk__eventq": ["libruk_recv_tests"],
    "libruk/ruk__eventq.h": ["libruk_recv_order_tests", "libruk_recv_tests", "libruk_open_tests"],
    "libruk/ruk__libtypes": ["format_test", "libruk_bind_tests"],
    "libruk/ruk__ip": ["format_test", "libruk_send_tests"],
    "libruk/ruk.hpp": ["hpp_tests"],
    "common/nuv_": ["format_test"],
    "common/tov_fops": ["common_tests", "fops_companion_test"],
    "common/tov_sock_funcs": ["common_tests"],
    "common/tov_timing": ["common_tests"],
    "common/tov_kutils": ["common_tests"],
    "common/tov_utils": ["common_tests"],
    "common/tov_ifaddrs": ["common_tests"],
    "common/tov_piocopy": ["piocopy_test", "libruk_send_order_tests"],
    "common/tov_io": ["libruk_send_order_tests", "libruk_recv_tests"],
    "common/oxel_raw": ["common_tests"],
}

# ---------------------------------------------------------------------------------------------------- what is changed


def mask(text):
    """The text with comments, strings and characters blanked, line for line and column for column."""
    pattern = r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|'(?:\\.|[^'\\\n])'"
    return re.sub(pattern, lambda m: re.sub(r"[^\n]", "\x00", m.group()), text, flags=re.DOTALL)


OPERATORS = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">="], ">": [">=", "<="], "<=": ["<", ">"], ">=": [">", "<"],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"], "<<": [">>"],
    ">>": ["<<"], "&": ["|"], "|": ["&"], "^": ["&"], "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="],
    "^=": ["="], "<<=": [">>="], ">>=": ["<<="],
}  # fmt: skip
# The format leaves blanks around binary operators alone.
BINARY = re.compile(r"(?<= )(<<=|>>=|==|!=|<=|>=|&&|\|\||\+=|-=|\|=|&=|\^=|<<|>>|[-+*/%&|^<>])(?=[ \n])")
NUMBER = re.compile(r"(?<![\w.\"'])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.'])")
STEP = re.compile(r"(\+\+|--)")
ERRNO = re.compile(r"\bE(?:INVAL|AGAIN|NOMEM|BUSY|NODEV|NOENT|PERM|ACCES|FAULT|IO|INTR|EXIST|TIMEDOUT|NOSYS|PROTO\w*|"
                   r"ADDR\w+|NET\w+|HOST\w+|NOTCONN|MSGSIZE|NXIO|BADF|NOSPC|OVERFLOW|OPNOTSUPP)\b")  # fmt: skip
TRUTH = re.compile(r"\b(true|false)\b")
NOT = re.compile(r"(?<=[(\s])!(?=[\w(])")
CONDITION = re.compile(r"\b(if|while) \(")
NO_STATEMENT = re.compile(r"\s*(?:[#}{]|case\b|default\b|else\b|if\b|for\b|while\b|do\b|switch\b|struct\b|class\b|enum\b|"
                          r"union\b|static_assert\b|using\b|typedef\b|extern\b|namespace\b|template\b|public\b|"
                          r"private\b|goto\b|friend\b)")  # fmt: skip
DECLARATION = re.compile(r"\s*(?:const |static |constexpr |inline |struct |unsigned |volatile )*[A-Za-z_]\w*(?:<[^;]*>)?"
                         r"(?:::\w+)*[ *&]+\w+(?:\[[^\]]*\])*(?: = .*|\{.*\})?;$", re.DOTALL)  # fmt: skip


class Mutant:
    def __init__(self, name, text, start, end, new, kind):
        self.name, self.kind, self.start, self.end, self.new = name, kind, start, end, new
        self.line = text.count("\n", 0, start) + 1
        first = text.rfind("\n", 0, start) + 1
        last = text.find("\n", end)
        last = len(text) if last < 0 else last
        self.before = text[first:last]
        self.after = text[first:start] + new + text[end:last]

    def key(self, seed, twin):
        """Which ones come first: by seed and by the text, lines of the same text by their order."""
        told = "\0".join([str(seed), self.name, self.before, self.after, str(twin)])
        return hashlib.sha256(told.encode()).hexdigest()

    def which(self):
        return (self.name, self.kind, *self.told()[1:])

    def told(self):
        return [self.name, " ".join(self.before.split()), " ".join(self.after.split())]


def statements(text, masked):
    """Spans (start, end, indentation) of simple statements inside functions, with None where a run of them ends."""
    position, start, previous = 0, None, ";"
    for line in masked.split("\n"):
        at, position = position, position + len(line) + 1
        bare = line.replace("\x00", " ").strip()
        if not bare:
            if start is None:
                yield None
            continue
        if start is None:
            indentation = len(line) - len(line.lstrip(" \x00"))
            body = previous.endswith((";", "{", "}", ":")) or re.match(r"(?:\} )?(?:if|for|while|else)\b", previous)
            if indentation >= 4 and not NO_STATEMENT.match(line) and body:
                start = at + indentation
            else:
                yield None
        if start is not None and bare.endswith(";"):
            end = at + len(line.replace("\x00", " ").rstrip())
            yield (start, end, indentation)
            start = None
        elif start is not None and bare.endswith(("{", "}")):
            start = None
            yield None
        previous = bare


def mutants_of(name, text):
    masked = mask(text)
    found = []

    def add(start, end, new, kind):
        if text[start:end] != new:
            found.append(Mutant(name, text, start, end, new, kind))

    # Directives with their continuations, and what the compiler alone reads.
    skipped = [m.span() for m in re.finditer(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*|\bstatic_assert\s*\([^;]*;|\bextern \"C\"|"
                                             r"\boffsetof\([^;\n]*|__attribute__\s*\(\([^\n]*?\)\)|\balignas\([^)\n]*\)|"
                                             r"\b__builtin_prefetch\([^;]*;",
                                             masked, flags=re.MULTILINE)]  # fmt: skip
    # Hints have no effect that a test could see.
    for m in re.finditer(r"\b__builtin_expect\(", masked):
        depth, at, comma = 1, m.end(), m.end()
        while at < len(masked) and depth:
            depth += {"(": 1, ")": -1}.get(masked[at], 0)
            if masked[at] == "," and depth == 1:
                comma = at
            at += 1
        skipped.append((comma, at))

    def counts(at):
        return not any(a <= at < b for a, b in skipped)

    for pattern, replacements in (
        (BINARY, lambda m: OPERATORS[m.group(1)]),
        (NUMBER, lambda m: number(m.group(1), m.group(2))),
        (STEP, lambda m: ["--" if m.group() == "++" else "++"]),
        (ERRNO, lambda m: ["EPIPE"]),
        (TRUTH, lambda m: ["false" if m.group() == "true" else "true"]),
        (NOT, lambda m: [""]),
    ):
        for m in pattern.finditer(masked):
            if counts(m.start()):
                start, end = m.span()
                for new in replacements(m):
                    add(start, end, new, "operator" if pattern in (BINARY, STEP, NOT) else "constant")
    for m in CONDITION.finditer(masked):
        if counts(m.start()):
            depth, at = 1, m.end()
            while at < len(masked) and depth:
                depth += {"(": 1, ")": -1}.get(masked[at], 0)
                at += 1
            add(m.end() - 1, at, "(!" + text[m.end() - 1 : at] + ")", "condition")
    run = []
    for s in statements(text, masked):
        if s is None or not counts(s[0]):
            run = []
            continue
        start, end, indentation = s
        last = masked[end:].lstrip("\x00 \n") == "" or re.match(r"[\x00 \n]*\n\}", masked[end:])
        statement = masked[start:end]
        is_return = re.match(r"return\b", statement)
        if not (last if is_return else DECLARATION.match(statement)):
            add(start, end, ";" + "\n" * text.count("\n", start, end), "dropped")
        if is_return or re.match(r"(?:break|continue)\b", statement):
            run = []
            continue
        if run and run[-1][2] == indentation and not masked[run[-1][1] : start].replace("\x00", "").strip():
            a, b = run[-1], s
            new = text[b[0] : b[1]] + text[a[1] : b[0]] + text[a[0] : a[1]]
            if "\n\n" not in text[a[1] : b[0]] and ordered(masked[a[0] : a[1]], masked[b[0] : b[1]]):
                add(a[0], b[1], new, "swapped")
        run = [s]
    return found


def ordered(a, b):
    """Whether it can matter which comes first: not for two assignments that have nothing to do with each other."""
    # Two objects set up or torn down, each by itself.
    each = r"(?:pthread_mutex_(?:init|destroy)|S?TAILQ_INIT|std::swap)\(([^()]*)\);$"
    one, other = re.match(each, a.strip()), re.match(each, b.strip())
    if one and other and one.group(1) != other.group(1):
        return False
    # A variable that takes its value from variables alone, which the other neither reads nor sets.
    for one, other in ((a, b), (b, a)):
        m = re.match(r"\s*(?:const )?\w+ (\w+) = (?:\(\w+\)|static_cast<\w+>)?\(?(\w+)\)?;$", one)
        sets = rf"\b{m.group(2)}(?: [-+*/|&^]?= |\+\+|--)|(?:&|\+\+|--){m.group(2)}\b" if m else ""
        if m and not re.search(rf"\b{m.group(1)}\b|{sets}", other):
            return False
    calls = r"\b(?!sizeof\b|tov_[bhn]e?\w*(?:16|32|64)\b|[hn]to[hn][sl]\b)\w+\("
    if re.search(calls, a) or re.search(calls, b):
        return True
    for one, other in ((a, b), (b, a)):
        m = re.match(r"(?:[\w ]*[ *])?([\w.\->\[\]]+) [-+*/|&^]?= ", one)
        if not m or re.search(rf"(?<![\w.>]){re.escape(m.group(1))}(?!\w)", other):
            return True
    return False


def number(digits, suffix):
    n = int(digits, 0 if digits[:2].lower() == "0x" or digits == "0" else 10)
    if digits[:2].lower() == "0x":
        return [hex(n ^ 1) + suffix, hex(n ^ (1 << max(n.bit_length() - 1, 0))) + suffix]
    return [str(n + 1) + suffix] + ([str(n - 1) + suffix] if n else [])


# ------------------------------------------------------------------------------------------------------------- build


PLACE = "\1"  # in commands, where the tree's path comes


class Failure(Exception):
    pass


class Program:
    def __init__(self, target, command):
        self.target, self.name, self.command = target, os.path.basename(target), command
        self.objects = [w for w in command.split() if w.endswith(".o") and "/test_support.dir/" not in w]
        self.seconds = 0.0
        self.members = set()  # of the library's archive that are in it


class Workshop:
    """A copy of the sources, objects and programs made of it, beside a build directory that is only read."""

    def __init__(self, build, scratch):
        self.build, self.scratch = os.path.realpath(build), scratch
        self.tree, self.whole = os.path.join(scratch, "tree"), os.path.join(scratch, "whole")
        for tree in (self.tree, self.whole):
            for part in COPIED:
                shutil.copytree(os.path.join(ROOT, part), os.path.join(tree, part), symlinks=True,
                                ignore=shutil.ignore_patterns("corpus"))
        # One time for all: the library's build string has it, and two objects of the same code would differ.
        self.environment = dict(os.environ, CCACHE_DISABLE="1", TMPDIR=scratch, LC_ALL="C", SOURCE_DATE_EPOCH="0")
        self.base = {}
        self.compile_commands = {}
        targets = self.ninja("-t", "targets", "all").splitlines()
        programs = [t.split(":")[0] for t in targets if re.match(r"tests/\w+: CXX_EXECUTABLE_LINKER", t)]
        self.programs = []
        for target in programs:
            command = self.ninja("-t", "commands", "-s", target).strip().splitlines()[-1]
            unit = re.search(r" tests/(?:unit|fault|sim|format)/", command)
            if target not in LEFT_OUT and unit and (" lib/libruk.a" in command or target == "tests/format_test"):
                self.programs.append(Program(target, command))
        if not self.programs:
            raise Failure(f"no unit tests in {self.build}: build it first")
        for p in self.programs:
            if not os.path.exists(os.path.join(self.build, p.target)):
                raise Failure(f"{p.target} has not been built in {self.build}")
        self.dependents = self.read_dependents()
        self.lld = ["-fuse-ld=lld", "-Wl,-S"] if shutil.which("ld.lld") else ["-Wl,-S"]

    def ninja(self, *arguments):
        done = subprocess.run(["ninja", "-C", self.build, *arguments], capture_output=True, text=True)
        if done.returncode:
            raise Failure(f"ninja {' '.join(arguments)}: {done.stderr.strip()}")
        return done.stdout

    def read_dependents(self):
        """Objects by the source or header that they are made of: the library's, and the test programs' own."""
        wanted = {o for p in self.programs for o in p.objects}
        dependents, current = {}, None
        for line in self.ninja("-t", "deps").splitlines():
            if line and not line.startswith(" "):
                current = line.split(":")[0]
            elif line.strip() and (current.startswith("libruk/CMakeFiles/ruk_objects.dir/") or current in wanted):
                path = os.path.relpath(os.path.realpath(os.path.join(self.build, line.strip())), ROOT)
                if path.startswith(SOURCES):
                    dependents.setdefault(path, []).append(current)
        return dependents

    def compile(self, target, output, tree):
        """Whether it compiles, from one of the copies; both give the same names to the compiler."""
        if target not in self.compile_commands:
            command = shlex.split(self.ninja("-t", "commands", "-s", target).strip().splitlines()[-1])
            words, skip = [], False
            for w in command:
                if skip or os.path.basename(w) in ("ccache",):
                    skip = False
                elif w in ("-MF", "-MT", "-o"):
                    skip = True
                elif w not in ("-MD", "-Werror", "-c") and not re.match(r"-g\d?$", w):
                    words.append(self.into_copy(w))
            # Tests need not be fast, and they are large.
            level = [] if target.startswith("libruk/") else ["-O0"]
            self.compile_commands[target] = words[:1] + ["-w", "-g0"] + words[1:] + level + ["-c"]
        words = [w.replace(PLACE, tree) for w in self.compile_commands[target]]
        done = subprocess.run([*words, f"-ffile-prefix-map={tree}=.", "-o", output], cwd=self.build, env=self.environment,
                              capture_output=True, timeout=300)  # fmt: skip
        return done.returncode == 0

    def into_copy(self, word):
        prefix, path = re.match(r"(-I|-isystem)?(.*)", word, re.DOTALL).groups()
        for part in COPIED:
            own = os.path.join(ROOT, part)
            if "/" in path and not path.startswith("-"):
                full = os.path.normpath(os.path.join(self.build, path))
                if full == own or full.startswith(own + "/"):
                    return (prefix or "") + PLACE + full[len(ROOT) :]
        return word

    def object_path(self, kind, target):
        path = os.path.join(self.scratch, kind, target)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        return path

    def unchanged(self, target):
        """The object as it is without a mistake; compiled when first asked for."""
        if target not in self.base:
            path = self.object_path("base", target)
            if not self.compile(target, path, self.whole):
                raise Failure(f"{target} does not compile")
            self.base[target] = path
        return self.base[target]

    def archive(self, changed):
        """The library's archive with some of its members replaced."""
        path = os.path.join(self.scratch, "libruk.a")
        shutil.copyfile(os.path.join(self.build, "lib", "libruk.a"), path)
        if changed:
            subprocess.run(["ar", "r", path, *changed], check=True, capture_output=True)
        return path

    def link(self, program, archive, replaced):
        command = program.command.replace(": && ", "", 1).rsplit(" && :", 1)[0]
        output = os.path.join(self.scratch, "bin", program.name)
        os.makedirs(os.path.dirname(output), exist_ok=True)
        words = shlex.split(command)
        words = [archive if w == "lib/libruk.a" else replaced.get(w, w) for w in words]
        words[words.index("-o") + 1] = output
        done = subprocess.run(words + self.lld + ["-Wl,--trace", "-Wl,--trace"], cwd=self.build, env=self.environment, capture_output=True, text=True,
                              timeout=300)  # fmt: skip
        if done.returncode:
            raise Failure(f"{program.name} does not link: {done.stderr[:500]}")
        if not program.members:
            # "libruk.a(ruk_open.cpp.o)" of one linker is "(libruk.a)ruk_open.cpp.o" of another, told when asked twice.
            program.members = set(re.findall(r"libruk\.a[()]+(\w+\.cpp\.o)", done.stdout)) or {"none"}
        return output

    def likely(self, name):
        return next((v for k, v in sorted(LIKELY.items(), reverse=True) if name.startswith(k)), [])

    def order(self, name):
        likely = self.likely(name)
        rank = {p: i for i, p in enumerate(likely)}
        return sorted(self.programs, key=lambda p: (rank.get(p.name, len(rank)), p.seconds))


def limits():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 28, 1 << 28))
    resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))
    if sys.maxsize > 1 << 32:
        resource.setrlimit(resource.RLIMIT_AS, (1 << 34, 1 << 34))


def run_test(program, scratch, seconds):
    """None when it passes, else how it failed. A pause of the whole machine is not held against it."""
    with tempfile.TemporaryDirectory(dir=scratch) as home, open(os.path.join(home, "out"), "w+b") as out:
        child = subprocess.Popen([program, "--gtest_fail_fast", "--gtest_color=no"], cwd=home, stdin=subprocess.DEVNULL,
                                 stdout=out, stderr=out, start_new_session=True, preexec_fn=limits,
                                 env=dict(os.environ, TMPDIR=home, RUK_SIM_SEEDS="100"))  # fmt: skip
        spent = 0.0
        last = time.monotonic()
        try:
            while spent < seconds:
                try:
                    child.wait(0.05)
                    break
                except subprocess.TimeoutExpired:
                    now = time.monotonic()
                    spent += min(now - last, 0.2)  # a longer gap is a pause
                    last = now
        finally:
            ended = child.poll() is not None
            try:
                os.killpg(child.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            child.wait()
        if not ended:
            return "time-out"
        if child.returncode == 0:
            return None
        out.seek(0)
        text = out.read().decode(errors="replace")
        m = re.search(r"\[  FAILED  \] (\S+)", text)
        if m is None and child.returncode > 0:
            m = re.search(r"\[ RUN      \] (\S+)(?!.*\[ RUN)", text, re.DOTALL)
        if child.returncode < 0:
            running = re.findall(r"\[ RUN      \] (\S+)", text)
            return f"{signal.Signals(-child.returncode).name} in {running[-1] if running else '?'}"
        return m.group(1) if m else f"status {child.returncode}"


def attempt(shop, mutant):
    """Result and how: killed, survived, or discarded."""
    path = os.path.join(shop.tree, mutant.name)
    with open(path, encoding="utf-8") as file:
        original = file.read()
    targets = shop.dependents.get(mutant.name, [])
    library = [t for t in targets if t.startswith("libruk/")]
    own = [t for t in targets if not t.startswith("libruk/")]
    # A source that a test program includes is part of that program; a header is, of the programs that are about it.
    if not mutant.name.endswith(".cpp"):
        about = shop.order(mutant.name)[: max(1, len(shop.likely(mutant.name)))]
        own = [t for t in own if any(t in p.objects for p in about)]
    changed, replaced = [], {}
    try:
        with open(path, "w", encoding="utf-8") as file:
            file.write(original[: mutant.start] + mutant.new + original[mutant.end :])

        def make(target, compare):
            output = shop.object_path("mutant", target)
            if not shop.compile(target, output, shop.tree):
                return None
            if not compare:
                return True
            with open(output, "rb") as a, open(shop.unchanged(target), "rb") as b:
                return a.read() != b.read()

        def make_all(some, compare=True):
            """Targets whose code changed, or None when one does not compile; the first alone, for most fail there."""
            different = []
            for group in (some[:1], some[1:]):
                with concurrent.futures.ThreadPoolExecutor(shop.jobs) as pool:
                    for target, result in zip(group, pool.map(make, group, [compare] * len(group))):
                        if result is None:
                            return None
                        if result:
                            different.append(target)
            return different

        different = make_all(library)
        if different is None:
            return "discarded", "does not compile"
        changed = [shop.object_path("mutant", t) for t in different]
        if mutant.name.endswith(".cpp"):
            more = make_all(own)
            if more is None:
                return "discarded", "does not compile"
            replaced = {t: shop.object_path("mutant", t) for t in more}
        elif not different:
            more = make_all(own)
            if more is None:
                return "discarded", "does not compile"
            replaced = {t: shop.object_path("mutant", t) for t in more}
        if not changed and not replaced:
            return "discarded", "same code"
        result = run_all(shop, mutant, changed, replaced)
        if result[0] == "survived" and not mutant.name.endswith(".cpp") and not replaced:
            # The tests so far stood on the header as it was. Those about it see it changed, too.
            more = make_all(own, compare=False)
            if more is None:
                return "discarded", "a test program does not compile"
            replaced = {t: shop.object_path("mutant", t) for t in more}
            if replaced:
                result = run_all(shop, mutant, changed, replaced)
        return result
    finally:
        with open(path, "w", encoding="utf-8") as file:
            file.write(original)


def run_all(shop, mutant, changed, replaced):
    archive = shop.archive(changed)
    members = {os.path.basename(c) for c in changed}
    for p in shop.order(mutant.name):
        if not members & p.members and not any(o in replaced for o in p.objects):
            continue  # nothing of it is in there
        try:
            program = shop.link(p, archive, replaced)
        except Failure:
            return "discarded", "does not link"
        how = run_test(program, shop.scratch, 10 + 10 * p.seconds)
        if how is not None:
            return "killed", f"{p.name}: {how}"
    return "survived", ""


def read_explained():
    explained = {}
    try:
        with open(os.path.join(ROOT, "tests", "mutants", "survivors.tsv"), encoding="utf-8") as file:
            for line in file:
                if line.strip() and not line.startswith("#"):
                    *told, why = line.rstrip("\n").split("\t")
                    explained[tuple(told)] = why
    except FileNotFoundError:
        pass
    return explained


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=os.path.join(ROOT, "build"), help="a build directory of this tree")
    parser.add_argument("--count", type=int, default=10)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--only", default="", help="files whose name contains this alone")
    parser.add_argument("--explained", action="store_true", help="only those that are explained as survivors")
    parser.add_argument("--list", action="store_true", help="only say what would be tried")
    parser.add_argument("--jobs", type=int, default=2, help="compilers at once")
    parser.add_argument("--results", help="a file that takes a line for each, as they come; what is in it is not redone")
    parser.add_argument("--again", action="store_true", help="with --results: redo those that survived, and only those")
    options = parser.parse_args()
    sys.stdout.reconfigure(line_buffering=True)

    explained = read_explained()
    drawn = []
    for part in SOURCES:
        for file in sorted(os.listdir(os.path.join(ROOT, part))):
            if file.endswith((".cpp", ".h", ".hpp")) and options.only in f"{part}/{file}":
                with open(os.path.join(ROOT, part, file), encoding="utf-8") as f:
                    twins = {}
                    for m in mutants_of(f"{part}/{file}", f.read()):
                        twin = twins[(m.before, m.after)] = twins.get((m.before, m.after), 0) + 1
                        if not options.explained or tuple(m.told()) in explained:
                            drawn.append((m.key(options.seed, twin), m))
    drawn = [m for _, m in sorted(drawn, key=lambda d: d[0])]
    print(f"{len(drawn)} mistakes can be made; seed {options.seed}")
    if options.list:
        for m in drawn[: options.count]:
            print(f"{m.name}:{m.line}: {m.kind}\n  - {m.before.strip()}\n  + {m.after.strip()}")
        return 0

    began = time.monotonic()
    earlier = {}
    if options.results and os.path.exists(options.results):
        with open(options.results, encoding="utf-8") as file:
            for line in file:
                result, how, _, place, *told = line.rstrip("\n").split("\t")
                earlier.setdefault((place.split(":")[0], *told), []).append((result, how))
    if options.again:
        drawn = [m for m in drawn if any(r == "survived" for r, _ in earlier.get(m.which(), []))]
        earlier = {}
    results = open(options.results, "a", encoding="utf-8") if options.results and not options.again else None
    killed, survivors, discarded, done = 0, [], 0, 0
    with tempfile.TemporaryDirectory(prefix="mutants.") as scratch:
        shop = Workshop(options.build, scratch)
        shop.jobs = options.jobs
        archive = shop.archive([])
        for p in shop.programs:
            start = time.monotonic()
            how = run_test(shop.link(p, archive, {}), scratch, 300)
            p.seconds = time.monotonic() - start
            if how:
                raise Failure(f"{p.name} fails without any mistake: {how}")
        if all(p.members == {"none"} for p in shop.programs):
            raise Failure("no test program has anything of the library's archive, by what the linker says")
        print(f"{len(shop.programs)} test programs pass as things are, "
              f"in {sum(p.seconds for p in shop.programs):.1f} s")  # fmt: skip
        for m in drawn:
            if done == options.count:
                break
            start = time.monotonic()
            before = earlier.get(m.which())
            if before:
                result, how = before.pop(0)
            else:
                result, how = attempt(shop, m)
            line = "\t".join([result, how, f"{time.monotonic() - start:.1f}", f"{m.name}:{m.line}", *m.which()[1:]])
            if results and before is None:
                results.write(line + "\n")
                results.flush()
            if result == "discarded":
                discarded += 1
                continue
            done += 1
            if result == "killed":
                killed += 1
            else:
                survivors.append(m)
            print(f"{done:4} {result:8} {m.name}:{m.line} {m.kind}{': ' + how if how else ''}")
    unexplained = equivalent = 0
    for m in survivors:
        why = explained.get(tuple(m.told()))
        unexplained += why is None
        equivalent += (why or "").startswith("Equivalent: ")
        print(f"\nsurvived: {m.name}:{m.line}: {why or 'NOT EXPLAINED'}")
        print("".join(f"  - {l}\n" for l in m.before.split("\n")) + "".join(f"  + {l}\n" for l in m.after.split("\n")), end="")
    percent = 100 * killed / (done - equivalent) if done > equivalent else 100
    print(f"\n{done} mutants: {killed} killed, {len(survivors)} survived ({equivalent} equivalent, "
          f"{len(survivors) - equivalent - unexplained} explained otherwise, {unexplained} not), {percent:.1f} % of the "
          f"{done - equivalent} mistakes noticed; {discarded} others did not compile or changed no code; "
          f"{time.monotonic() - began:.0f} s")  # fmt: skip
    if done < options.count and not options.explained and not options.again:
        print(f"mutants: only {done} of {options.count} could be made", file=sys.stderr)
        return 1
    return 0 if percent >= LEAST_PERCENT and not unexplained else 1


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # the copies go, too
    try:
        sys.exit(main())
    except Failure as failure:
        print(f"mutants: {failure}", file=sys.stderr)
        sys.exit(2)
