#!/usr/bin/env python3
"""Runs every shell session that README.md, docs/*.md and the man pages show, and
compares what each command prints with the text shown after it. The marker rule
is in docs/testing.md. Needs root; run it inside lab/lan/isolated.sh.

  shown.py BUILD [DOCUMENT...]    run (every document by default)
  shown.py --list [DOCUMENT...]   list the marked blocks and their setups
"""
import difflib
import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DOCS = ["README.md", "docs/*.md", "packaging/man/*.1.in"]

# Placeholders: what a person expects to differ from run to run, matched loosely in both texts.
PLACEHOLDERS = [
    (re.compile(r"\b(pid|fd)=\d+"), r"\1=N"),
    (re.compile(r"^ *\d+ +\d+\.\d{6} ", re.M), "N T "),  # a capture's frame number and time, padded
    (re.compile(r"\bseq 0x[0-9a-f]{4}\b"), "seq 0xN"),
]
OPTIONS = ["user", "unordered"]  # after SETUP: run as nobody; compare the lines in any order
ROFF = [(r"\-", "-"), (r"\e", "\\"), (r"\(aq", "'"), (r"\(dq", '"'), (r"\(em", "—")]


def unroff(line):
    line = re.sub(r"\\f[BIRP]", "", line)
    for escape, text in ROFF:
        line = line.replace(escape, text)
    return line


def blocks(path):
    """Yields (line, kind, words, text) for each code block: kind "session", "file" or None."""
    lines = open(path, encoding="utf-8").read().split("\n")
    roff = path.endswith(".in")
    marker = re.compile(r'^\.\\" (session|file):(.*)$' if roff else r"^<!-- (session|file):(.*) -->$")
    i = 0
    while i < len(lines):
        opens = lines[i] == ".EX" if roff else lines[i].startswith("```")
        if not opens:
            i += 1
            continue
        start, body = i, []
        i += 1
        while i < len(lines) and lines[i] != (".EE" if roff else "```"):
            body.append(unroff(lines[i]) if roff else lines[i])
            i += 1
        i += 1
        m = marker.match(lines[start - 1]) if start > 0 else None
        text = "\n".join(body) + "\n"
        if m:
            yield start + 1, m.group(1), m.group(2).split(), text
        elif body and body[0].startswith("$ "):
            yield start + 1, None, [], text


def commands(text):
    """Splits a session into (command, shown output) pairs; a block without "$ " is one script."""
    if not text.startswith("$ "):
        return [(text, None)]
    pairs = []
    for line in text.splitlines(keepends=True):
        if line.startswith("$ "):
            pairs.append([line[2:], ""])
        elif pairs[-1][0].endswith("\\\n") and pairs[-1][1] == "":
            pairs[-1][0] += line
        else:
            pairs[-1][1] += line
    return pairs


def normal(out, unordered=False):
    if out and not out.endswith("\n"):
        out += "\n"  # as a shell's prompt starts a new line
    for pattern, text in PLACEHOLDERS:
        out = pattern.sub(text, out)
    lines = out.splitlines(keepends=True)
    if "Result:\n" in lines:  # varnock -v: its threads log in any order, the result follows
        end = lines.index("Result:\n")
        out = "".join(sorted(lines[:end]) + lines[end:])
    return "".join(sorted(out.splitlines(keepends=True))) if unordered else out


