// Runs a fuzz target over kept inputs: every file of the directories that are named.
#include <exception>
#include <filesystem>
#include <set>

#include "fuzz/fuzz.h"
#include "testing/files.h"

namespace {

void run(const std::filesystem::path& path) {
    std::fprintf(stderr, "%s\n", path.filename().c_str());
    const std::string input = testing_files::read(path);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

int run_all(char* const* dirs) {
    std::set<std::filesystem::path> files;
    for (; *dirs != nullptr; ++dirs) {
        const std::filesystem::directory_iterator entries(*dirs);
        files.insert(begin(entries), end(entries));
    }
    for (const auto& file : files) run(file);
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}

}  // namespace

int main(int, char* argv[]) {
    try {
        return run_all(argv + 1);
    } catch (const std::exception& e) {
        fuzz::fail(e.what());
    }
}
