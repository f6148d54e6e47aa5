"""Every exported name of the library is reached from Python, and documented where it is."""

import glob
import importlib
import inspect
import os
import pkgutil
import re
import subprocess
import sys
import unittest

from package import BUILD, PLACE, SOURCE, tsmail

sys.path.insert(0, f"{SOURCE}/tests/interface")
import exported_names  # noqa: E402

CLASS = "Tessaly::TSMailUserId::"
OTHER_CASES = ("identity", "folders", "messages", "preferences", "quota", "addresses", "maildir")
# Constants, which are copied into the class when the module is loaded, and what Python does itself.
NOT_CALLED = {f"{CLASS}{name}" for name in (
    "SYSTEM_DOMAIN", "MAIL_PATH_PREFIX", "MAIL_PATH_SUFFIX", "SYSTEM_DEAD_LETTER_PATH",
    "SYSTEM_QUARANTINE_HOME_PATH", "AdminUser", "MAIL_LOCAL_PATH_PREFIX", "~TSMailUserId")}
TABLES = {"tsl_sys_folders", "tsl_sys_folders_count", "tsm_sys_folders", "pref_properties",
          "pref_data_convertor"}


def exported():
    return {name for name in exported_names.exported(f"{BUILD}/libtsmail.so.1")}


def imported():
    """What the extension module takes from the library."""
    module, = glob.glob(f"{PLACE}/tsmail/_core*.so")
    lines = subprocess.run(["nm", "-DC", "--undefined-only", module], check=True,
                           stdout=subprocess.PIPE, text=True).stdout.splitlines()
    plain = (re.sub(r"@.*|\[abi:\w+\]", "", line.split(maxsplit=1)[1]) for line in lines)
    return {re.sub(r"(?<!operator)\(.*", "", name) for name in plain}


def names_in(docstring):
    """The names behind "From", as the library exports them."""
    found = set(re.findall(r"^From (\S+):$", docstring or "", re.M))
    return {f"Tessaly::{name}" if name.startswith("TSMailUserId::") else name for name in found}


def public_modules():
    for info in pkgutil.iter_modules(tsmail.__path__):
        if not info.name.startswith("_"):
            yield importlib.import_module(f"tsmail.{info.name}")


def members(cls):
    """The docstrings of what a class has, inherited or its own; private names left out."""
    for name, value in inspect.getmembers(cls):
        if not name.startswith("_") or name in ("__init__", "__eq__", "__ne__", "__lt__", "__contains__",
                                                "__iter__", "__setitem__", "__repr__"):
            yield f"{cls.__name__}.{name}", value


def public_things():
    for module in public_modules():
        for name in module.__all__:
            value = getattr(module, name)
            yield name, value
            if inspect.isclass(value):
                yield from members(value)


class ReachableTest(unittest.TestCase):
    def test_the_module_takes_every_name(self):
        self.assertEqual(exported() - imported(), set())
        self.assertGreater(len(exported()), 80)

    def test_every_function_is_documented_where_it_is_reached(self):
        documented = set().union(*(names_in(inspect.getdoc(value)) for _, value in public_things()))
        self.assertEqual(exported() - documented - NOT_CALLED, set())

    def test_every_function_is_called_by_the_packages_own_functions(self):
        """The other cases are run, and what is called meanwhile is seen. Properties and operators of
        the extension's own classes need not be called: it is enough that they are public."""
        called = set()

        def profile(_, event, argument):
            if event == "c_call":
                called.update(names_in(argument.__doc__))
        cases = unittest.TestSuite(
            unittest.defaultTestLoader.loadTestsFromModule(importlib.import_module(f"{name}_test"))
            for name in OTHER_CASES)
        sys.setprofile(profile)
        try:
            with open(os.devnull, "w", encoding="utf-8") as nowhere:
                result = unittest.TextTestRunner(stream=nowhere).run(cases)
        finally:
            sys.setprofile(None)
        self.assertTrue(result.wasSuccessful(), result.failures + result.errors)
        for name, value in members(tsmail.Mailbox):
            if isinstance(value, property) or name.endswith("__"):
                called |= names_in(value.__doc__)
        self.assertEqual(exported() - called - NOT_CALLED - TABLES, set())

    def test_everything_public_says_what_it_is(self):
        silent = [name for name, value in public_things()
                  if not name.isupper() and not name.endswith("__")
                  and not inspect.ismemberdescriptor(value)  # a field: its class describes it
                  and not (inspect.getdoc(value) or "").strip()]
        self.assertEqual(silent, [])

    def test_docstrings_carry_the_headers_words(self):
        """The comment whole, line by line, as the header has it."""
        with open(f"{SOURCE}/include/tessaly/mailstore.h", encoding="utf-8") as file:
            comment, = re.findall(r"/\* ((?:(?!\*/).)*)\*/\nlong long tsl_get_mailbox_size_actual",
                                  file.read(), re.S)
        text = inspect.getdoc(tsmail.Folder.scanned_size)
        self.assertIn("From tsl_get_mailbox_size_actual:", text)
        self.assertIn(re.sub(r"\n \* ?", "\n", comment).strip(), text)
        self.assertGreater(len(comment), 300)


if __name__ == "__main__":
    unittest.main()
