// The benchmark program. It works below /var/spool, for which the caller provides a private
// directory (scripts/bench.sh does).
//
//   bench [CHOICE] [--rounds N] --out FILE   measures
//   bench [CHOICE] --list              the columns whose calls are counted
//   bench --show ITEM SIZE COLUMN      makes a program's files; what to run, as JSON
//   bench --count ITEM SIZE COLUMN     one call between two marks (see bench_counted_call)
//
// CHOICE: --quick (small sizes, two rounds), --only TEXT (items whose names hold it), --most N
// (sizes up to it).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "bench/bench.h"

// Runs one call of the counted work. callgrind finds it by this function's name, strace by two
// unusual calls around it.
extern "C" __attribute__((noinline)) void bench_counted_call(const bench::Column& column) {
    column.run();
}

namespace bench {

namespace {

using Json = nlohmann::ordered_json;

std::vector<Family>& families() {
    static std::vector<Family> all;
    return all;
}

struct Options {
    bool quick = false;
    std::string only;
    int rounds = 15;
    long most = std::numeric_limits<long>::max();  // larger sizes are left out
    std::string out;
    std::string mode;
    std::vector<std::string> words;
};

// ---- One measured call --------------------------------------------------------------------------

double seconds_of(const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

struct Measured {
    double seconds;
    long long value;
};

// The time from spawn to exit, less that of the same program on an empty input.
Measured measure_program(const Program& program) {
    std::string output;
    int code = 0;
    Measured measured = {0, 0};
    measured.seconds = seconds_of([&] { code = run_program(program.command, program, &output); });
    if (program.value) measured.value = program.value(output, code);
    if (!program.empty.empty()) {
        measured.seconds -= seconds_of([&] { run_program(program.empty, program, &output); });
    }
    return measured;
}

Measured measure_calls(const Column& column, int batch) {
    long long value = 0;
    const double seconds = seconds_of([&] {
        for (int i = 0; i < batch; ++i) value = column.run();
    });
    return {seconds, value};
}

Measured measure_once(const Item& item, const Column& column) {
    if (column.prepare) column.prepare();
    Measured measured =
        column.is_program() ? measure_program(column.program) : measure_calls(column, item.batch);
    if (column.check) measured.value = column.check();
    return measured;
}

// ---- Rounds -------------------------------------------------------------------------------------

// Records one run of Google Benchmark.
class Collector : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        seconds = runs.front().real_accumulated_time / static_cast<double>(runs.front().iterations);
        iterations = runs.front().iterations;
    }
    double seconds = 0;
    benchmark::IterationCount iterations = 0;
};

// Work that takes long gets fewer rounds.
constexpr int kFewestRounds = 3;
constexpr std::chrono::seconds kBudget{20};

// The columns of one item, in a new random order in each round.
class Rounds {
  public:
    Rounds(const Item& item, const Options& options) : item_(item), options_(options) {}

    // Whether all columns gave the same value.
    bool run(Json& results) {
        std::vector<std::size_t> order(item_.columns.size());
        for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
        const auto begin = std::chrono::steady_clock::now();
        for (int round = 0; round < options_.rounds && agree_; ++round) {
            const auto spent = std::chrono::steady_clock::now() - begin;
            if (round >= kFewestRounds && spent > kBudget) break;
            std::shuffle(order.begin(), order.end(), random_);
            for (const std::size_t i : order) measure(item_.columns[i], round, results);
        }
        return agree_;
    }

  private:
    void measure(const Column& column, int round, Json& results) {
        benchmark::ClearRegisteredBenchmarks();
        auto* bench = benchmark::RegisterBenchmark(
            column.name.c_str(), [&](benchmark::State& state) { loop(state, column); });
        bench->UseManualTime();
        // As many calls as the first round needed for a useful measurement.
        auto& calls = calls_[column.name];
        if (calls > 0) {
            bench->Iterations(calls);
        } else {
            bench->MinTime(options_.quick ? 0.001 : 0.03);
        }
        Collector collector;
        benchmark::RunSpecifiedBenchmarks(&collector);
        calls = collector.iterations;
        results.push_back(Json{{"item", item_.name},
                               {"size", item_.size},
                               {"column", column.name},
                               {"round", round},
                               {"seconds", collector.seconds / item_.batch / item_.operations}});
    }

    void loop(benchmark::State& state, const Column& column) {
        for ([[maybe_unused]] auto _ : state) {
            const Measured measured = measure_once(item_, column);
            // A program can be quicker than its empty run was.
            state.SetIterationTime(std::max(measured.seconds, 1e-9));
            compare(column.name, measured.value);
        }
    }

