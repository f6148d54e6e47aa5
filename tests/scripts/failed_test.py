"""The last lines of scripts/test.sh after a run with failed tests, for real runs of ctest.

usage: failed_test.py SOURCE CTEST
"""
import pathlib
import subprocess
import sys
import tempfile
import unittest

SOURCE, CTEST = sys.argv[1:3]
REFUSED = "PermissionError: [Errno 13] Permission denied: '/nowhere/tsmail'"


# The actions of a test that does not print a text.
DOINGS = {"sleep": "sh -c [[sleep 60]]", "missing": "/nowhere/program", "skip": "sh -c [[exit 77]]"}


def said(tests, timeout=20):
    """The line for a run of tests that print these texts and fail. A test with an empty text passes."""
    with tempfile.TemporaryDirectory() as folder:
        place = pathlib.Path(folder)
        with open(place / "CTestTestfile.cmake", "w", encoding="utf-8") as file:
            for name, text in tests.items():
                (place / name).write_text(text, encoding="utf-8")
                command = DOINGS.get(text, f'sh -c [[cat "{name}"; test ! -s "{name}"]]')
                file.write(f"add_test({name} {command})\n")
                file.write(f"set_tests_properties({name} PROPERTIES TIMEOUT {timeout} SKIP_RETURN_CODE 77)\n")
        subprocess.run([CTEST, "--output-junit", place / "tests.xml"], cwd=place, check=False,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        done = subprocess.run([sys.executable, "-B", f"{SOURCE}/scripts/failed.py", place / "tests.xml", "LOG",
                               "AGAIN"], check=True, stdout=subprocess.PIPE, text=True)
        return done.stdout


class FailedTest(unittest.TestCase):
    def test_names_reason_and_what_to_do(self):
        trace = f"Traceback (most recent call last):\n  File \"x.py\", line 7, in y\n{REFUSED}\n\nFAILED\n"
        text = said({"b": trace, "a": trace.replace("7", "8"), "good": "", "c": "Error: other\n"})
        self.assertEqual(text, f"3 of 4 tests failed: a, b, c. 2 say: {REFUSED}. "
                               "The log is LOG; to run them again: AGAIN\n")

    def test_all_for_one_reason(self):
        text = said({"a": f"{REFUSED}\n", "b": f"{REFUSED}\n"})
        self.assertIn(f"2 of 2 tests failed: a, b. All say: {REFUSED}.", text)

    def test_numbers_do_not_make_reasons_differ(self):
        text = said({"a": "AssertionError: 1 != 2\n", "b": "AssertionError: 31 != 2\n", "c": "ValueError: x\n"})
        self.assertIn("2 say: AssertionError: 1 != 2.", text)

    def test_the_first_line_of_a_failed_expectation(self):
        text = said({"a": "[ RUN      ] A.b\nx.cpp:3: Failure\nExpected equality of these values:\n"
                          "  1\n  2\n[  FAILED  ] A.b (0 ms)\n\n 1 FAILED TEST\n"})
        self.assertIn("All say: x.cpp:3: Failure Expected equality of these values:", text)

    def test_many_names_are_cut(self):
        text = said({f"t{n:02}": "no\n" for n in range(13)})
        self.assertIn("t10, t11 and 1 more. All say: no.", text)

    def test_without_output(self):
        self.assertIn("All say: nothing, for 1 seconds.", said({"a": "sleep"}, timeout=1))

    def test_what_could_not_be_started_failed(self):
        self.assertIn("1 of 1 tests failed: a. All say: Unable to find executable.", said({"a": "missing"}))

    def test_what_was_skipped_did_not(self):
        self.assertIn("1 of 2 tests failed: b.", said({"a": "skip", "b": "no\n"}))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
