// bench.h - one benchmark item: the same work, done in several ways and measured side by side.
//
// Every item has the column "limit" (the bare system calls and memory traffic that no
// implementation can do without), mostly "literal" (the operation done the plainest way) and
// "library" (through the exported functions); where other programs or interfaces do the same work
// they are columns, too. All columns of an item must return the same value; a difference fails the
// run. Rounds of the columns are interleaved, so that a busy neighbour hits all of them alike.
#ifndef TSMAIL_BENCH_BENCH_H
#define TSMAIL_BENCH_BENCH_H

#include <functional>
#include <string>
#include <vector>

namespace bench {

// Another program: the command to run, and its cost without the work.
struct Program {
    std::vector<std::string> command;
    // The same program on an empty input: its time is taken off. May be empty.
    std::vector<std::string> empty = {};
    std::string input = "/dev/null";
    // Prints its version; may be empty.
    std::vector<std::string> version = {};
    // The value, from its output and its exit code.
    std::function<long long(const std::string& output, int code)> value = {};
    // Added to its environment, as NAME=VALUE.
    std::vector<std::string> environment = {};
};

struct Column {
    std::string name;
    // The measured work; its value is compared between the columns.
    std::function<long long()> run = {};
    // Done before each measured call, not measured; may be empty.
    std::function<void()> prepare = {};
    // Done after each measured call, not measured. If set, it gives the value in the place of run.
    std::function<long long()> check = {};
    // In place of run.
    Program program = {};
    bool is_program() const { return !program.command.empty(); }
};

struct Item {
    std::string name;
    long size;  // the quantity that grows: messages, lines, processes ...
    std::vector<Column> columns;
    // The number of calls of run() in one measurement, for work far below a microsecond.
    int batch = 1;
    // How often one call of run() does the work; counts are given for one time.
    double operations = 1;
};

// Makes an item of this size and its files on the spool.
using Maker = std::function<Item(long size)>;

// Announces a family of items. `quick` are the sizes of the smoke test; system calls and
// instructions are counted for sizes up to `counted`, as that takes much longer than the work.
struct Family {
    std::string name;
    std::vector<long> sizes;
    std::vector<long> quick;
    Maker make;
    long counted = 10000;
};
void add_family(Family family);

// Adds a family while the program starts.
struct Registration {
    explicit Registration(Family family) { add_family(std::move(family)); }
};

// ---- What items prepare and check with
// -----------------------------------------------------------

// A new empty directory on the spool.
std::string fresh_dir(const std::string& name);
// Ends the program with the message if the condition does not hold: after a failed set-up there is
// nothing to measure.
void require(bool condition, const std::string& what);
// Writes a file; makes its directory.
void write_file(const std::string& path, const std::string& content);
// The places of messages, and the sizes in their names and files.
struct FolderKind {
    bool tagged = true;  // the names carry the size
    bool with_new =
        true;  // every fourth message is in new, the others are in cur; otherwise all are in cur
    bool sparse = false;  // the files are as long as the names say, but have no blocks on the disk
    int bytes = 0;        // otherwise: the text of each
    const char* before_size = ",#F#S#";
    const char* behind_size = "#E";
};
// A maildir folder on the spool.
std::string make_folder(const std::string& name, long messages, const FolderKind& kind);
// The same in a directory that exists.
void fill_folder(const std::string& folder, long messages, const FolderKind& kind);
// The sum of the bytes in a size file's lines behind the first one.
long long total_of(const std::string& path);

// ---- Programs
// ------------------------------------------------------------------------------------

// The path of the program, from PATH; "" if this machine does not have it.
std::string find_program(const std::string& name);
// Adds the program's column if this machine has it.
void add_program(Item& item, const std::string& column, Program program,
                 std::function<void()> prepare = {}, std::function<long long()> check = {});
// Runs the program to its end and returns the exit code. `output` may be nullptr.
int run_program(const std::vector<std::string>& command, const Program& how, std::string* output);

// Ways to get a value from the output of a program.
long long sum_of_lines(const std::string& output,
                       int code);  // the sum of the numbers at the beginnings of lines
long long number_of_lines(const std::string& output, int code);
long long exit_code(const std::string& output, int code);

}  // namespace bench

#endif