    void compare(const std::string& column, long long value) {
        if (first_column_.empty()) {
            first_column_ = column;
            first_value_ = value;
        }
        if (value == first_value_ || !agree_) return;
        agree_ = false;
        std::fprintf(stderr, "%s/%ld: %s gives %lld, %s gives %lld\n", item_.name.c_str(),
                     item_.size, first_column_.c_str(), first_value_, column.c_str(), value);
    }

    const Item& item_;
    const Options& options_;
    std::mt19937 random_{4711};
    std::map<std::string, benchmark::IterationCount> calls_;
    std::string first_column_;
    long long first_value_ = 0;
    bool agree_ = true;
};

// ---- What the program is asked for --------------------------------------------------------------

// Calls handle(family, size) for everything that is chosen.
template <class Handle>
void each_size(const Options& options, Handle handle) {
    for (const Family& family : families()) {
        if (family.name.find(options.only) == std::string::npos) continue;
        for (const long size : options.quick ? family.quick : family.sizes) {
            if (size <= options.most) handle(family, size);
        }
    }
}

void note_version(const Column& column, Json& versions) {
    const Program& program = column.program;
    if (program.version.empty() || versions.contains(column.name)) return;
    std::string output;
    run_program(program.version, program, &output);
    versions[column.name] = output.substr(0, output.find('\n'));
}

int measure_all(const Options& options) {
    Json results = Json::array();
    Json versions = Json::object();
    bool agree = true;
    each_size(options, [&](const Family& family, long size) {
        std::fprintf(stderr, "%s/%ld\n", family.name.c_str(), size);
        const Item item = family.make(size);
        for (const Column& column : item.columns) note_version(column, versions);
        agree = Rounds(item, options).run(results) && agree;
        write_file(options.out, Json{{"versions", versions}, {"results", results}}.dump(1) + '\n');
    });
    if (results.empty()) std::fprintf(stderr, "bench: nothing to measure\n");
    return agree && !results.empty() ? 0 : 1;
}

int list_columns(const Options& options) {
    Json all = Json::array();
    each_size(options, [&](const Family& family, long size) {
        if (size > family.counted) return;
        const Item item = family.make(size);
        for (const Column& column : item.columns) {
            all.push_back(Json{{"item", item.name},
                               {"size", size},
                               {"column", column.name},
                               {"program", column.is_program()},
                               {"operations", item.operations}});
        }
    });
    std::cout << all.dump() << '\n';
    return 0;
}

// Calls handle(column) for the column that the words name.
template <class Handle>
int with_column(const std::vector<std::string>& words, Handle handle) {
    for (const Family& family : families()) {
        if (family.name != words[0]) continue;
        const Item item = family.make(std::stol(words[1]));
        for (const Column& column : item.columns) {
            if (column.name == words[2]) return handle(column);
        }
    }
    std::fprintf(stderr, "bench: no such column\n");
    return 1;
}

int show(const Column& column) {
    if (column.prepare) column.prepare();
    const Program& program = column.program;
    std::cout << Json{{"command", program.command},
                      {"empty", program.empty},
                      {"input", program.input},
                      {"environment", program.environment}}
              << '\n';
    return 0;
}

int count(const Column& column) {
    const auto prepare = [&] {
        if (column.prepare) column.prepare();
    };
    prepare();
    column.run();
    prepare();
    ::access("/bench/begin", F_OK);
    bench_counted_call(column);
    ::access("/bench/end", F_OK);
    return 0;
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const bool more = i + 1 < argc;
        if (word == "--quick") {
            options.quick = true;
            options.rounds = 2;
        } else if (word == "--only" && more) {
            options.only = argv[++i];
        } else if (word == "--rounds" && more) {
            options.rounds = std::stoi(argv[++i]);
        } else if (word == "--most" && more) {
            options.most = std::stol(argv[++i]);
        } else if (word == "--out" && more) {
            options.out = argv[++i];
        } else if (word == "--list" || word == "--show" || word == "--count") {
            options.mode = word;
        } else {
            options.words.push_back(word);
        }
    }
    return options;
}

int run(const Options& options) {
    if (options.mode == "--list") return list_columns(options);
    if (options.mode.empty() && options.words.empty()) return measure_all(options);
    if (options.words.size() != 3) return 64;
    return with_column(options.words, options.mode == "--show" ? show : count);
}

}  // namespace

void add_family(Family family) { families().push_back(std::move(family)); }

}  // namespace bench

int main(int argc, char** argv) {
    int none = 1;
    benchmark::Initialize(&none, argv);
    return bench::run(bench::parse(argc, argv));
}
