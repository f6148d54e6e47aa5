#include "tools/cli/session.h"

#include <unistd.h>

#include <string>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

namespace {

// A failure is ignored, as there is no other way to report it.
void say(std::string_view prefix, std::string_view message) {
    const std::string text = std::string(prefix).append(message).append("\n");
    [[maybe_unused]] const auto written =
        retry([&] { return ::write(STDERR_FILENO, text.data(), text.size()); });
}

}  // namespace

void Session::warn(std::string_view message) const {
    if (!quiet) say("tsmail: warning: ", message);
}

void Session::detail(std::string_view message) const {
    if (verbosity > 0 && !quiet) say("tsmail: ", message);
}

void Session::error(std::string_view message) const { say("tsmail: ", message); }

void Session::error(std::string_view message, std::string_view status) const {
    if (status.empty()) return error(message);
    say(std::string(status).append(" "), message);
}

}  // namespace Tessaly::tool
