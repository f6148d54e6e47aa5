"""Names of system calls, as strace writes them, that differ between C libraries."""

import os

VERSION = tuple(int(part) for part in os.confstr("CS_GNU_LIBC_VERSION").split()[1].split("."))
# The status of an open file: the C library's versions from 2.33 to 2.38 ask for that of an empty path below it.
FSTAT = "newfstatat" if (2, 33) <= VERSION < (2, 39) else "fstat"
