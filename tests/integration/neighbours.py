"""Tests beside other mail programs from Debian's packages. Nothing is installed: each package is unpacked
beside the build and mounted over /usr in the sandbox, where /etc can be written and a user for the mail
exists.

usage: neighbours.py SOURCE BUILD CACHE PACKAGES FILE CLASS   (PACKAGES: names, with commas between)

Exits with 77 (skipped) where this is impossible: without root, without the packages, or on a kernel without
an overlay file system.
"""

import os
import pathlib
import re
import subprocess
import sys

SKIPPED = 77
VMAIL = 5000  # the user and group that own the mail
# Needed to mount file systems over others, and to run programs that give up root's rights.
ACCOUNTS = ["vmail:5000", "dovecot:901", "dovenull:902", "postfix:903", "postdrop:904", "Debian-exim:905"]


def skip(reason):
    print("skipped:", reason, file=sys.stderr)
    sys.exit(SKIPPED)


def outside(source, build, cache, packages, file, test_class):
    if os.geteuid() != 0:
        skip("programs that step down from root need root")
    roots = []
    for package in filter(None, packages.split(",")):
        if subprocess.run([f"{source}/scripts/fetch-neighbour", package, cache]).returncode != 0:
            skip(f"{package} cannot be had")
        roots.append(os.path.join(cache, package))
    command = [f"{source}/scripts/sandbox", "--rw", build]
    for name, value in {"TSMAIL_BUILD": build, "TSMAIL_SOURCE": source,
                        "PYTHONPATH": f"{source}/tests",
                        "PYTHONDONTWRITEBYTECODE": "1"}.items():
        command += ["--bwrap", "--setenv", "--bwrap", name, "--bwrap", value]
    for root in roots:
        command += ["--ro", root]
    inside = [sys.executable, "-B", __file__, "--inside", ":".join(roots), file, test_class]
    os.execv(command[0], [*command, "--", *inside])


def overlay(target, lower, upper=None):
    """Mounts directories over the target, the first one uppermost. With `upper` the target can be written."""
    options = "lowerdir=" + ":".join([*lower, target])
    if upper:
        for name in ("upper", "work"):
            os.makedirs(f"{upper}/{name}")
        options += f",upperdir={upper}/upper,workdir={upper}/work"
    done = subprocess.run(["mount", "-t", "overlay", "overlay", "-o", options, target],
                          stderr=subprocess.PIPE)
    if done.returncode != 0:
        skip(f"no overlay on {target}: {done.stderr.decode()}")


def add_accounts(etc=()):
    """Makes /etc writable, with these directories over it, and adds the users."""
    overlay("/etc", etc, "/run/etc")
    with open("/etc/passwd", "a") as users, open("/etc/group", "a") as groups:
        for account in ACCOUNTS:
            name, number = account.split(":")
            users.write(f"{name}:x:{number}:{number}::/var/spool/home:/bin/sh\n")
            groups.write(f"{name}:x:{number}:\n")


def inside(roots, file, test_class):
    roots = [root for root in roots.split(":") if root]
    etc = [f"{root}/etc" for root in roots if os.path.isdir(f"{root}/etc")]
    # The command where a package would put it, and the usual paths to other programs.
    os.makedirs("/run/own/usr/bin")
    os.symlink(os.path.join(os.environ["TSMAIL_BUILD"], "tools/tsmail"), "/run/own/usr/bin/tsmail")
    os.symlink("/usr/sbin/sendmail", "/bin/sendmail")
    add_accounts(etc)
    overlay("/var/lib", [], "/run/var-lib")
    overlay("/usr", ["/run/own/usr", *(f"{root}/usr" for root in roots)])
    os.execv(sys.executable, [sys.executable, "-B", file, "-v", test_class])


def number_of(account):
    return int(dict(entry.split(":") for entry in ACCOUNTS)[account])


def as_vmail():
    """Options for subprocess: as the owner of the mail."""
    return {"user": VMAIL, "group": VMAIL, "extra_groups": []}


def make_home():
    """The directory of all mailboxes, owned by the owner of the mail."""
    os.makedirs("/var/spool/home", exist_ok=True)
    os.chown("/var/spool/home", VMAIL, VMAIL)
    os.chmod("/var/spool/home", 0o755)


def configuration(page, name, of=""):
    """The file that a page below docs/neighbours shows: its code block with that name, of that
    program if there are several."""
    text = pathlib.Path(os.environ["TSMAIL_SOURCE"], "docs", "neighbours", page).read_text()
    heading = re.escape(f"`{name}`" + (of and f" of {of} "))
    found = re.search(rf"^{heading}[^\n]*:\n\n```\w*\n(.*?)^```$", text, re.M | re.S)
    if not found:
        raise AssertionError(f"{page} shows no {name} {of}")
    return found.group(1)


if __name__ == "__main__":
    inside(*sys.argv[2:]) if sys.argv[1] == "--inside" else outside(*sys.argv[1:])
