"""Mutation test of the library's units; scripts/mutate is the way to call it, and tells how."""

import argparse
import json
import os
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter, defaultdict
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from mutants import Source  # noqa: E402

ROOT = Path(__file__).resolve().parents[2]
WORK = ROOT / "build" / "mutate"  # or as --work says

STORE = ("record_search hexadecimal_text handles key_lookup adding_keys removing_keys copying_keys "
         "exporting_keys presence stored_text odd_records store_allocation_failure durable_save "
         "processes save_permissions full_disk store_threads traced_save guard secrets").split()
DRIVER = ("context driver_internals key_selection hmac session_key_derivation allocation_failure "
          "ecdsa_signature ecdh_session_key kts_slots kts_hmac_key ecc_allocation_failure secrets").split()
ENGINE = ("ecc_arithmetic_portable ecc_point_portable ecc_random_source_portable "
          "ecc_operations_portable").split()
UNITS = {  # the test programs that cover a unit
    "ecc/ecc.cpp": ENGINE,
    "key_driver/zentrava_key_driver.cpp": DRIVER,
    "key_driver/zentrava_key_management_utils.cpp": STORE,
    "key_driver/durable_save.cpp": STORE,
    "key_driver/key_record.cpp": STORE,
    "key_driver/read_back.cpp": STORE,
    "key_driver/store_lock.cpp": STORE,
    "key_driver/xml_text.cpp": STORE,
}
MAIN_UNITS = list(UNITS)[:3]
IN_MEMORY = "/dev/shm" if os.path.isdir("/dev/shm") else None  # tests write files, and sync them
FAST = 0.1  # seconds: tests below that share a process
JOBS = 2 * os.cpu_count()  # many a test waits


# ---- Building ----------------------------------------------------------------------------------------

def copy_tree():
    names = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True,
                           text=True).stdout.split("\0")
    for name in filter(None, names):
        if name not in UNITS and (ROOT / name).is_file():
            write_if_new(WORK / "source" / name, (ROOT / name).read_bytes())


def write_if_new(path, content):
    """Leaves a file that is as wanted alone, so that nothing is compiled again."""
    if not path.exists() or path.read_bytes() != content:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)


def place_mutants():
    """Writes each unit with all its mutants; gives those that compile, and how many do not."""
    include = '#include "%s"\n#line 1\n' % (ROOT / "tests" / "mutation" / "selected.h")
    mutants, left_out, number = [], set(), 1
    for unit in UNITS:
        source = Source(unit, (ROOT / unit).read_text(), number)
        number = source.number
        refused = set()
        while True:
            text, lines = source.with_mutants(refused)
            (WORK / "source" / unit).parent.mkdir(parents=True, exist_ok=True)
            candidate = WORK / "source" / (unit + ".new.cpp")
            candidate.write_text(include + text)
            bad = errors_of(candidate)
            candidate.unlink()
            if not bad:
                break
            found = {lines[line] for line in bad if line in lines}
            # A constant that is chosen at run time cannot be an array's size.
            for line in bad:
                for word in set(re.findall(r"\w+", text.split("\n")[line - 1])) & set(source.constants):
                    found |= source.constants[word] - refused
            if not found:
                sys.exit("%s with its mutants does not compile: %s" % (unit, bad))
            refused |= found
        write_if_new(WORK / "source" / unit, (include + text).encode())
        mutants += [mutant for mutant in source.mutants if mutant.number not in refused]
        left_out |= refused
    return mutants, len(left_out)


def errors_of(source):
    """The lines with errors."""
    flags = subprocess.run(["pkg-config", "--cflags", "libxml-2.0"], check=True, capture_output=True,
                           text=True).stdout.split()
    output = subprocess.run(["g++", "-std=c++17", "-fsyntax-only", "-w", "-fmax-errors=0", *flags,
                             "-DZENTRAVA_PORTABLE_ENGINE", source], capture_output=True, text=True).stderr
    return {int(line.split(":")[1]): line for line in output.splitlines()
            if ": error: " in line and line.split(":")[1].isdigit()}


def build(programs):
    log = open(WORK / "build.log", "w")
    environment = {**os.environ, "CCACHE_DISABLE": "1"}  # it may name sources by other paths
    subprocess.run(["cmake", "-S", WORK / "source", "-B", WORK / "tree", "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None",
                    "-DCMAKE_CXX_FLAGS=-O1 -w -Dalways_inline=unused -DZENTRAVA_RUNS_SLOWLY", "-DZENTRAVA_BUILD_TESTS=ON",
                    "-DZENTRAVA_BUILD_TOOLS=OFF", "-DZENTRAVA_BUILD_EXAMPLES=OFF"],
                   check=True, stdout=log, stderr=log, env=environment)
    subprocess.run(["ninja", "-C", WORK / "tree", "-j2", *("%s_test" % program for program in programs)],
                   check=True, stdout=log, stderr=log, env=environment)


