#!/usr/bin/python3
"""Mutation check of the test suites (scripts/mutate.sh).

Each entry of the list (tests/mutation/mutants.txt) is one change of the
agent's behaviour that a user or the server would notice: a text to find in
one source file (exactly once), its replacement, what the change breaks,
and the tests that should notice it.  For every entry, on a private copy of
the tree with one build directory of its own:

  1. the change is applied to the copy's file;
  2. what the tests need is rebuilt (incrementally: the agent, the unit
     tests, the end-to-end helper libraries, a fuzz replay target);
  3. the entry's tests run in their order until one fails: KILLED; when
     all pass the change went unnoticed: SURVIVED;
  4. the file is put back.

An entry whose text is not found exactly once is STALE (the source moved
on: the entry needs updating); one whose change does not build is reported
as NOT BUILT.  Both fail the run as a survivor does.  Before the first
change every test named in the list runs once on the unchanged copy
(the baseline): a test that fails there could not tell anything.

Tests of an entry, one per "test:" line:
  unit FILTER        the unit tests, GoogleTest filter (unit_tests --gtest_filter)
  e2e FILE::NAME     one end-to-end test (tests/e2e, pytest node id)
  fuzz TARGET        the replay of a fuzz target's corpus (TARGET_replay)
"""
import argparse
import collections
import filecmp
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_LIST = os.path.join(ROOT, "tests", "mutation", "mutants.txt")
PYTHON = "/usr/bin/python3"
# What every end-to-end test needs beside the agent.
E2E_TARGETS = ["korvat-cloud", "fastsleep", "timershim", "shell_probe"]


class Mutant(object):
    def __init__(self, number, area, description, line):
        self.number = number
        self.area = area
        self.description = description
        self.line = line          # where it starts in the list file
        self.file = None
        self.find = None
        self.replace = None
        self.tests = []           # (kind, argument)

    def targets(self):
        wanted = []
        for kind, arg in self.tests:
            wanted += test_targets(kind, arg)
        return unique(wanted)


def unique(items):
    seen = []
    for item in items:
        if item not in seen:
            seen.append(item)
    return seen


def test_targets(kind, arg):
    if kind == "unit":
        return ["unit_tests"]
    if kind == "e2e":
        return list(E2E_TARGETS)
    return [arg + "_replay"]


class ListError(Exception):
    pass


def parse_list(path):
    """The entries of the list file, numbered from 1 in their order."""
    mutants = []
    current = None
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    for n, raw in enumerate(lines, 1):
        if raw.startswith("#") or raw.strip() == "":
            continue
        if raw.startswith("["):
            m = re.match(r"\[([^\]]+)\]\s*(.+)$", raw)
            if not m:
                raise ListError("%s:%d: an entry begins with [area] description" % (path, n))
            current = Mutant(len(mutants) + 1, m.group(1).strip(), m.group(2).strip(), n)
            mutants.append(current)
            continue
        m = re.match(r"(file|find|find\+|replace|replace\+|test):( ?)(.*)$", raw)
        if not m or current is None:
            raise ListError("%s:%d: not understood: %r" % (path, n, raw))
        key, value = m.group(1), m.group(3)
        if key == "file":
            current.file = value.strip()
        elif key == "find":
            current.find = value
        elif key == "replace":
            current.replace = value
        elif key == "find+":
            if current.find is None:
                raise ListError("%s:%d: find+ without find" % (path, n))
            current.find += "\n" + value
        elif key == "replace+":
            if current.replace is None:
                raise ListError("%s:%d: replace+ without replace" % (path, n))
            current.replace += "\n" + value
        else:
            words = value.split(None, 1)
            if len(words) != 2 or words[0] not in ("unit", "e2e", "fuzz"):
                raise ListError("%s:%d: test: unit FILTER, e2e FILE::NAME or fuzz TARGET"
                                % (path, n))
            current.tests.append((words[0], words[1].strip()))
    for mutant in mutants:
        where = "%s:%d" % (path, mutant.line)
        if not mutant.file or mutant.find is None or mutant.replace is None:
            raise ListError("%s: an entry needs file:, find: and replace:" % where)
        if mutant.find == mutant.replace:
            raise ListError("%s: the replacement is the text itself" % where)
        if not mutant.tests:
            raise ListError("%s: an entry needs at least one test:" % where)
    return mutants


