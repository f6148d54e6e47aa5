#include "tools/cli/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

namespace {

constexpr std::chrono::seconds kPatience{1};
constexpr std::chrono::milliseconds kPause{200};
constexpr std::uint64_t kBarWidth = 30;
constexpr char kToLineStart[] = "\r\x1b[K";

void write_error_stream(const std::string& text) {
    [[maybe_unused]] const auto written =
        retry([&] { return ::write(STDERR_FILENO, text.data(), text.size()); });
}

}  // namespace

Progress::Progress(const Session& session, std::string what, std::uint64_t total)
    : wanted_(!session.quiet && ::isatty(STDERR_FILENO) == 1),
      what_(std::move(what)),
      total_(total),
      begin_(Clock::now()),
      next_(begin_ + kPatience) {}

Progress::~Progress() {
    if (shown_) write_error_stream(kToLineStart);
}

void Progress::advance(std::uint64_t done) {
    if (!wanted_) return;
    const Clock::time_point now = Clock::now();
    if (now >= next_) show(done, now);
}

void Progress::advance(std::uint64_t done, std::uint64_t total) {
    total_ = total;
    advance(done);
}

void Progress::show(std::uint64_t done, Clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - begin_).count();
    const double rate = static_cast<double>(done) / seconds;
    std::string line = fmt::format("{}{}  {}", kToLineStart, what_, done);
    if (total_ > 0) {
        done = std::min(done, total_);
        const std::uint64_t filled = kBarWidth * done / total_;
        const double left = rate > 0 ? static_cast<double>(total_ - done) / rate : 0;
        line += fmt::format(" of {}  [{:#<{}}{:.<{}}]  {:.0f} s left", total_, "", filled, "",
                            kBarWidth - filled, left);
    }
    write_error_stream(line + fmt::format("  {:.0f}/s", rate));
    shown_ = true;
    next_ = now + kPause;
}

}  // namespace Tessaly::tool
