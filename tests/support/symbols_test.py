"""The exports of the two libraries. libtsmail must not bind its imports inside itself."""
import os
import re
import subprocess
import unittest

BUILD = os.environ["TSMAIL_BUILD"]
SUPPORT = os.path.join(BUILD, "support/libtssupport.so.1")
KQFQUERY = os.path.join(BUILD, "support/libkqfquery.so.1")
TSMAIL = os.path.join(BUILD, "libtsmail.so.1")

SUPPORT_NAMES = {
    "open_and_lock_file", "close_and_unlock_file", "create_path", "tsm_movefile", "tsm_clean_dir",
    "trim_right", "cfg_get_TZ", "cfg_get_postmaster", "cfg_get_mail_user",
    "cfg_get_file", "cfg_check", "nCfg_query", "nCfg_debug_zone"}
KQFQUERY_NAMES = {"kqf_query_table_head", "kqf_query_get_next"}
# Names that sanitizers add to any library.
NOT_OURS = re.compile(r"^(__asan|__ubsan|__tsan|__odr_asan|_init|_fini)")


def names(library, *options):
    """The dynamic symbols of a library, demangled."""
    done = subprocess.run(["nm", "-D", "-C", *options, library], stdout=subprocess.PIPE, check=True)
    found = set()
    for line in done.stdout.decode().splitlines():
        name = line.split(None, 2 if line[0] != " " else 1)[-1]
        name = re.sub(r"@.*", "", name)
        if not NOT_OURS.match(name):
            found.add(name)
    return found


class SymbolsTest(unittest.TestCase):
    def test_the_header_names_every_export(self):
        header = os.path.join(os.environ["TSMAIL_SOURCE"], "include/tessaly/support.h")
        with open(header, encoding="utf-8") as file:
            text = re.sub(r"/\*.*?\*/", "", file.read(), flags=re.S)
        declared = set(re.findall(r"^[a-zA-Z].*?[ *](\w+)(?:\(|;)", text, flags=re.M))
        self.assertEqual(declared, SUPPORT_NAMES | KQFQUERY_NAMES)

    def test_exports_are_exactly_the_documented_ones(self):
        exported = names(SUPPORT, "--defined-only")
        members = {name for name in exported if "Tessaly::Exception" in name}
        self.assertEqual(exported - members, SUPPORT_NAMES)
        for member in ("what() const", "message[abi:cxx11]() const", "code() const",
                       "file() const", "line() const", "~Exception()"):
            self.assertTrue(any(name.endswith(member) or "::" + member in name
                                for name in members), member)
        for kind in ("typeinfo for ", "typeinfo name for ", "vtable for "):
            self.assertIn(kind + "Tessaly::Exception", members)
        self.assertEqual(names(KQFQUERY, "--defined-only"), KQFQUERY_NAMES)

    def test_imports_are_looked_up_outside(self):
        for library in (TSMAIL, SUPPORT, KQFQUERY):
            done = subprocess.run(["readelf", "-d", "-W", library], stdout=subprocess.PIPE,
                                  check=True)
            self.assertNotIn("SYMBOLIC", done.stdout.decode())
        defined = names(TSMAIL, "--defined-only")
        self.assertEqual(defined & (SUPPORT_NAMES | KQFQUERY_NAMES), set())


if __name__ == "__main__":
    unittest.main()
