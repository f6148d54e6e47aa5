#!/usr/bin/env python3
"""prints_nothing.py LIBRARY... - the libraries do not import functions that print, log or end the process.
The only exception is perror, for a socket that cannot be created. fwrite is not on the list: it writes to a
stream of the executable. Without stdout and stderr, which are on the list, it cannot print."""
import re
import subprocess
import sys

OUTPUT = re.compile(r"^(_*(v?f?w?printf|v?dprintf|puts|putchar|putc|fputs?|fputc|v?syslog|v?warnx?|"
                    r"v?errx?|error|psignal|assert_fail)(_chk|_unlocked)?|stdout|stderr|"
                    r"_ZSt\d(w?cout|w?cerr|w?clog)|w?(cout|cerr|clog)|exit|_exit|_Exit|quick_exit|abort)$")


def imported(library):
    lines = subprocess.run(["nm", "-D", "--undefined-only", library], check=True,
                           capture_output=True, text=True).stdout.splitlines()
    return {line.split()[-1].split("@")[0] for line in lines}


def main(libraries):
    names = {(library, name) for library in libraries for name in imported(library)}
    bad = sorted((library, name) for library, name in names if OUTPUT.match(name))
    for library, name in bad:
        print(f"{library} asks for {name}")
    print(f"{len(names)} names asked for")
    return 1 if bad or not names else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
