"""The services that bench/lmtp.py delivers to."""

import concurrent.futures
import grp
import os
import pathlib
import pwd
import subprocess
import time


def users(mailboxes):
    return [f"u{n}@site.test" for n in range(mailboxes)]


def started(command, socket):
    process = subprocess.Popen(command)
    for _ in range(1000):
        if os.path.exists(socket):
            time.sleep(0.2)
            return process
        if process.poll() is not None:
            break
        time.sleep(0.02)
    process.kill()
    raise SystemExit(f"lmtp.py: {command[0]} does not listen")


class Running:
    """A process with a socket, while the block runs."""
    runs = False
    process = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process:
            self.process.terminate()
            self.process.wait()

    def words(self, mailboxes):
        return ["socket", self.SOCKET, *users(mailboxes)]


class Tsmail(Running):
    name = "tsmail lmtp"
    SOCKET = "/var/spool/tsmail.socket"

    def __init__(self, tsmail, mailboxes):
        missing = [user for user in users(mailboxes) if not os.path.isdir(self.folder(user))]
        with concurrent.futures.ThreadPoolExecutor(16) as pool:  # their flushes share commits of the journal
            list(pool.map(lambda user: subprocess.run([tsmail, "-q", "create", user], check=True), missing))
        self.process = started([tsmail, "lmtp", "--listen", f"unix:{self.SOCKET}"], self.SOCKET)
        self.runs = True

    @staticmethod
    def folder(user):
        name, domain = user.split("@")
        return f"/var/spool/home/{domain}/{name}~{domain}/mail/Inbox/new"

    def folders(self, mailboxes):
        return [self.folder(user) for user in users(mailboxes)]

    def processes(self):
        pid = self.process.pid
        return [pid, *map(int, pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split())]

    def kibibytes(self):
        """Of all processes: their memory, with shared pages in equal shares, and the messages that they hold."""
        kib = 0
        for pid in self.processes():
            try:
                lines = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()
                kib += next(int(line.split()[1]) for line in lines if line.startswith("Pss:"))
            except (ProcessLookupError, FileNotFoundError):  # it has just ended
                continue
        return kib + self.held()

    def held(self):
        files = pathlib.Path(f"/proc/{self.processes()[1]}/fd")
        kib = 0
        for name in os.listdir(files):
            try:
                if os.readlink(files / name).startswith("/memfd:"):
                    kib += os.stat(files / name).st_blocks // 2
            except FileNotFoundError:  # it has just been closed
                continue
        return kib


class Dovecot(Running):
    """With its default flushing (mail_fsync = optimized); without root's rights, as everything here."""
    name = "Dovecot"
    PROGRAM = "/usr/sbin/dovecot"
    TOP = "/var/spool/dovecot"
    SOCKET = "/var/spool/dovecot.socket"

    def __init__(self, _mailboxes):
        if not os.path.exists("/usr/lib/dovecot/lmtp"):
            return
        os.makedirs(self.TOP)
        path = pathlib.Path(self.TOP, "dovecot.conf")
        user, group = pwd.getpwuid(os.geteuid()).pw_name, grp.getgrgid(os.getegid()).gr_name
        path.write_text(self.configuration(user, group), encoding="utf-8")
        self.process = started([self.PROGRAM, "-F", "-c", str(path)], self.SOCKET)
        self.runs = True

    def configuration(self, user, group):
        services = "".join(f"service {name} {{\n  chroot =\n  user = {user}\n}}\n" for name in ("anvil", "stats", "auth"))
        return (f"protocols = lmtp\nbase_dir = {self.TOP}/run\nstate_dir = {self.TOP}/state\n"
                f"log_path = /tmp/dovecot.log\nssl = no\nfirst_valid_uid = 1\n"
                f"default_internal_user = {user}\ndefault_internal_group = {group}\ndefault_login_user = {user}\n"
                f"mail_location = maildir:~/Maildir\nmail_fsync = optimized\npostmaster_address = u0@site.test\n"
                f"userdb {{\n  driver = static\n  args = uid={os.geteuid()} gid={os.getegid()} home={self.TOP}/%n\n"
                f"}}\npassdb {{\n  driver = static\n  args = nopassword=y\n}}\n"
                f"{services}service lmtp {{\n  user = {user}\n  unix_listener {self.SOCKET} {{\n    mode = 0600\n  }}\n}}\n")

    def folders(self, mailboxes):
        return [f"{self.TOP}/u{n}/Maildir/new" for n in range(mailboxes)]
