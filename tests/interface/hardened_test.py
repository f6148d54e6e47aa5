"""The libraries and the command are built with the protections of the compiler and the linker. The programs
in the build folder do not load libraries from the working directory."""
import glob
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["TSMAIL_BUILD"])
TOOL = BUILD / "tools/tsmail"
LIBRARIES = [BUILD / name for name in ("libtsmail.so.1", "support/libtssupport.so.1")]
SMALL = [BUILD / "support/libkqfquery.so.1"]  # has no buffer to watch over
CACHE = dict(re.findall(r"^(\w+):\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(encoding="utf-8"), re.M))


def readelf(*words):
    done = subprocess.run(["readelf", "-W", *words], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          text=True, check=False)
    return done.stdout


def has(flag):
    """Whether CMake found that the compiler knows the flag."""
    return CACHE.get("TSMAIL_HAS" + re.sub(r"\W", "_", flag)) == "1"


class HardenedTest(unittest.TestCase):
    def each(self, files, *words):
        for file in files:
            with self.subTest(file.name):
                yield readelf(*words, file)

    def test_programs_lie_anywhere(self):
        self.assertRegex(readelf("-h", TOOL), r"Type: +DYN")
        self.assertRegex(readelf("-d", TOOL), r"FLAGS_1.*\bPIE\b")

    def test_tables_are_bound_at_start_and_read_only_then(self):
        for text in self.each([TOOL, *LIBRARIES, *SMALL], "-dl"):
            self.assertRegex(text, r"FLAGS_1.*\bNOW\b")
            self.assertRegex(text, r"(?m)^ *GNU_RELRO ")

    def test_stacks_cannot_be_run(self):
        for text in self.each([TOOL, *LIBRARIES, *SMALL], "-l"):
            self.assertRegex(text, r"(?m)^ *GNU_STACK .* RW +0x")

    def test_stacks_are_watched(self):
        for text in self.each([TOOL, *LIBRARIES], "--dyn-syms"):
            self.assertIn("__stack_chk_fail", text)

    @unittest.skipIf(CACHE["CMAKE_BUILD_TYPE"] == "Debug", "needs an optimising compiler")
    def test_lengths_are_checked(self):
        for text in self.each([TOOL, *LIBRARIES], "--dyn-syms"):
            self.assertRegex(text, r" __(read|memcpy|snprintf|vsnprintf|open64|openat64)_(chk|2)@")

    def test_each_file_was_compiled_so(self):
        # The debug information of each file names the compiler and its switches.
        flags = [flag for flag in ("-fstack-protector-strong", "-fstack-clash-protection",
                                   "-fcf-protection", "-mbranch-protection=standard") if has(flag)]
        self.assertTrue(flags)
        for text in self.each([TOOL, *LIBRARIES, *SMALL], "-p", ".debug_str"):
            compiled = re.findall(r"(GNU C(?:\+\+)?\d+ .*)", text)
            if not compiled:
                self.skipTest("the compiler says nothing")
            for line in compiled:
                self.assertEqual([flag for flag in flags if flag not in line], [], line)


class SearchTest(unittest.TestCase):
    def test_no_search_path_has_an_empty_element(self):
        files = [file for file in glob.glob(f"{BUILD}/**", recursive=True)
                 if os.path.isfile(file) and not os.path.islink(file)
                 and (os.access(file, os.X_OK) or ".so" in file)]
        paths = re.findall(r"\(R(?:UN)?PATH\).*\[(.*)\]", readelf("-d", *files))
        self.assertGreater(len(paths), 3)
        for path in paths:
            for element in path.split(":"):
                self.assertRegex(element, r"^(/|\$ORIGIN)", path)

    def test_what_lies_in_the_working_directory_is_not_loaded(self):
        needed = set(re.findall(r"NEEDED.*\[(.*)\]", readelf("-d", TOOL, *LIBRARIES, *SMALL)))
        self.assertIn("libtssupport.so.1", needed)
        with tempfile.TemporaryDirectory() as planted:
            for name in needed:
                pathlib.Path(planted, name).write_text("not a library\n", encoding="utf-8")
            done = subprocess.run([TOOL, "--version"], cwd=planted, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    unittest.main()
