#!/usr/bin/env python3
"""inside.py - what scripts/bench.sh runs in the sandbox: makes the peers and the spool ready, gives up
root's rights, and does the measuring.

usage: inside.py SOURCE ROOTS COMMAND...

ROOTS: with ":" between, unpacked packages that are laid over /usr (see fetch-neighbour). Dovecot serves
no mail that root owns, so everything runs as the owner of the mail, as it would on an appliance.
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
        os.chown("/var/spool", neighbours.VMAIL, neighbours.VMAIL)
        os.setgroups([])
        os.setgid(neighbours.VMAIL)
        os.setuid(neighbours.VMAIL)
    os.umask(0o077)
    os.execvp(command[0], command)


if __name__ == "__main__":
    main(*sys.argv[1:])
