// config check - says where a configuration file is broken.
#include <tessaly/support.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstring>

#include "tools/cli/text.h"
#include "tools/verbs/verbs.h"

// The installed support library may lack these functions.
#pragma weak cfg_get_file
#pragma weak cfg_check

namespace Tessaly::tool {

namespace {

struct Arguments {
    std::optional<std::string> file;
};

struct Report {
    Session& session;
    std::string file;
    int problems = 0;
};

void report_problem(int line, int column, const char* message, void* arg) {
    auto& report = *static_cast<Report*>(arg);
    ++report.problems;
    if (report.session.json) {
        report.session.out.object(
            Json{{"file", report.file}, {"line", line}, {"column", column}, {"message", message}});
    } else {
        report.session.out.line(
            fmt::format("{}:{}:{}: {}", printable(report.file), line, column, printable(message)));
    }
}

// Without a file at the usual place the defaults apply; a file that the user named must exist.
int unreadable(Session& session, const Arguments& arguments, const std::string& file, int error) {
    if (error != ENOENT || arguments.file) {
        throw Failure(kExitNoInput, printable(file) + ": " + error_text(error));
    }
    if (!session.json) session.out.line(printable(file) + ": no such file, the defaults hold");
    return kExitOk;
}

int run_check(Session& session, const Arguments& arguments) {
    if (cfg_check == nullptr || cfg_get_file == nullptr) {
        throw Failure(kExitUnavailable, "the support library in use cannot check configuration");
    }
    Report report{session, arguments.file ? *arguments.file : cfg_get_file()};
    const int broken = cfg_check(report.file.c_str(), report_problem, &report);
    if (broken < 0) return unreadable(session, arguments, report.file, errno);
    if (report.problems == 0 && !session.json) session.out.line(printable(report.file) + ": fine");
    return broken == 0 ? kExitOk : kExitData;
}

void declare_check(Verb& verb, Arguments& arguments) {
    verb.text("FILE", arguments.file, "The file (default: the one in use)");
}

}  // namespace

void add_config_verbs(const VerbGroup& top) {
    top.group("config", "About the configuration file")
        .verb("check", "Say where a configuration file is broken", declare_check, run_check);
}

}  // namespace Tessaly::tool
