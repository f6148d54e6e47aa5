// Columns that are other programs: finding, starting and awaiting them.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "bench/bench.h"

extern char** environ;

namespace bench {

namespace {

std::vector<char*> pointers(const std::vector<std::string>& words) {
    std::vector<char*> all;
    for (const std::string& word : words) all.push_back(const_cast<char*>(word.c_str()));
    all.push_back(nullptr);
    return all;
}

std::vector<std::string> environment_of(const Program& how) {
    std::vector<std::string> all = how.environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string name = std::string(*entry).substr(0, std::string(*entry).find('=') + 1);
        const bool changed =
            std::any_of(how.environment.begin(), how.environment.end(),
                        [&](const std::string& other) { return other.rfind(name, 0) == 0; });
        if (!changed) all.emplace_back(*entry);
    }
    return all;
}

std::string read_to_end(int fd) {
    std::string all;
    char piece[65536];
    for (ssize_t n; (n = ::read(fd, piece, sizeof piece)) > 0;) {
        all.append(piece, static_cast<std::size_t>(n));
    }
    return all;
}

// Standard input from a file, output into `output` or nowhere, errors nowhere.
class Redirections {
  public:
    Redirections(const char* input, int output) {
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawn_file_actions_addopen(&actions_, 0, input, O_RDONLY, 0);
        if (output >= 0) {
            ::posix_spawn_file_actions_adddup2(&actions_, output, 1);
        } else {
            ::posix_spawn_file_actions_addopen(&actions_, 1, "/dev/null", O_WRONLY, 0);
        }
        ::posix_spawn_file_actions_addopen(&actions_, 2, "/dev/null", O_WRONLY, 0);
    }
    Redirections(const Redirections&) = delete;
    Redirections& operator=(const Redirections&) = delete;
    ~Redirections() { ::posix_spawn_file_actions_destroy(&actions_); }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_;
};

}  // namespace

std::string find_program(const std::string& name) {
    if (name.find('/') != std::string::npos) return ::access(name.c_str(), X_OK) == 0 ? name : "";
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path == nullptr ? "" : path);
    for (std::string dir; std::getline(dirs, dir, ':');) {
        const std::string file = dir + "/" + name;
        if (::access(file.c_str(), X_OK) == 0) return file;
    }
    return "";
}

void add_program(Item& item, const std::string& column, Program program,
                 std::function<void()> prepare, std::function<long long()> check) {
    const std::string name = program.command.front();
    const std::string file = find_program(name);
    if (file.empty()) return;
    for (auto* words : {&program.command, &program.empty, &program.version}) {
        if (!words->empty() && words->front() == name) words->front() = file;
    }
    item.columns.push_back({column, {}, std::move(prepare), std::move(check), std::move(program)});
}

int run_program(const std::vector<std::string>& command, const Program& how, std::string* output) {
    int ends[2] = {-1, -1};
    if (output != nullptr) require(::pipe2(ends, O_CLOEXEC) == 0, "pipe");
    const std::vector<std::string> variables = environment_of(how);
    const Redirections redirections(how.input.c_str(), ends[1]);
    pid_t child = 0;
    errno = ::posix_spawn(&child, command.front().c_str(), redirections.get(), nullptr,
                          pointers(command).data(), pointers(variables).data());
    require(errno == 0, command.front());
    if (output != nullptr) {
        ::close(ends[1]);
        *output = read_to_end(ends[0]);
        ::close(ends[0]);
    }
    int status = 0;
    require(::waitpid(child, &status, 0) == child && WIFEXITED(status), command.front());
    return WEXITSTATUS(status);
}

long long sum_of_lines(const std::string& output, int code) {
    if (code != 0) return -1;
    long long sum = 0;
    for (std::size_t at = 0; at < output.size(); at = output.find('\n', at) + 1) {
        sum += std::strtoll(output.c_str() + at, nullptr, 10);
        if (output.find('\n', at) == std::string::npos) break;
    }
    return sum;
}

long long number_of_lines(const std::string& output, int code) {
    return code == 0 ? std::count(output.begin(), output.end(), '\n') : -1;
}

long long exit_code(const std::string&, int code) { return code; }

}  // namespace bench
