#include "testing/locales.h"

#include <sys/wait.h>

#include <clocale>
#include <cstdlib>
#include <stdexcept>

#include "testing/files.h"

namespace testing_locales {

namespace {

constexpr char kPlace[] = "/tmp/locales";
constexpr int kNoSources = 4;  // localedef's exit code when it does not find them
constexpr int kNoCommand = 127;

}  // namespace

bool use(const std::string& source, const std::string& charmap) {
    const std::string name = source + "." + charmap;
    const std::string log = std::string(kPlace) + "/" + name + ".log";
    testing_files::make_dirs(kPlace);
    const std::string command = "localedef --no-archive -c -i " + source + " -f " + charmap + " " +
                                kPlace + "/" + name + " 2>" + log;
    const int code = WEXITSTATUS(std::system(command.c_str()));
    if (code == kNoSources || code == kNoCommand) return false;
    ::setenv("LOCPATH", kPlace, 1);
    if (std::setlocale(LC_ALL, name.c_str()) != nullptr) return true;
    throw std::runtime_error(name + ": " + testing_files::read(log));
}

}  // namespace testing_locales
