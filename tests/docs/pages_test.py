#!/usr/bin/env python3
"""Checks what the pages refer to against the tree and the programs.

    pages_test.py SOURCE_DIR BUILD_DIR [Pages.test_NAME]

A command of a page is run if that is cheap; otherwise its options are looked up in the program that
it calls. A page that shows a new program needs a line in COMMANDS below.
"""

import fnmatch
import re
import shlex
import subprocess
import sys
import unittest
from pathlib import Path

SOURCE = Path(sys.argv[1])
BUILD = Path(sys.argv[2])

# The list is git's, so that no build folder and no output is searched. The tree may belong to
# another user than the one who runs the tests: git asks about that only where it finds the repository
# by itself.
FILES = subprocess.run(
    ["git", "--git-dir=.git", "ls-files"],
    cwd=SOURCE,
    check=True,
    capture_output=True,
    text=True,
).stdout.split()
PAGES = {name: (SOURCE / name).read_text() for name in FILES if name.endswith(".md")}
GENERATED = [line.strip("/\n") for line in (SOURCE / ".gitignore").open()]

FENCED = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def prose(page):
    return FENCED.sub("", PAGES[page])


def code_spans(page):
    return [" ".join(span.split()) for span in re.findall(r"`([^`]+)`", prose(page))]


def commands(page):
    """Every command of the page's shell blocks, and every call of our scripts and programs with
    arguments that it mentions, each as a list of words."""
    lines = [
        line
        for language, block in FENCED.findall(PAGES[page])
        if language == "sh"
        for line in block.replace("\\\n", " ").splitlines()
    ]
    lines += [span for span in code_spans(page) if re.match(r"(scripts/|vesper-p)\S+ ", span)]
    split = (shlex.split(line.rstrip("& "), comments=True) for line in lines)
    return [words for words in split if words]


def anchors(page):
    """Of its headings, as GitHub makes them: lower case, without punctuation, spaces as hyphens."""
    return [
        re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")
        for heading in re.findall(r"^#+ (.*)$", prose(page), re.MULTILINE)
    ]


def output(*words, cwd=None):
    """What the command prints on both streams, whatever its status."""
    return subprocess.run(
        words,
        cwd=cwd,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        check=False,
        timeout=600,  # far more than any of them takes
    ).stdout


def options(words):
    return [word.split("=")[0] for word in words if word.startswith("-")]


ASSIGNMENT = re.compile(r"([A-Z]\w*)=.*")


def variables_of_tests():
    """What the tests of whole programs read from the environment."""
    files = (SOURCE / "tests/e2e").glob("*.cpp")
    return set(re.findall(r'getenv\("(\w+)"\)', "".join(file.read_text() for file in files)))


def player_options():
    """The player has no --help: its options are those that its parser compares words with."""
    return set(re.findall(r'"(--[a-z-]+)"', (SOURCE / "player/args.cpp").read_text()))


# docs/architecture.md lists every file of these folders, but for those that explain themselves.
FOLDERS = "audio bench client cmake examples fuzz man net player scripts tests tools".split()


def is_listed(path):
    return (
        path.parts[0] in FOLDERS
        and path.name not in ("CMakeLists.txt", ".clang-tidy")
        and path.parts[:2] != ("fuzz", "findings")
    )


# The keys of the window, each with a word that every description of what it does contains.
ACTIONS = {
    "f": "fullscreen",
    "F11": "fullscreen",
    "Escape": "back",
    "r": "the whole picture",
    "m": "mute",
    "Up": "volume",
    "Down": "volume",
}
# A key where a table names it: a letter on its own, or one of those with a name.
KEY = re.compile(r"\b(?<!')([b-z]|F\d+|Up|Down|Left|Right|Escape|Space|Return|Tab|Home|End)\b")