def parse_only(text, count):
    numbers = []
    for part in text.split(","):
        part = part.strip()
        m = re.match(r"^(\d+)(?:-(\d+))?$", part)
        if not m:
            raise SystemExit("--only: numbers separated by commas (ranges as 3-7): %r" % text)
        first = int(m.group(1))
        last = int(m.group(2) or first)
        for n in range(first, last + 1):
            if not 1 <= n <= count:
                raise SystemExit("--only: there is no change %d (the list has %d)" % (n, count))
            numbers.append(n)
    return unique(numbers)


def show_test(kind, arg):
    return "%s %s" % (kind, arg)


def minutes(seconds):
    seconds = int(round(seconds))
    if seconds < 60:
        return "%d s" % seconds
    if seconds < 3600:
        return "%d min %02d s" % (seconds // 60, seconds % 60)
    return "%d h %02d min" % (seconds // 3600, seconds % 3600 // 60)


# ---- the private copy -------------------------------------------------------

SKIP_ANYWHERE = {"__pycache__", ".pytest_cache"}


def skipped_top(name):
    return name == ".git" or name.startswith("build")


def sync_tree(src, dst):
    """Makes dst a copy of the working tree src without its build
    directories and git data.  A file is written only when its content
    differs, and then with a fresh time stamp: the build directory compiles
    exactly what changed, and a file that a change left behind (a run that
    was stopped) is put back and compiled again."""
    wanted = set()
    for dirpath, dirnames, filenames in os.walk(src):
        rel = os.path.relpath(dirpath, src)
        if rel == ".":
            dirnames[:] = [d for d in dirnames if not skipped_top(d)]
        dirnames[:] = [d for d in dirnames if d not in SKIP_ANYWHERE]
        target_dir = os.path.normpath(os.path.join(dst, rel))
        os.makedirs(target_dir, exist_ok=True)
        wanted.add(os.path.normpath(rel))
        for name in dirnames + filenames:
            s = os.path.join(dirpath, name)
            d = os.path.join(target_dir, name)
            wanted.add(os.path.normpath(os.path.join(rel, name)))
            if os.path.islink(s):
                if not os.path.islink(d) or os.readlink(d) != os.readlink(s):
                    if os.path.lexists(d):
                        remove_path(d)
                    os.symlink(os.readlink(s), d)
                continue
            if name in dirnames:
                continue
            if os.path.isfile(d) and not os.path.islink(d) and filecmp.cmp(s, d, shallow=False):
                if os.stat(d).st_mode != os.stat(s).st_mode:
                    shutil.copymode(s, d)
                continue
            if os.path.lexists(d):
                remove_path(d)
            shutil.copyfile(s, d)
            shutil.copymode(s, d)
    for dirpath, dirnames, filenames in os.walk(dst, topdown=False):
        for name in dirnames + filenames:
            path = os.path.join(dirpath, name)
            rel = os.path.normpath(os.path.relpath(path, dst))
            if rel not in wanted:
                remove_path(path)


def remove_path(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    else:
        os.unlink(path)


# ---- running commands -------------------------------------------------------

def run_logged(cmd, log, cwd=None, env=None, limit=None):
    """Runs cmd with its output appended to log; (exit status, timed out).
    On the time limit the command's process group gets SIGINT (pytest then
    tears its devices down), and SIGKILL 30 s later."""
    with open(log, "ab") as out:
        out.write(("$ %s\n" % " ".join(cmd)).encode())
        out.flush()
        proc = subprocess.Popen(cmd, cwd=cwd, env=env, stdout=out, stderr=subprocess.STDOUT,
                                stdin=subprocess.DEVNULL, start_new_session=True,
                                preexec_fn=default_interrupt)
        try:
            return proc.wait(timeout=limit), False
        except subprocess.TimeoutExpired:
            for sig, grace in ((signal.SIGINT, 30), (signal.SIGKILL, 10)):
                try:
                    os.killpg(proc.pid, sig)
                except ProcessLookupError:
                    pass
                try:
                    proc.wait(timeout=grace)
                    break
                except subprocess.TimeoutExpired:
                    continue
            out.write(b"\n[mutate] time limit reached\n")
            return proc.returncode, True
        except KeyboardInterrupt:
            try:
                os.killpg(proc.pid, signal.SIGINT)
                proc.wait(timeout=30)
            except (ProcessLookupError, subprocess.TimeoutExpired):
                try:
                    os.killpg(proc.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            raise


def default_interrupt():
    # started in the background by a shell, this process ignores SIGINT,
    # and its children would too: the time limit's SIGINT must reach them
    signal.signal(signal.SIGINT, signal.SIG_DFL)


def interrupted(signum, frame):
    raise KeyboardInterrupt


def read_from(log, offset):
    with open(log, "rb") as f:
        f.seek(offset)
        return f.read().decode("utf-8", "replace")


class Checker(object):
    def __init__(self, work, scale, logs):
        self.tree = os.path.join(work, "tree")
        self.build = os.path.join(work, "build")
        self.logs = logs
        self.scale = scale

    def configure(self, log):
        cmd = ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja",
               "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DKC_TESTS=ON", "-DKC_INTEROP_TESTS=OFF"]
        status, _ = run_logged(cmd, log)
        return status == 0

    def build_targets(self, targets, log):
        status, _ = run_logged(["cmake", "--build", self.build, "--target"] + targets, log)
        return status == 0

    def e2e_env(self):
        env = dict(os.environ)
        env.update({
            "KC_AGENT": os.path.join(self.build, "korvat-cloud"),
            "KC_FASTSLEEP": os.path.join(self.build, "tests", "e2e", "fastsleep.so"),
            "KC_SHELL_PROBE": os.path.join(self.build, "tests", "e2e", "shell_probe"),
            "KC_TIMERSHIM": os.path.join(self.build, "tests", "e2e", "timershim.so"),
            "KC_TIMEOUT_SCALE": str(self.scale),
        })
        return env

    def run_test(self, kind, arg, log, limit):
        """(passed, timed out, what the output says).  passed is None when
        the test could not run at all (not found, skipped, usage)."""
        offset = os.path.getsize(log) if os.path.exists(log) else 0
        if kind == "unit":
            cmd = [os.path.join(self.build, "tests", "unit_tests"), "--gtest_filter=" + arg]
            status, timed_out = run_logged(cmd, log, cwd=os.path.join(self.build, "tests"),
                                           limit=limit)
            text = read_from(log, offset)
            m = re.search(r"\[  PASSED  \] (\d+) test", text)
            if status == 0 and not timed_out and not (m and int(m.group(1)) > 0):
                return None, False, "the filter selects no unit test"
            failed = re.findall(r"^\[  FAILED  \] (\S+)", text, re.M)
            return status == 0 and not timed_out, timed_out, (
                "failed: " + failed[0] if failed else last_words(text, status))
        if kind == "e2e":
            cmd = [PYTHON, "-m", "pytest", "-q", "-p", "no:cacheprovider", "-x", "-rfE", arg]
            status, timed_out = run_logged(cmd, log, cwd=os.path.join(self.tree, "tests", "e2e"),
                                           env=self.e2e_env(), limit=limit)
            text = read_from(log, offset)
            if not timed_out and status in (4, 5, 77):
                return None, False, "pytest could not run it (status %d)" % status
            if status == 0 and not timed_out:
                if not re.search(r"\b\d+ passed", text) or re.search(r"\b\d+ (skipped|deselected)",
                                                                    text):
                    return None, False, "the test was skipped: " + last_words(text, status)
                return True, False, ""
            failed = re.findall(r"^(?:FAILED|ERROR) (.*)$", text, re.M)
            return False, timed_out, failed[0] if failed else last_words(text, status)
        replay = os.path.join(self.build, "tests", "fuzz", arg + "_replay")
        corpus = os.path.join(self.tree, "tests", "fuzz", "corpus", arg)
        status, timed_out = run_logged([replay, corpus], log, limit=limit)
        text = read_from(log, offset)
        return status == 0 and not timed_out, timed_out, last_words(text, status)


def last_words(text, status):
    lines = [l for l in text.strip().split("\n") if l.strip()]
    tail = lines[-1] if lines else ""
    return ("status %s: %s" % (status, tail))[:300]


def occurrences(path, text):
    try:
        with open(path, encoding="utf-8") as f:
            return f.read().count(text)
    except FileNotFoundError:
        return -1


def stale_reason(count):
    return "file not found" if count < 0 else "the text occurs %d times" % count


# ---- the check --------------------------------------------------------------

def main():
    parser = argparse.ArgumentParser(
        prog="scripts/mutate.sh",
        description="Mutation check: applies the listed changes one at a time to a private "
                    "copy of the tree and runs the tests that should notice each.",
        formatter_class=argparse.RawDescriptionHelpFormatter,
        epilog="The list's format is described at its top (tests/mutation/mutants.txt).")
    parser.add_argument("--list", action="store_true",
                        help="print the numbered list of changes and their tests; run nothing")
    parser.add_argument("--check", action="store_true",
                        help="only tell which changes no longer apply to the working tree "
                             "(STALE); build and run nothing")
    parser.add_argument("--only", metavar="N[,M...]",
                        help="check only these changes (numbers of --list; ranges as 3-7)")
    parser.add_argument("--mutants", metavar="FILE", default=DEFAULT_LIST,
                        help="the list of changes (default tests/mutation/mutants.txt)")
    parser.add_argument("--workdir", metavar="DIR",
                        help="keep the tree copy and its build here and reuse them in a later "
                             "run (default: a new /tmp/kc-mutate-XXXXXX, removed at the end "
                             "when every change was noticed)")
    parser.add_argument("--time-limit", type=float, default=900, metavar="SECONDS",
                        help="time for the tests of one change (default 900); a change whose "
                             "tests run over it counts as noticed (a hang)")
    parser.add_argument("--no-baseline", action="store_true",
                        help="skip the run of the tests on the unchanged tree")
    args = parser.parse_args()

    try:
        mutants = parse_list(args.mutants)
    except ListError as e:
        print("mutate: %s" % e, file=sys.stderr)
        return 2
    chosen = mutants if not args.only else [mutants[n - 1] for n in
                                            parse_only(args.only, len(mutants))]
    if args.list:
        areas = collections.Counter(m.area for m in mutants)
        for m in chosen:
            print("%3d [%s] %s" % (m.number, m.area, m.description))
            print("      %s" % m.file)
            for kind, arg in m.tests:
                print("      test: %s" % show_test(kind, arg))
        print("%d changes in %d areas: %s" % (len(mutants), len(areas), ", ".join(
            "%s %d" % (a, c) for a, c in areas.items())))
        return 0

    if args.check:
        stale = 0
        for m in chosen:
            count = occurrences(os.path.join(ROOT, m.file), m.find)
            if count != 1:
                stale += 1
                print("[%2d] STALE    %s: %s  (%s)" % (m.number, m.file, stale_reason(count),
                                                    m.description))
        print("%d of %d changes apply" % (len(chosen) - stale, len(chosen)))
        return 1 if stale else 0

    if os.geteuid() != 0 and any(k == "e2e" for m in chosen for k, _ in m.tests):
        print("mutate: the end-to-end tests need root (the simulated device makes namespaces "
              "and mounts)", file=sys.stderr)
        return 2
    # SIGTERM stops the run as Ctrl-C does: the changed file is put back and
    # the running test is stopped
    signal.signal(signal.SIGTERM, interrupted)
    try:
        os.nice(10)
    except OSError:
        pass
    scale = os.environ.get("KC_TIMEOUT_SCALE") or "2"
    started = time.monotonic()
    if args.workdir:
        work = os.path.abspath(args.workdir)
        os.makedirs(work, exist_ok=True)
    else:
        work = tempfile.mkdtemp(prefix="kc-mutate-")
    logs = os.path.join(work, "logs")
    os.makedirs(logs, exist_ok=True)
    checker = Checker(work, scale, logs)
    print("mutation check: %d of %d changes; copy and build in %s; KC_TIMEOUT_SCALE=%s"
          % (len(chosen), len(mutants), work, scale))
    sync_tree(ROOT, checker.tree)

    # Entries that no longer apply are found before anything is built.
    stale = []
    for m in chosen:
        count = occurrences(os.path.join(checker.tree, m.file), m.find)
        if count != 1:
            stale.append(m)
            print("[%2d] STALE    %s: %s" % (m.number, m.file, stale_reason(count)))

    build_log = os.path.join(logs, "build.log")
    targets = unique([t for m in chosen for t in m.targets()])
    t0 = time.monotonic()
    if not checker.configure(build_log) or not checker.build_targets(targets, build_log):
        print("mutate: the unchanged tree does not build; see %s" % build_log, file=sys.stderr)
        return 2
    build_time = time.monotonic() - t0
    print("build of the unchanged tree: %s" % minutes(build_time))

    test_time = 0.0
    unusable = set()      # tests that fail on the unchanged tree
    if not args.no_baseline:
        specs = unique([t for m in chosen if m not in stale for t in m.tests])
        print("baseline: %d tests on the unchanged tree" % len(specs))
        base_log = os.path.join(logs, "baseline.log")
        for spec in specs:
            kind, arg = spec
            notes = []
            for attempt in (1, 2):
                t1 = time.monotonic()
                passed, timed_out, why = checker.run_test(kind, arg, base_log, args.time_limit)
                spent = time.monotonic() - t1
                test_time += spent
                if passed or passed is None:
                    break
                # once more: a test that fails now and then is worth knowing about
                notes.append(why)
            if passed:
                print("  ok     %6.1f s  %s%s" % (spent, show_test(kind, arg), (
                    "  (FLAKY: failed once, then passed: %s)" % notes[0][:150]) if notes else ""))
            else:
                unusable.add(spec)
                print("  FAILED %6.1f s  %s: %s" % (spent, show_test(kind, arg), why[:200]))
        if unusable:
            print("%d tests fail on the unchanged tree (log: %s): the changes that name them "
                  "are not checked" % (len(unusable), base_log))

    results = collections.OrderedDict()
    for m in chosen:
        if m in stale:
            results[m] = "STALE"
            continue
        if any(t in unusable for t in m.tests):
            results[m] = "NO BASELINE"
            print("[%2d] %-9s %s: a test of it fails on the unchanged tree" % (
                m.number, "SKIPPED", m.description))
            continue
        path = os.path.join(checker.tree, m.file)
        with open(path, encoding="utf-8") as f:
            original = f.read()
        log = os.path.join(logs, "%03d.log" % m.number)
        if os.path.exists(log):
            os.unlink(log)
        t1 = time.monotonic()
        try:
            with open(path, "w", encoding="utf-8") as f:
                f.write(original.replace(m.find, m.replace, 1))
            tb = time.monotonic()
            built = checker.build_targets(m.targets(), log)
            build_time += time.monotonic() - tb
            verdict, detail = "SURVIVED", ""
            if not built:
                verdict, detail = "NOT BUILT", "log: " + log
            else:
                tt = time.monotonic()
                for kind, arg in m.tests:
                    left = args.time_limit - (time.monotonic() - tt)
                    passed, timed_out, why = checker.run_test(kind, arg, log, max(left, 1))
                    if passed is None:
                        verdict, detail = "ERROR", "%s: %s" % (show_test(kind, arg), why)
                        break
                    if not passed:
                        verdict = "KILLED"
                        detail = "by %s%s: %s" % (show_test(kind, arg),
                                                  " (time limit)" if timed_out else "", why)
                        break
                    if time.monotonic() - tt >= args.time_limit:
                        verdict, detail = "KILLED", "time limit reached"
                        break
                test_time += time.monotonic() - tt
        finally:
            # a fresh time stamp: the next build compiles the file again
            with open(path, "w", encoding="utf-8") as f:
                f.write(original)
        spent = time.monotonic() - t1
        results[m] = verdict
        print("[%2d] %-9s %6.1f s  %-14s %s" % (m.number, verdict, spent, m.area,
                                                 m.description))
        if verdict != "KILLED":
            print("       %s: change in %s; tests: %s" % (detail or "no test noticed", m.file,
                                                         "; ".join(show_test(k, a)
                                                                   for k, a in m.tests)))
            print("       log: %s" % log)
        else:
            print("       %s" % detail[:200])

    counts = collections.Counter(results.values())
    total = time.monotonic() - started
    print()
    print("%d changes: %d killed, %d survived, %d stale, %d not built, %d errors, "
          "%d without a passing baseline" % (
              len(results), counts["KILLED"], counts["SURVIVED"], counts["STALE"],
              counts["NOT BUILT"], counts["ERROR"], counts["NO BASELINE"]))
    areas = collections.Counter(m.area for m in results)
    print("areas (%d): %s" % (len(areas), ", ".join("%s %d" % (a, c) for a, c in areas.items())))
    print("time: %s in all (builds %s, tests %s)" % (minutes(total), minutes(build_time),
                                                     minutes(test_time)))
    ok = counts["KILLED"] == len(results)
    if ok and not args.workdir:
        shutil.rmtree(work, ignore_errors=True)
    elif not ok:
        print("the copy, its build and the logs stay in %s" % work)
    if counts["NO BASELINE"]:
        return 2
    return 0 if ok else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        print("\nmutate: interrupted", file=sys.stderr)
        sys.exit(130)
