"""zentrava-keystore: its help, its man page and its completions tell of the same options."""

import re
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import build, run_test
from key_store_tool import ToolTestCase

COMMON = ""  # in the place of a command's name


class ToolDocuments(ToolTestCase):
    def test_the_man_page_tells_of_the_options_of_the_help_and_of_no_others(self):
        page = self.text("docs", "man", "zentrava-keystore.1")
        common = re.search(r"^\.SH COMMON OPTIONS\n(.*?)^\.SH ", page, re.M | re.S).group(1)
        commands = re.search(r"^\.SH COMMANDS\n(.*?)^\.SH ", page, re.M | re.S).group(1)
        told = {COMMON: options_of_man_page(common)}
        for section in re.split(r"^\.SS ", commands, flags=re.M)[1:]:
            told[section.split()[0]] = options_of_man_page(section)
        self.assertEqual(told, self.options_of_help())

    def test_the_man_page_is_well_made(self):
        for page in Path(build.source, "docs", "man").iterdir():
            with self.subTest(page.name):
                result = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page],
                                        check=False, stdout=subprocess.PIPE)
                # No date: the page belongs to the version that it is installed with.
                complaints = [line for line in result.stdout.decode().splitlines()
                              if "missing date" not in line]
                self.assertEqual(complaints, [])

    def test_completion_for_bash_offers_the_options_of_the_help_and_no_others(self):
        offered = {COMMON: self.bash_completions("--") - {"-h", "-q"}}
        for command in self.commands_of_help():
            offered[command] = self.bash_completions(command, "--") - offered[COMMON]
        self.assertEqual(offered, self.options_of_help(short=False))

    def test_completion_for_bash_offers_the_commands_and_values_of_the_help(self):
        self.assertEqual(self.bash_completions(""), self.commands_of_help())
        self.assertEqual(self.bash_completions("--dir", "list", ""), self.commands_of_help())
        for command, option, values in self.values_of_help():
            with self.subTest(command, option=option):
                self.assertEqual(self.bash_completions(command, option, ""), values)

    def test_completion_for_zsh_offers_the_options_of_the_help_and_no_others(self):
        script = self.text("tools", "completions", "_zentrava-keystore")
        subprocess.run(["zsh", "-n"], input=script.encode(), check=True)
        common = re.search(r"^common=\(\n(.*?)^\)", script, re.M | re.S).group(1)
        offered = {COMMON: set(re.findall(r"(?<=[')])--?[a-z0-9-]+(?=\[)", common))}
        for command, part in re.findall(r"^    ([a-z]+)\)\n(.*?)^        ;;", script, re.M | re.S):
            offered[command] = set(re.findall(r"(?<=')--[a-z0-9-]+(?=\[)", part))
        self.assertEqual(offered, self.options_of_help())
        commands = re.search(r"^commands=\(\n(.*?)^\)", script, re.M | re.S).group(1)
        self.assertEqual(set(re.findall(r"^    '([a-z]+):", commands, re.M)),
                         self.commands_of_help())
        for command, option, values in self.values_of_help():
            with self.subTest(command, option=option):
                part = re.search(rf"^    {command}\)\n(.*?)^        ;;", script, re.M | re.S)
                offer = re.search(rf"'{option}\[[^]]*\]:[^:]*:\(([^)]*)\)'", part.group(1))
                self.assertEqual(set(offer.group(1).split()), values)

    def test_completion_for_fish_offers_the_options_of_the_help_and_no_others(self):
        offered = {COMMON: self.fish_completions("-")}
        for command in self.commands_of_help():
            offered[command] = self.fish_completions(f"{command} -") - offered[COMMON]
        self.assertEqual(offered, self.options_of_help())

    def test_completion_for_fish_offers_the_commands_and_values_of_the_help(self):
        self.assertEqual(self.fish_completions(""), self.commands_of_help())
        for command, option, values in self.values_of_help():
            with self.subTest(command, option=option):
                self.assertEqual(self.fish_completions(f"{command} {option} "), values)

    def test_the_help_fits_a_terminal_of_80_columns(self):
        for command in ["", *self.commands_of_help()]:
            for line in self.tool(*command.split(), "--help").splitlines():
                self.assertLessEqual(len(line), 80, line)

    def test_the_version_is_that_of_the_library(self):
        version = re.search(r"^    VERSION (\S+)$", self.text("CMakeLists.txt"), re.M).group(1)
        self.assertEqual(self.tool("--version"), f"zentrava-keystore {version}\n")

    # ---- The help

    def commands_of_help(self):
        listed = self.tool("--help").split("Subcommands:\n")[1]
        return set(re.findall(r"^  ([a-z]+) ", listed, re.M))

    def options_of_help(self, short=True):
        """The options of each command, by its name; the common ones by the empty name."""
        common = options_of_help_text(self.tool("--help"))
        options = {COMMON: common}
        for command in self.commands_of_help():
            options[command] = options_of_help_text(self.tool(command, "--help")) - common
        if not short:
            options = {command: {option for option in found if option.startswith("--")}
                       for command, found in options.items()}
        return options

    def values_of_help(self):
        """Each command, option and set of values, of the options whose values are listed."""
        return [(command, option, set(values.split("|")))
                for command in sorted(self.commands_of_help())
                for option, values in re.findall(r"^  (--[a-z0-9-]+) ([a-z0-9]+\|[a-z0-9|]+)",
                                                 self.tool(command, "--help"), re.M)]

    # ---- The completions

    def bash_completions(self, *words):
        """What is offered for the last word."""
        script = Path(build.source, "tools", "completions", "zentrava-keystore.bash")
        asked = ('source "$1"; shift; COMP_WORDS=(zentrava-keystore "$@"); '
                 'COMP_CWORD=$#; _zentrava_keystore; printf "%s\\n" "${COMPREPLY[@]}"')
        return set(self.run_command(["bash", "-euc", asked, "bash", script, *words],
                                    cwd=self.directory).split())

    def fish_completions(self, line):
        script = Path(build.source, "tools", "completions", "zentrava-keystore.fish")
        printed = self.run_command(["fish", "--no-config", "-c",
                                    f"source {script}; complete -C 'zentrava-keystore {line}'"],
                                   cwd=self.directory, HOME=self.directory)
        return {offer.split("\t")[0] for offer in printed.splitlines()}

    def text(self, *path):
        return Path(build.source, *path).read_text(encoding="utf-8")


def options_of_help_text(text):
    """The options that stand at the beginning of the help's lines."""
    listed = text.split("Options:\n")[1].split("\n\n")[0]
    return {option for names in re.findall(r"^  (-\S+)", listed, re.M)
            for option in names.split(",")}


def options_of_man_page(section):
    """The options that the section's tagged paragraphs are about."""
    tags = re.findall(r"^\.TP\n(\..*)$", section, re.M)
    return {option.replace("\\", "") for tag in tags
            for option in re.findall(r"\\-(?:\\-)?[a-z0-9]+(?:\\-[a-z0-9]+)*", tag)}


if __name__ == "__main__":
    run_test(ToolDocuments)