# ---- Running -----------------------------------------------------------------------------------------

def run(program, tests, seconds, **environment):
    """How a program's tests end: "passed", "failed" or "timeout", when they calculate or take too long."""
    calculation = int(seconds / 4) + 2  # whoever else uses the machine does not count
    with tempfile.TemporaryDirectory(dir=IN_MEMORY) as directory:
        process = subprocess.Popen(
            [WORK / "tree" / "tests" / (program + "_test"), "--gtest_fail_fast", "--gtest_brief=1",
             "--gtest_filter=" + ":".join(tests)],
            cwd=directory, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env={**os.environ, "TMPDIR": directory, "LD_BIND_NOW": "1", **environment}, start_new_session=True)
        try:
            resource.prlimit(process.pid, resource.RLIMIT_CPU, (calculation, calculation + 1))
            return {0: "passed", -signal.SIGXCPU: "timeout"}.get(process.wait(JOBS * seconds), "failed")
        except subprocess.TimeoutExpired:
            return "timeout"
        finally:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()


def cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def tests_in(program):
    listing = subprocess.run([WORK / "tree" / "tests" / (program + "_test"), "--gtest_list_tests"], check=True,
                             capture_output=True, text=True).stdout
    suite, names = "", []
    for line in listing.splitlines():
        line = line.split("#")[0].rstrip()
        if line.endswith(".") and not line.startswith(" "):
            suite = line
        elif line.startswith("  "):
            names.append(suite + line.strip())
    return names


def measure(programs):
    """For each test its time, and the mutants that it comes by; kept until the program is built anew."""
    kept = WORK / "tests.json"
    known = json.loads(kept.read_text()) if kept.exists() else {}
    for program in programs:
        built = os.path.getmtime(WORK / "tree" / "tests" / (program + "_test"))
        if known.get(program, [0])[0] == built:
            continue
        tests = {}
        for test in tests_in(program):
            with tempfile.NamedTemporaryFile() as reached:
                reached.write(bytes(16384))
                reached.flush()
                begin, cpu = time.time(), cpu_seconds()
                end = run(program, [test], 300, ZENTRAVA_MUTANTS_REACHED=reached.name)
                # A test that waits takes its time; otherwise how busy the machine is does not matter.
                waited = time.time() - begin
                seconds = waited if waited > 4 else cpu_seconds() - cpu
                numbers = [n for n, byte in enumerate(Path(reached.name).read_bytes()) if byte]
            if end == "passed":
                tests[test] = [seconds, numbers]
            else:
                print("left out, as it fails without a mutant: %s %s" % (program, test), flush=True)
        known[program] = [built, tests]
        kept.write_text(json.dumps(known))
    return {program: known[program][1] for program in programs}


def covering(tests, programs):
    """By mutant: lists of tests of one program, the quickest first."""
    by_mutant = defaultdict(list)
    for program in programs:
        for test, (seconds, numbers) in tests[program].items():
            for number in numbers:
                by_mutant[number].append((seconds, program, test))
    batches = {}
    for number, entries in by_mutant.items():
        fast, slow = defaultdict(list), []
        for seconds, program, test in sorted(entries):
            if seconds < FAST:
                fast[program].append((seconds, test))
            else:
                slow.append((program, [(seconds, test)]))
        batches[number] = sorted(fast.items(), key=lambda item: sum(s for s, _ in item[1])) + slow
    return batches


def outcome(mutant, batches):
    """What becomes of a mutant, and what noticed it."""
    for program, tests in batches:
        seconds = 5 + 10 * sum(seconds for seconds, _ in tests)
        end = run(program, [test for _, test in tests], seconds, ZENTRAVA_MUTANT=str(mutant.number))
        if end != "passed":
            return {"failed": "killed", "timeout": "timeout"}[end], program
    return "survived", "" if batches else "not reached by any test"


# ---- The whole ---------------------------------------------------------------------------------------

