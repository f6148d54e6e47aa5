// What a verb shows: lines and tables for people, JSON for programs.
#ifndef TSMAIL_TOOLS_CLI_OUTPUT_H
#define TSMAIL_TOOLS_CLI_OUTPUT_H

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace Tessaly::tool {

// Fields keep the order in which they are written.
using Json = nlohmann::ordered_json;

// Collects text and writes it to a descriptor in large pieces. finish() reports a write error.
class Output {
  public:
    // Uses colour if the descriptor is a terminal, NO_COLOR is unset or empty, and TERM is not
    // "dumb".
    explicit Output(int fd);

    bool colour() const { return colour_; }
    // Shows nothing from here on.
    void silence() { silent_ = true; }
    // From here on the process ends as soon as its reader has gone, by SIGPIPE and without a word.
    // For work that changes nothing.
    void end_with_reader() { ends_with_reader_ = true; }
    // The text, emphasised if colour is on.
    std::string strong(std::string_view text) const;

    void line(std::string_view text);
    // Shows one object on one line. Bytes that are not UTF-8 become U+FFFD; the exact bytes of such
    // a text follow as hexadecimal digits in a field of the same name with "_hex" appended.
    void object(const Json& object);

    // Writes the rest. False with errno if a write has failed since the last call.
    bool finish();

  private:
    void flush();

    int fd_;
    bool colour_;
    bool silent_ = false;
    bool ends_with_reader_ = false;
    int error_ = 0;
    std::string pending_;
};

// Ends the process as other programs do whose reader has gone, as "| head" goes. Returns if the
// signal is blocked.
void raise_pipe_signal();

enum class Align { left, right };

// Rows of texts in aligned columns; hostile bytes in cells are shown escaped.
class Table {
  public:
    struct Column {
        std::string heading;
        Align align = Align::left;
    };
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void row(std::vector<std::string> cells);
    // Prints a line of headings, then one line for each row.
    void print(Output& out) const;

  private:
    std::vector<std::size_t> widths() const;
    std::string formatted(const std::vector<std::string>& cells,
                          const std::vector<std::size_t>& widths) const;

    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace Tessaly::tool

#endif
