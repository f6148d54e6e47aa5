#include "testing/documents.h"

#include <sstream>
#include <stdexcept>

#include "testing/files.h"

namespace testing_documents {

namespace {

std::vector<std::string> cells_of(const std::string& line) {
    std::vector<std::string> cells;
    std::istringstream row(line.substr(1));
    for (std::string cell; std::getline(row, cell, '|');) {
        constexpr char kAround[] = " `";
        const auto begin = cell.find_first_not_of(kAround);
        const auto end = cell.find_last_not_of(kAround) + 1;
        cells.push_back(begin == std::string::npos ? "" : cell.substr(begin, end - begin));
    }
    return cells;
}

}  // namespace

std::string format(const std::string& name) {
    return testing_files::read(TSMAIL_SOURCE_DIR "/docs/formats/" + name);
}

std::vector<std::string> blocks(const std::string& text) {
    const std::string mark = "```\n";
    std::vector<std::string> result;
    for (auto at = text.find(mark); at != std::string::npos;) {
        const auto begin = at + mark.size();
        const auto end = text.find(mark, begin);
        if (end == std::string::npos) throw std::runtime_error("a block does not end");
        result.push_back(text.substr(begin, end - begin));
        at = text.find(mark, end + mark.size());
    }
    return result;
}

std::vector<std::vector<std::string>> table(const std::string& text, const std::string& head) {
    const auto begin = text.find("\n" + head + "\n|---");
    if (begin == std::string::npos) throw std::runtime_error("no table " + head);
    std::istringstream lines(text.substr(begin + 1));
    std::string line;
    std::getline(lines, line);
    std::getline(lines, line);
    std::vector<std::vector<std::string>> rows;
    while (std::getline(lines, line) && line.starts_with('|')) rows.push_back(cells_of(line));
    return rows;
}

}  // namespace testing_documents
