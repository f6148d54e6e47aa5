// bench.h - one benchmark item: the same work done in several ways, measured side by side.
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

// Another program: what is run, and what it costs without the work.
struct Program {
    std::vector<std::string> command;
    // The same program on an empty input: its time is taken off. May be empty.
    std::vector<std::string> empty = {};
    std::string input = "/dev/null";
    // Says which version it is; may be empty.
    std::vector<std::string> version = {};
    // The value, from what it wrote and its exit code.
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
    // Done after each measured call, not measured; if there, it gives the value in place of run.
    std::function<long long()> check = {};
    // In place of run.
    Program program = {};
    bool is_program() const { return !program.command.empty(); }
};

struct Item {
    std::string name;
    long size;  // what the item grows with: messages, lines, processes ...
    std::vector<Column> columns;
    // Calls of run() in one measurement, for work far below a microsecond.
    int batch = 1;
    // What one call of run() does so many times; counts are given for one.
    double operations = 1;
};

// Makes an item of this size; the set-up (files on the spool) happens in here.
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
// Ends the program with the message if the condition does not hold: a benchmark whose set-up failed
// measures nothing.
void require(bool condition, const std::string& what);
// Writes a file; makes its directory.
void write_file(const std::string& path, const std::string& content);
// Where messages lie, and what their names and files tell of their size.
struct FolderKind {
    bool tagged = true;    // the names carry the size
    bool with_new = true;  // one in four in new, the others in cur; else all in cur
    bool sparse = false;   // the files are as long as the names say, without blocks on the disk
    int bytes = 0;         // else: what is written to each
    const char* before_size = ",#F#S#";
    const char* behind_size = "#E";
};
// A maildir folder on the spool.
std::string make_folder(const std::string& name, long messages, const FolderKind& kind);
// The same in a directory that is there.
void fill_folder(const std::string& folder, long messages, const FolderKind& kind);
// The bytes that a size file's lines behind its first add up to.
long long total_of(const std::string& path);

// ---- Programs
// ------------------------------------------------------------------------------------

// Where the program lies, from PATH; "" if this machine does not have it.
std::string find_program(const std::string& name);
// Adds the program's column if this machine has it.
void add_program(Item& item, const std::string& column, Program program,
                 std::function<void()> prepare = {}, std::function<long long()> check = {});
// Runs it to its end. `output` may be nullptr. The exit code.
int run_program(const std::vector<std::string>& command, const Program& how, std::string* output);

// Ways to get a value out of what a program writes.
long long sum_of_lines(const std::string& output,
                       int code);  // of the numbers that lines begin with
long long number_of_lines(const std::string& output, int code);
long long exit_code(const std::string& output, int code);

}  // namespace bench

#endif