class Runner:
    def __init__(self, build):
        self.build = os.path.abspath(build)
        self.env = dict(os.environ, VARNOCK_BUILD=self.build, VARNOCK_WAIT="60",
                        PATH=f"{self.build}/app:{self.build}/device:{os.environ['PATH']}")
        self.work, self.prefix = None, []
        self.files = {}  # written into every new working directory

    def fresh_work(self):
        """A working directory with the source tree's folders and build/ as the build."""
        self.clean()
        self.work = tempfile.mkdtemp(prefix="varnock-shown.")
        os.chmod(self.work, 0o755)  # for a block run as nobody
        for name in os.listdir(SOURCE):
            if not name.startswith(("build", ".")):
                os.symlink(os.path.join(SOURCE, name), os.path.join(self.work, name))
        os.symlink(self.build, os.path.join(self.work, "build"))
        for name, text in self.files.items():
            open(os.path.join(self.work, name), "w").write(text)

    def clean(self):
        if self.work:
            shutil.rmtree(self.work, ignore_errors=True)

    def sh(self, args, timeout=300):
        r = subprocess.run(args, cwd=self.work, env=self.env, stdin=subprocess.DEVNULL,
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=timeout)
        try:  # reaps what the commands left behind, as this may be the namespace's first process
            while os.waitpid(-1, os.WNOHANG)[0] > 0:
                pass
        except ChildProcessError:
            pass
        return r.returncode, r.stdout.decode("utf-8", "replace")

    def setup(self, words):
        """Prepares what SETUP names; returns the command prefix that runs in it."""
        if words[:1] == ["same"]:
            return self.prefix
        self.fresh_work()
        node = "finder"
        if "on" in words:
            node = words[words.index("on") + 1]
            words = words[: words.index("on")]
        if words[:1] == ["host"]:
            self.prefix = []
        elif words[:1] == ["guide"]:
            guide = os.path.join(SOURCE, "lab/lan/guide.sh")
            # up builds the LAN, or takes it back to no cause at all.
            for verb in [["up"]] + [words[i : i + 2] for i in range(1, len(words), 2)]:
                status, out = self.sh(["bash", guide] + verb)
                if status:
                    raise RuntimeError(f"guide.sh {' '.join(verb)}: {out}")
            ns = "guide-f" if node == "finder" else "guide-" + node
            self.prefix = ["ip", "netns", "exec", ns]
        else:
            raise RuntimeError("unknown setup: " + " ".join(words))
        return self.prefix

    def check(self, where, words, text):
        failures = []
        prefix = self.setup([w for w in words if w not in OPTIONS])
        if "user" in words:
            prefix = prefix + ["runuser", "-u", "nobody", "--"]
        unordered = "unordered" in words
        for command, shown in commands(text):
            status, out = self.sh(prefix + ["bash", "-e", "-c", command])
            if shown is None:
                if status:
                    failures.append(f"{where}: the example ended with status {status}:\n{out}")
                continue
            want, got = normal(shown, unordered), normal(out, unordered)
            if got != want:
                diff = difflib.unified_diff(want.splitlines(True), got.splitlines(True), "shown",
                                            "printed")
                failures.append(f"{where}: $ {command.rstrip()}\n" + "".join(diff))
        return failures


def main(argv):
    listing = argv[:1] == ["--list"]
    if listing:
        argv = argv[1:]
    elif not argv:
        sys.exit(__doc__)
    build, docs = (None, argv) if listing else (argv[0], argv[1:])
    docs = docs or sorted(p for d in DOCS for p in glob.glob(os.path.join(SOURCE, d)))
    if not listing and os.geteuid() != 0:
        print("shown.py: needs root to build the simulated LAN; not run")
        return 77
    if not listing:
        if not os.environ.get("VARNOCK_ISOLATED"):
            sys.exit("shown.py: run it inside lab/lan/isolated.sh")
        # A /tmp of its own: what the blocks write there (a capture, say) meets no one else's files.
        subprocess.run(["mount", "-t", "tmpfs", "varnock-tmp", "/tmp"], check=True)
        # The sessions show the source tree's dissector; the package's copy, if installed, is hidden.
        for installed in glob.glob("/usr/lib/*/wireshark/plugins/morl.lua"):
            subprocess.run(["mount", "--bind", "/dev/null", installed], check=True)
    runner = None if listing else Runner(build)
    failures, ran = [], 0
    for doc in docs:
        name = os.path.relpath(doc, SOURCE)
        for line, kind, words, text in blocks(doc):
            where = f"{name}:{line}"
            if kind is None:
                failures.append(f"{where}: a session without a marker (docs/testing.md)")
            elif listing:
                print(where, kind, " ".join(words))
            elif kind == "file":
                runner.files[words[0]] = text
            elif words[:1] == ["skip"]:
                print(f"{where}: not run: {' '.join(words[1:])}")
            else:
                try:
                    new = runner.check(where, words, text)
                except (RuntimeError, subprocess.TimeoutExpired) as e:
                    new = [f"{where}: {e}"]
                failures += new
                ran += 1
                print(f"{where}: {'FAILED' if new else 'ok'} ({' '.join(words)})", flush=True)
    if runner:
        runner.clean()
    print("".join("\n" + failure + "\n" for failure in failures), end="")
    if not listing:
        print(f"\n{ran} blocks run, {len(failures)} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
