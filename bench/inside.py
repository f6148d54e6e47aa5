#!/usr/bin/env python3
"""inside.py - scripts/bench.sh runs it in the sandbox. It prepares the peers and the spool, gives up root's
rights, and measures.

usage: inside.py SOURCE ROOTS COMMAND...

ROOTS: with ":" between, unpacked packages that are laid over /usr (see fetch-neighbour). Dovecot does not
serve mail that root owns, so everything runs as the owner of the mail, as on an appliance.
"""
import os
import sys


def main(source, roots, *command):
    sys.dont_write_bytecode = True
    sys.path[:0] = [f"{source}/tests/integration"]
    import neighbours
    if os.geteuid() == 0:
        found = [f"{root}/usr" for root in filter(None, roots.split(":"))
                 if os.path.isdir(f"{root}/usr")]
        if found:
            neighbours.overlay("/usr", found)
            neighbours.add_accounts()
        os.chown("/var/spool", neighbours.VMAIL, neighbours.VMAIL)
        os.setgroups([])
        os.setgid(neighbours.VMAIL)
        os.setuid(neighbours.VMAIL)
    os.umask(0o077)
    os.execvp(command[0], command)


if __name__ == "__main__":
    main(*sys.argv[1:])
