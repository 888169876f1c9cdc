"""Reports what the tests cover of the library's sources, and fails for what they do not.

Usage: coverage_report.py BUILD-DIRECTORY

Most test programs compile a unit for themselves, to reach its file-local functions, so that there are many
copies of each function, and llvm-cov sums up the best copy. Here it is their union that counts: a line, an
outcome of a branch or a condition is covered where one copy covers it, in whichever program. (A condition
needs both of its values to have decided in one copy, so that the union is rather too small than too large.)

Places that no input reaches are listed in docs/testing.md, in the table under the heading "Places that are
not covered". The list has to be exact: a place that is missing in it is a failure, and so is one too many.
"""

import json
import re
import subprocess
import sys
from collections import Counter, defaultdict
from pathlib import Path
from typing import NamedTuple

ROOT = Path(__file__).resolve().parent.parent
SOURCES = re.compile(r"(?:key_driver|ecc)/\w+\.(?:cpp|h)$")
LIST = ROOT / "docs/testing.md"
LIST_HEADING = "### Places that are not covered"
CONDITION = 6 # the kind of a branch that is a condition of a decision


class Segment(NamedTuple):
    line: int
    column: int
    count: int
    has_count: bool
    is_entry: bool
    is_gap: bool

    @property
    def starts_region(self):
        return self.is_entry and self.has_count


class Source:
    """What the programs cover of one source file."""

    def __init__(self, name):
        self.name = name
        self.text = (ROOT / name).read_text(encoding="utf-8").splitlines()
        # Each maps a place to whether it is covered.
        self.lines = {}
        self.branches = {}
        self.conditions = {}

    def add(self, file):
        for line, covered in lines_of(file["segments"]).items():
            if self.text[line - 1].strip(): # an empty line counts in a function that is not used
                self.add_place(self.lines, self.text_of_line(line), line, covered)
        for branch in file["branches"]:
            text, line = self.text_between(branch), branch[0]
            self.add_place(self.branches, text + " is true", tuple(branch[:4]), branch[4] > 0)
            self.add_place(self.branches, text + " is false", tuple(branch[:4]), branch[5] > 0)
        for *place, _, _, covered_conditions in file["mcdc_records"]:
            conditions = conditions_in(place, file["branches"])
            for number, covered in enumerate(covered_conditions):
                condition = conditions[min(number, len(conditions) - 1)] # in a macro they share a place
                self.add_place(self.conditions, self.text_between(condition) + " decides",
                               (*place, number), covered)

    @staticmethod
    def add_place(places, text, position, covered):
        places[text, position] = places.get((text, position), False) or covered

    def text_of_line(self, line):
        return self.text[line - 1].strip()

    def text_between(self, place):
        line, column, end_line, end_column = place[:4]
        if (line, column) == (end_line, end_column): # a macro
            return self.text_of_line(line)
        lines = self.text[line - 1:end_line]
        lines[-1] = lines[-1][:end_column - 1]
        lines[0] = lines[0][column - 1:]
        return " ".join(part.strip() for part in lines)

    def uncovered(self):
        """Texts of the uncovered places, and their lines. A line is left out that a branch tells of."""
        for places in (self.lines, self.branches, self.conditions):
            for (text, position), covered in sorted(places.items(), key=lambda place: str(place)):
                if not covered:
                    yield text, position if isinstance(position, int) else position[0]


def conditions_in(decision, branches):
    """The places of a decision's conditions, in their order in the source."""
    begin, end = tuple(decision[:2]), tuple(decision[2:])
    return sorted({tuple(branch[:4]) for branch in branches if branch[8] == CONDITION and
                   tuple(branch[:2]) >= begin and tuple(branch[2:4]) <= end})


def lines_of(segments):
    """Which lines are covered, as llvm-cov counts: by the largest count of the regions that begin in a line
    or reach into it from above."""
    by_line = defaultdict(list)
    for segment in segments:
        by_line[segment[0]].append(Segment(*segment))
    lines = {}
    before = None # the last segment above the line
    for line in range(1, max(by_line, default=0) + 1):
        here = by_line[line]
        starts = [segment.count for segment in here if segment.starts_region and not segment.is_gap]
        is_skipped = bool(here) and here[0].is_entry and not here[0].has_count
        reaches = before is not None and before.has_count
        if any(segment.starts_region for segment in here) or (reaches and not is_skipped):
            lines[line] = max([before.count if before is not None else 0] + starts) > 0
        before = here[-1] if here else before
    return lines


def run(*command):
    return subprocess.run(list(map(str, command)), check=True, stdout=subprocess.PIPE).stdout


def profiles_by_program(build):
    """The profiles that each program and its child processes left."""
    profiles = defaultdict(list)
    for profile in sorted((build / "profiles").glob("*.profraw")):
        profiles[profile.name.split(".")[0]].append(profile)
    return profiles


def coverage_of(build, program, profiles):
    data = build / "profiles" / f"{program}.profdata"
    run("llvm-profdata-19", "merge", "-o", data, *profiles)
    exported = run("llvm-cov-19", "export", "-instr-profile", data, build / "tests" / program)
    return json.loads(exported)["data"][0]["files"]


def covered_sources(build):
    sources = {}
    for program, profiles in profiles_by_program(build).items():
        for file in coverage_of(build, program, profiles):
            found = SOURCES.search(file["filename"])
            if found and "/tests/" not in file["filename"]:
                sources.setdefault(found[0], Source(found[0])).add(file)
    return [sources[name] for name in sorted(sources)]


def listed_places():
    """From the rows "| file | `text` | reason |"."""
    section = LIST.read_text(encoding="utf-8").partition(LIST_HEADING)[2].partition("\n#")[0]
    return Counter(re.findall(r"^\| `([^`|]+)` \| `(.+?)` \|", section, re.MULTILINE))


def print_table(sources):
    print(f"{'':45}{'lines':>15}{'branches':>15}{'conditions':>15}")
    for source in sources:
        cells = [f"{sum(places.values())} of {len(places)}"
                 for places in (source.lines, source.branches, source.conditions)]
        print(f"{source.name:45}" + "".join(f"{cell:>15}" for cell in cells))


def main():
    sources = covered_sources(Path(sys.argv[1]))
    print_table(sources)
    listed = listed_places()
    seen = Counter()
    failures = 0
    for source in sources:
        for text, line in source.uncovered():
            seen[source.name, text] += 1
            if seen[source.name, text] > listed[source.name, text]:
                print(f"not covered: {source.name}:{line}: {text}")
                failures += 1
    for (name, text), count in (listed - seen).items():
        print(f"covered, or not there, but listed in {LIST.name}: {name}: {text}")
        failures += count
    print(f"{sum(seen.values())} places are not covered, {sum(listed.values())} are listed")
    return failures > 0


if __name__ == "__main__":
    sys.exit(main())
