#include "tools/cli/manual.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

namespace {

// Asks man, without output, for the page's path.
bool has_page(const std::string& page) {
    posix_spawn_file_actions_t quiet;
    if (::posix_spawn_file_actions_init(&quiet) != 0) return false;
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::posix_spawn_file_actions_addopen(&quiet, stream, "/dev/null", O_RDWR, 0);
    }
    const char* const words[] = {"man", "-w", "1", page.c_str(), nullptr};
    pid_t child = 0;
    const int error =
        ::posix_spawnp(&child, words[0], &quiet, nullptr, const_cast<char* const*>(words), environ);
    ::posix_spawn_file_actions_destroy(&quiet);
    int status = 0;
    return error == 0 && retry([&] { return ::waitpid(child, &status, 0); }) == child &&
           status == 0;
}

}  // namespace

void become_manual(const std::string& page, mode_t umask) {
    if (::isatty(STDOUT_FILENO) != 1 || !has_page(page)) return;
    // Restores the default actions, which a pager relies on when its terminal goes away.
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGXFSZ, SIG_DFL);
    ::umask(umask);
    ::execlp("man", "man", "1", page.c_str(), nullptr);
}

}  // namespace Tessaly::tool