def tables_of_keys():
    """The rows of every place that lists the keys."""
    section = PAGES["README.md"].partition("## Keys and mouse")[2].partition("\n## ")[0]
    manual = (SOURCE / "man/vesper-player.1.in").read_text()
    manual = manual.partition(".SH KEYS AND MOUSE")[2].partition(".SH")[0].partition(".PP")[0]
    header = (SOURCE / "player/window_input.h").read_text().partition("#pragma once")[0]
    return {
        "README.md": re.findall(r"^\| .*", section, re.MULTILINE),
        "docs/controls.md": re.findall(r"^\| .*", PAGES["docs/controls.md"], re.MULTILINE),
        "man/vesper-player.1.in": re.sub(r"\\f[BP]", "", manual).split(".TP"),
        "player/window_input.h": re.findall(r"^//   .*", header, re.MULTILINE),
    }


# In a path a word in capitals stands for whatever is there.
PATH = re.compile(r"[a-z.][\w.-]*(/[\w.-]+)*/?")


def missing_path(text):
    """True for a text that looks like a path of this tree and is none."""
    if "/" not in text or not PATH.fullmatch(text):
        return False
    known = [part for part in text.split("/") if part and not part.isupper()]
    path = SOURCE.joinpath(*known)
    # A page may name header and source in one: net/udp_socket.
    return (
        known[0] not in GENERATED
        and not path.exists()
        and not (path.with_suffix(".h").exists() and path.with_suffix(".cpp").exists())
    )


