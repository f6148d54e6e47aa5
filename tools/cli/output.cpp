#include "tools/cli/output.h"

#include <fmt/format.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "tools/cli/descriptors.h"
#include "tools/cli/text.h"

namespace Tessaly::tool {

namespace {

constexpr std::size_t kPiece = 65536;

bool wants_colour(int fd) {
    const char* no_color = std::getenv("NO_COLOR");
    const char* term = std::getenv("TERM");
    return (no_color == nullptr || *no_color == '\0') && term != nullptr &&
           std::strcmp(term, "dumb") != 0 && ::isatty(fd) == 1;
}

std::string hex_of(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    return text;
}

// JSON cannot carry a text that is not UTF-8, so this adds its bytes in hexadecimal digits beside
// it.
void add_bytes(Json& json) {
    if (!json.is_structured()) return;
    std::vector<std::pair<std::string, std::string>> added;
    for (auto& [key, value] : json.items()) {
        add_bytes(value);
        if (!json.is_object() || !value.is_string()) continue;
        const auto& text = value.get_ref<const std::string&>();
        if (!is_utf8(text)) added.emplace_back(key + "_hex", hex_of(text));
    }
    for (auto& [key, text] : added) json[key] = std::move(text);
}

}  // namespace

void raise_pipe_signal() {
    std::signal(SIGPIPE, SIG_DFL);
    std::raise(SIGPIPE);
}

Output::Output(int fd) : fd_(fd), colour_(wants_colour(fd)) {}

std::string Output::strong(std::string_view text) const {
    return colour_ ? fmt::format("\x1b[1m{}\x1b[0m", text) : std::string(text);
}

void Output::line(std::string_view text) {
    if (silent_) return;
    pending_.append(text).push_back('\n');
    if (pending_.size() >= kPiece) flush();
}

void Output::object(const Json& object) {
    Json shown = object;
    add_bytes(shown);
    line(shown.dump(-1, ' ', false, Json::error_handler_t::replace));
}

bool Output::finish() {
    flush();
    errno = std::exchange(error_, 0);
    return errno == 0;
}

void Output::flush() {
    std::string_view rest = pending_;
    while (error_ == 0 && !rest.empty()) {
        const ssize_t n = retry([&] { return ::write(fd_, rest.data(), rest.size()); });
        if (n < 0) error_ = errno;
        rest.remove_prefix(n < 0 ? 0 : static_cast<std::size_t>(n));
    }
    pending_.clear();
    if (error_ == EPIPE && ends_with_reader_) raise_pipe_signal();
}

void Table::row(std::vector<std::string> cells) {
    for (std::string& cell : cells) cell = printable(cell);
    rows_.push_back(std::move(cells));
}

std::vector<std::size_t> Table::widths() const {
    std::vector<std::size_t> widths;
    for (const Column& column : columns_) widths.push_back(width_of(column.heading));
    for (const auto& row : rows_) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], width_of(row[i]));
        }
    }
    return widths;
}

std::string Table::formatted(const std::vector<std::string>& cells,
                             const std::vector<std::size_t>& widths) const {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const std::string blanks(widths[i] - width_of(cells[i]), ' ');
        const bool right = columns_[i].align == Align::right;
        if (i > 0) line += "  ";
        line += right ? blanks + cells[i] : cells[i] + blanks;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

void Table::print(Output& out) const {
    const std::vector<std::size_t> columns = widths();
    std::vector<std::string> headings;
    for (const Column& column : columns_) headings.push_back(column.heading);
    out.line(out.strong(formatted(headings, columns)));
    for (const auto& row : rows_) out.line(formatted(row, columns));
}

}  // namespace Tessaly::tool
