"""agent.py ADDRESS <MESSAGE - a small delivery agent in Python, with nothing but ctypes."""

import ctypes
import os
import sys

tsmail = ctypes.CDLL("libtsmail.so.1")
MUF_MAILPATH, MUF_MAILDROP = 4, 6
EX_USAGE, EX_NOUSER, EX_TEMPFAIL = 64, 67, 75
TOTALS = [ctypes.c_char_p, ctypes.c_longlong, ctypes.c_longlong]
tsmail.tsl_append_mail_folder_size.argtypes = TOTALS
tsmail.tsl_append_maildirsize.argtypes = TOTALS
tsmail.tsl_update_mail_folder_size.argtypes = [ctypes.c_char_p, ctypes.c_long]
tsmail.tsl_gen_mail_unique_name.argtypes = [ctypes.c_size_t, ctypes.c_char_p, ctypes.c_char_p,
                                            ctypes.c_size_t]


def path_of(kind, address):
    path = ctypes.create_string_buffer(4096)
    tsmail.mailuser_filename(kind, path, len(path), os.fsencode(address))
    return path.value


def unique_name(size, queue_id):
    name = ctypes.create_string_buffer(256)
    tsmail.tsl_gen_mail_unique_name(size, queue_id, name, len(name))
    return name.value


def write_synced(path, message):
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
    with open(fd, "wb") as file:
        file.write(message)
        file.flush()
        os.fsync(fd)


def deliver(folder, message):
    """Makes the message appear in the folder's new, under a name that no other file has."""
    queue_id = ctypes.create_string_buffer(32)
    tsmail.tsl_gen_queue_id(None, queue_id, ctypes.c_size_t(len(queue_id)))
    while True:
        name = unique_name(len(message), queue_id.value)
        temporary, final = folder + b"/tmp/" + name, folder + b"/new/" + name
        try:
            write_synced(temporary, message)
            os.link(temporary, final)
            return
        except FileExistsError:
            continue
        finally:
            if os.path.exists(temporary):
                os.unlink(temporary)


def main():
    if len(sys.argv) != 2 or "/" in sys.argv[1]:
        return EX_USAGE
    mail, folder = (path_of(kind, sys.argv[1]) for kind in (MUF_MAILPATH, MUF_MAILDROP))
    if not tsmail.tsl_is_maildir_folder(folder):
        return EX_NOUSER
    ctypes.CDLL(None).srandom(int.from_bytes(os.urandom(4), "little"))
    message = sys.stdin.buffer.read()
    try:
        deliver(folder, message)
    except OSError as error:
        print(error, file=sys.stderr)
        return EX_TEMPFAIL
    tsmail.tsl_append_mail_folder_size(folder + b"/.ts_folder_size", len(message), 1)
    tsmail.tsl_append_maildirsize(mail + b"/.maildirsize", len(message), 1)
    tsmail.tsl_update_mail_folder_size(folder, len(message))  # the daemon need not run
    return 0


if __name__ == "__main__":
    sys.exit(main())