def equivalents():
    """The mutants that change nothing: lines "file: before => after", or "=> *" for all of a line."""
    text = (ROOT / "tests" / "mutation" / "equivalent.txt").read_text()
    return {line for line in text.splitlines() if " => " in line and not line.startswith((" ", "#"))}


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate")
    parser.add_argument("--unit", action="append", choices=list(UNITS), help="only this source")
    parser.add_argument("--program", action="append",
                        help="only this test program, and what it comes by, e.g. hmac")
    parser.add_argument("--work", type=Path, help="the directory to work in (default build/mutate)")
    parser.add_argument("--sample", type=int, help="so many mutants, chosen at random")
    parser.add_argument("--seed", type=int, default=1, help="for the choice (default 1)")
    parser.add_argument("--operator", help="only mutants of this kind")
    parser.add_argument("--only", help="only mutants whose line contains this, before or after")
    parser.add_argument("--again", action="store_true", help="also what has a result already")
    parser.add_argument("--trust", action="store_true", help="do not try what equivalent.txt lists")
    parser.add_argument("--list", action="store_true", help="list the mutants, run nothing")
    parser.add_argument("--require", type=float, default=0, help="fail below this score, in percent")
    options = parser.parse_args()

    global WORK
    WORK = options.work.resolve() if options.work else WORK
    begin = time.time()
    WORK.mkdir(parents=True, exist_ok=True)
    copy_tree()
    mutants, left_out = place_mutants()
    units = options.unit or MAIN_UNITS
    chosen = [m for m in mutants if m.file in units and options.operator in (None, m.operator) and
              (options.only or "") in m.before + m.after]
    if options.list:
        for m in chosen:
            print("%s:%d: [%s] %s => %s" % (m.file, m.line, m.operator, m.before, m.after))
        return 0
    programs = options.program or list(dict.fromkeys(program for unit in units for program in UNITS[unit]))
    build(programs)
    print("built in %.0f s; %d mutants (%d more do not compile)" % (time.time() - begin, len(mutants), left_out),
          flush=True)
    batches = covering(measure(programs), programs)
    print("what each test comes by is known after %.0f s" % (time.time() - begin), flush=True)
    if options.program:
        chosen = [m for m in chosen if m.number in batches]
    if options.sample:
        chosen = sorted(random.Random(options.seed).sample(chosen, min(options.sample, len(chosen))))
    return judge(chosen, batches, options)


def judge(chosen, batches, options):
    begin, results_file = time.time(), WORK / "results.json"
    results = json.loads(results_file.read_text()) if results_file.exists() else {}
    known_equivalents, counts = equivalents(), defaultdict(Counter)

    def is_equivalent(change):
        return bool(known_equivalents & {change, change.split(" => ")[0] + " => *"})

    def result(mutant):
        change = "%s: %s => %s" % (mutant.file, mutant.before, mutant.after)
        name = "%s #%d" % (change, mutant.again)
        if options.trust and is_equivalent(change):
            return name, ["survived", "", mutant.line]
        if options.again or results.get(name, ["survived"])[0] == "survived":
            return name, [*outcome(mutant, batches.get(mutant.number, [])), mutant.line]
        return name, results[name]

    pool = ThreadPoolExecutor(JOBS)
    for i, (mutant, (name, found)) in enumerate(zip(chosen, pool.map(result, chosen))):
        results[name] = found
        end, by = found[:2]
        change = name.rsplit(" #", 1)[0]
        if end == "survived" and is_equivalent(change):
            end = "equivalent"
        counts[mutant.file][end] += 1
        if end == "survived":
            print("survived: %s:%d: [%s, %d] %s => %s %s" % (
                mutant.file, mutant.line, mutant.operator, mutant.number, mutant.before, mutant.after,
                by and "(%s)" % by), flush=True)
        if i % 20 == 0:
            results_file.write_text(json.dumps(results, indent=0))
    results_file.write_text(json.dumps(results, indent=0))
    return report(counts, time.time() - begin, options.require)


def report(counts, seconds, required):
    total = sum(counts.values(), Counter())
    for name, count in [*counts.items(), ("together", total)]:
        killed = count["killed"] + count["timeout"]
        asked = sum(count.values()) - count["equivalent"]
        print("%s: %d mutants, %d killed by a test, %d by the time limit, %d equivalent, %d survived: %.1f %%" % (
            name, sum(count.values()), count["killed"], count["timeout"], count["equivalent"],
            count["survived"], 100 * killed / max(1, asked)))
    print("in %.0f s" % seconds)
    killed = total["killed"] + total["timeout"]
    return 100 * killed < required * (sum(total.values()) - total["equivalent"])


if __name__ == "__main__":
    sys.exit(main())
