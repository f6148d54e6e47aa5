// agent ADDRESS <MESSAGE - a small delivery agent.
#include <fcntl.h>
#include <sysexits.h>
#include <tessaly/MailUserId.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <iterator>
using std::string;

// Writes the message so that it is on the disk when this returns true.
static bool write_file(const string& path, const string& message) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    size_t done = 0;
    for (ssize_t n = 0; done < message.size() && n >= 0; done += n > 0 ? size_t(n) : 0)
        n = write(fd, message.data() + done, message.size() - done);
    const bool synced = done == message.size() && fsync(fd) == 0;
    const bool written = close(fd) == 0 && synced;
    if (!written) unlink(path.c_str());
    return written;
}

// Makes the message appear in the folder's "new", under a name that no other file has.
static bool deliver(const string& folder, const string& message, const char* queue_id) {
    do {
        char name[256];
        tsl_gen_mail_unique_name(message.size(), queue_id, name, sizeof name);
        const string temporary = folder + "/tmp/" + name, final = folder + "/new/" + name;
        if (!write_file(temporary, message)) continue;
        if (link(temporary.c_str(), final.c_str()) == 0) return unlink(temporary.c_str()), true;
        const int error = errno;
        unlink(temporary.c_str());
        errno = error;
    } while (errno == EEXIST);
    return false;
}

int main(int argc, char** argv) {
    if (argc != 2 || string(argv[1]).find('/') != string::npos) return EX_USAGE;
    const Tessaly::TSMailUserId id(argv[1]);
    const string wanted = id.maildrop(""), inbox = id.mailfolder("Inbox");
    if (!tsl_is_maildir_folder(inbox.c_str())) return EX_NOUSER;
    const bool tagged = tsl_is_valid_mailbox_name(id.tag().c_str(), 2) == 0;
    const string folder = tagged && tsl_is_maildir_folder(wanted.c_str()) ? wanted : inbox;
    const string message{std::istreambuf_iterator<char>(std::cin), {}};
    const long size = long(message.size());

    char queue_id[32];
    srandom(unsigned(time(nullptr) ^ getpid()));
    tsl_gen_queue_id(nullptr, queue_id, sizeof queue_id);
    if (!std::cin || !deliver(folder, message, queue_id)) return EX_TEMPFAIL;

    tsl_append_mail_folder_size((folder + "/.ts_folder_size").c_str(), size, 1);
    id.append_maildirsize(size, 1);
    tsl_update_mail_folder_size(folder.c_str(), size);  // the daemon need not run
}
