// support_call FUNCTION [ARGUMENT...] - calls one function of the support library. Prints the
// answer, "ok" or the name of the error, and the number of descriptors that it left open.
#include <sys/mman.h>
#include <tessaly/support.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "testing/files.h"

namespace {

constexpr std::size_t kFlagOffset = 280944;

const char* outcome(bool fine) { return fine ? "ok" : ::strerrorname_np(errno); }

// Opens, locks, writes a line if the mode permits it, and closes.
std::string lock(char** arguments) {
    FILE* stream = open_and_lock_file(arguments[0], arguments[1]);
    if (stream == nullptr) return outcome(false);
    if (*arguments[1] != 'r') std::fputs("line\n", stream);
    return outcome(close_and_unlock_file(stream) == 0);
}
std::string move(char** arguments) {
    return outcome(tsm_movefile(arguments[0], arguments[1]) == 0);
}
std::string path(char** arguments) { return outcome(create_path(arguments[0], 0777) == 0); }
std::string clean(char** arguments) { return outcome(tsm_clean_dir(arguments[0], 0) == 0); }
std::string file(char**) { return cfg_get_file(); }
// The time zone, asked for so many times.
std::string zone(char** arguments) {
    std::string zones;
    for (int i = std::atoi(arguments[0]); i > 0; --i) zones += std::to_string(*cfg_get_TZ()) + ' ';
    return zones;
}
// The flag in the shared block: before and after a line was read from standard input.
std::string block(char**) {
    if (nCfg_debug_zone == nullptr) return "none";
    const auto* flag = reinterpret_cast<const volatile std::int32_t*>(
        static_cast<const char*>(nCfg_debug_zone) + kFlagOffset);
    std::string flags = std::to_string(*flag);
    std::printf("%s\n", flags.c_str());
    std::fflush(stdout);
    std::getchar();
    return std::to_string(*flag);
}
std::string write_block(char**) {
    std::memset(static_cast<char*>(nCfg_debug_zone) + kFlagOffset, 1, 1);
    return "written";
}

constexpr struct {
    const char* name;
    int arguments;
    std::string (*call)(char**);
} kCalls[] = {
    {"lock", 2, lock}, {"move", 2, move}, {"path", 1, path},   {"clean", 1, clean},
    {"file", 0, file}, {"zone", 1, zone}, {"block", 0, block}, {"write_block", 0, write_block},
};

}  // namespace

int main(int argc, char** argv) {
    for (const auto& call : kCalls) {
        if (argc < 2 || std::strcmp(argv[1], call.name) != 0) continue;
        if (argc != 2 + call.arguments) return 64;
        const std::size_t before = testing_files::open_descriptors();
        const std::string answer = call.call(argv + 2);
        const auto left = static_cast<long>(testing_files::open_descriptors() - before);
        std::printf("%s\n%ld\n", answer.c_str(), left);
        return 0;
    }
    return 64;
}