class Pages(unittest.TestCase):
    def test_EveryLinkResolves(self):
        for page in PAGES:
            for target in re.findall(r"\]\(([^)\s]+)\)", prose(page)):
                with self.subTest(page=page, target=target):
                    self.assertNotIn("://", target, "nothing checks it")
                    name, _, anchor = target.partition("#")
                    path = (SOURCE / page).parent / name if name else SOURCE / page
                    self.assertTrue(path.exists())
                    if anchor:
                        self.assertIn(anchor, anchors(str(path.resolve().relative_to(SOURCE))))

    def test_EveryFileNamedExists(self):
        for page in PAGES:
            words = " ".join(code_spans(page)).split()
            words += [word for command in commands(page) for word in command]
            for word in re.split("[ :=]", " ".join(words)):
                with self.subTest(page=page, word=word):
                    self.assertFalse(missing_path(word))

    def test_ArchitectureHasALineForEveryFile(self):
        """Each by its name, by its name without extension, or by a pattern."""
        named = set(re.split("[ ,]+", " ".join(code_spans("docs/architecture.md"))))
        patterns = [name for name in named if "*" in name]
        for pattern in patterns:
            with self.subTest(pattern=pattern):
                self.assertTrue(fnmatch.filter(FILES, pattern))
        for file in FILES:
            path = Path(file)
            if is_listed(path):
                with self.subTest(file=file):
                    self.assertTrue(
                        {file, str(path.with_suffix(""))} & named
                        or any(fnmatch.fnmatch(file, pattern) for pattern in patterns)
                    )

    def test_ReadmeHasALineForEveryOptionOfThePlayer(self):
        section = PAGES["README.md"].partition("## Options of the player")[2].partition("\n## ")[0]
        self.assertEqual(set(re.findall(r"`(--[a-z-]+)", section)), player_options())

    def test_EveryTableOfKeysHasEachKeyWithItsAction(self):
        code = (SOURCE / "player/window_input.cpp").read_text()
        self.assertEqual(
            {name.capitalize() for name in re.findall(r"SDLK_(\w+)", code)},
            {key.capitalize() for key in ACTIONS},
        )
        for place, rows in tables_of_keys().items():
            with self.subTest(place=place):
                named = {key for row in rows for key in KEY.findall(row)}
                self.assertEqual(named, set(ACTIONS))
                for key, action in ACTIONS.items():
                    row = next(row for row in rows if key in KEY.findall(row))
                    self.assertIn(action, row.lower(), key)

    def test_EveryCommandIsOneThatItsProgramTakes(self):
        for page in PAGES:
            for words in commands(page):
                with self.subTest(page=page, command=" ".join(words)):
                    while variable := ASSIGNMENT.fullmatch(words[0]):
                        self.assertIn(variable.group(1), variables_of_tests())
                        words = words[1:]
                    for pattern, check in COMMANDS:
                        match = re.fullmatch(pattern, words[0])
                        if match:
                            check(self, words, *match.groups())
                            break
                    else:
                        self.fail("nothing checks it")

    def assert_preset(self, preset):
        self.assertIn(f'"{preset}"', output("cmake", "--list-presets=all", cwd=SOURCE))

    def assert_target(self, target):
        self.assertIn(f"\n{target}: phony\n", output("ninja", "-C", BUILD, "-t", "targets", "all"))

    def check_script(self, words):
        """Each option and word is in the line that the script answers unknown words with; a number,
        or what begins with one, is a value."""
        usage = output(SOURCE / words[0], "--no-such-word")
        for word in words[1:]:
            if not word[0].isdigit():
                self.assertIn(word, re.findall(r"[\w-]+", usage))

    def check_cmake(self, words):
        flags = dict(zip(words[1:], words[2:]))
        self.assert_preset(flags["--preset"])
        if "--target" in flags:
            self.assert_target(flags["--target"])
        self.assertLessEqual(set(options(words)), {"--preset", "--build", "--target"})

    def check_ctest(self, words):
        flags = dict(zip(words[1::2], words[2::2]))
        self.assert_preset(flags.pop("--preset"))
        filters = [word for flag in flags.items() for word in flag]
        listed = output("ctest", "--test-dir", BUILD, "--show-only", *filters)
        self.assertRegex(listed, r"Total Tests: [1-9]")

    def check_test_program(self, words, preset, name):
        """Run for real, under the preset that is tested just now."""
        self.assert_preset(preset)
        self.assertRegex(output(BUILD / "bin" / name, *words[1:]), r"\[  PASSED  \] [1-9]")

    def check_fuzzer(self, words, target):
        self.assertTrue((SOURCE / "fuzz" / f"{target}_fuzzer.cpp").exists())
        self.assertEqual(options(words), [])

    def check_fuzzed_reassembly(self, words, preset):
        self.assert_preset(preset)
        accepted = re.findall(r"--[a-z-]+", output(BUILD / "bin/fuzz_reassembly", "--help"))
        self.assertLessEqual(set(options(words)), set(accepted))

    def check_parent(self, words):
        accepted = re.findall(r"--[a-z-]+", output(BUILD / "bin/vesper-parent", "--help"))
        self.assertLessEqual(set(options(words)), set(accepted))

    def check_player(self, words):
        self.assertLessEqual(set(options(words)), player_options())

    def check_embedder(self, words):
        """Each word has the shape that the program asks for."""
        usage = output(BUILD / "bin" / words[0], "--no-such-word")
        self.assertIn(" PORT:REPLY_PORT:NAME...\n", usage)
        for word in words[1:]:
            self.assertRegex(word, r"^\d+:\d+:\w+$")

    def check_example(self, words):
        """As many words as its first comment asks for."""
        (source,) = (SOURCE / "examples").glob(f"{Path(words[0]).stem}.*")
        usage = re.search(r"Usage: (.*)", source.read_text()).group(1)
        self.assertEqual(len(words), len(usage.split()))

    def check_compiler(self, words):
        """The packages that pkg-config is asked for; tests/packaging builds an example with them."""
        line = " ".join(words)
        for package in re.search(r"\$\(pkg-config --cflags --libs (.*)\)", line).group(1).split():
            self.assertTrue((BUILD / "install" / f"{package}.pc").exists())

    def check_nothing(self, words):
        """Not ours, and nothing that the tests install; the files it names are checked above."""


COMMANDS = [
    (r"scripts/.*", Pages.check_script),
    (r"cmake", Pages.check_cmake),
    (r"ctest", Pages.check_ctest),
    (r"build/(\w+)/bin/(\w+_test)", Pages.check_test_program),
    (r"build/(\w+)/bin/fuzz_reassembly", Pages.check_fuzzed_reassembly),
    (r"build/fuzz/bin/fuzz_(\w+)", Pages.check_fuzzer),
    (r"vesper-parent", Pages.check_parent),
    (r"vesper-player", Pages.check_player),
    (r"in_application", Pages.check_embedder),
    (r"examples/.*|minimal_application", Pages.check_example),
    (r"g\+\+", Pages.check_compiler),
    (r"ffmpeg|sudo|gst-launch-1.0|tcpdump|wireshark", Pages.check_nothing),
]

if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
