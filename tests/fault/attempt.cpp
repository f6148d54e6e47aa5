#include "fault/attempt.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <locale>
#include <new>
#include <system_error>

#include "fault/allocations.h"

namespace fs = std::filesystem;

namespace fault {

namespace {

constexpr int kHangSeconds = 5;
constexpr int kDescriptors = 64;

// The report of the child, in memory that both processes see.
struct Report {
    bool returned, threw;
    long allocations;
    std::uint64_t descriptors_before, descriptors_after;
    Answer answer;
};

class SharedReport {
  public:
    SharedReport() {
        void* memory = ::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
        report_ = new (memory) Report{};
    }
    ~SharedReport() { ::munmap(report_, sizeof(Report)); }
    SharedReport(const SharedReport&) = delete;
    SharedReport& operator=(const SharedReport&) = delete;
    Report* operator->() { return report_; }
    Report& operator*() { return *report_; }

  private:
    Report* report_;
};

std::uint64_t open_descriptors() {
    std::uint64_t open = 0;
    for (int fd = 0; fd < kDescriptors; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1) open |= std::uint64_t{1} << fd;
    }
    return open;
}

void call(const Operation& operation, const AllocationFault& allocations, Report& report) {
    begin();
    begin_allocations(allocations.first, allocations.calls);
    try {
        report.answer.result = operation.run(report.answer.output);
    } catch (const std::bad_alloc&) {
        report.threw = true;
    }
    report.allocations = end_allocations();
    end();
}

constexpr const char* kLocales = "/tmp/locales";

struct Grouping : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\1"; }
};

void enter_foreign_locales() {
    std::locale::global(std::locale(std::locale::classic(), new Grouping));
    ::setenv("LOCPATH", kLocales, 1);
    std::setlocale(LC_ALL, "foreign");
}

int child(const Operation& operation, const Setting& setting, Report& report) {
    const itimerval limit{{}, {kHangSeconds, 0}};
    ::setitimer(ITIMER_REAL, &limit, nullptr);
    for (int fd = 0; setting.closed && fd <= 2; ++fd) ::close(fd);
    if (setting.foreign) enter_foreign_locales();
    report.descriptors_before = open_descriptors();
    call(operation, setting.allocations, report);
    report.descriptors_after = open_descriptors();
    report.returned = true;
    return 0;
}

std::string descriptors_text(std::uint64_t set) {
    std::string text;
    for (int fd = 0; fd < kDescriptors; ++fd) {
        if ((set >> fd & 1) != 0) text += ' ' + std::to_string(fd);
    }
    return text;
}

std::string complaint(const Report& report, int status) {
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status) == SIGALRM
                   ? "hangs"
                   : std::string("died of ") + ::strsignal(WTERMSIG(status));
    }
    if (!report.returned) return "exited with " + std::to_string(WEXITSTATUS(status));
    if (report.descriptors_before == report.descriptors_after) return "";
    return "open before:" + descriptors_text(report.descriptors_before) +
           ", after:" + descriptors_text(report.descriptors_after);
}

std::string judge_answer(const Operation& operation, const Run& run, const Run& clean) {
    if (run.threw) return (operation.traits & kThrows) != 0 ? "" : "threw";
    const auto is_among = [&](const std::vector<Answer>& answers) {
        return std::find(answers.begin(), answers.end(), run.answer) != answers.end();
    };
    if (run.answer != clean.answer && !is_among(operation.others) &&
        !(run.no_memory && is_among(operation.without_memory))) {
        return "answered " + text_of(run.answer);
    }
    const bool claims = (operation.traits & kAcknowledges) != 0 && run.answer == clean.answer;
    if (!claims || run.after == clean.after) return "";
    return "claims to be done, but:\n" + difference(run.after, clean.after);
}

}  // namespace

std::string text_of(const Answer& answer) {
    return std::to_string(answer.result) + " (" + std::to_string(answer.output.numbers[0]) + ", " +
           std::to_string(answer.output.numbers[1]) + ") [" + answer.output.text.data() + "]";
}

bool make_foreign_locale() {
    fs::create_directories(kLocales);
    const std::string command = std::string("localedef --no-archive -c -i de_DE -f ISO-8859-1 ") +
                                kLocales + "/foreign >/dev/null 2>&1";
    if (std::system(command.c_str()) == -1) return false;
    ::setenv("LOCPATH", kLocales, 1);
    const char* const before = std::setlocale(LC_NUMERIC, nullptr);
    const bool made = std::setlocale(LC_NUMERIC, "foreign") != nullptr &&
                      *std::localeconv()->decimal_point == ',';
    std::setlocale(LC_NUMERIC, before);
    return made;
}

Attempt attempt(const Operation& operation, const Fault& fault, const Setting& setting) {
    if (!setting.as_it_is) {
        clear_spool();
        if (operation.prepare) operation.prepare();
    }
    Attempt attempt;
    attempt.run.before = spool_tree();
    SharedReport report;
    attempt.trace = run([&] { return child(operation, setting, *report); }, fault);
    attempt.run.after = spool_tree();
    attempt.run.returned = report->returned;
    attempt.run.threw = report->threw;
    attempt.run.answer = report->answer;
    attempt.run.lasting = fault.effect == Effect::error && fault.calls > 1;
    attempt.run.no_memory = setting.allocations.calls != 0;
    attempt.run.disk_full = fault.effect == Effect::disk_full;
    attempt.allocations = report->allocations;
    if (fault.effect != Effect::kill) attempt.complaint = complaint(*report, attempt.trace.status);
    return attempt;
}

std::string judge(const Operation& operation, const Attempt& attempt, const Run& clean) {
    if (!attempt.complaint.empty()) return attempt.complaint;
    const Run& run = attempt.run;
    if (run.returned) {
        if (auto text = judge_answer(operation, run, clean); !text.empty()) return text;
    }
    const std::string text =
        operation.rule ? operation.rule(run, clean) : difference(run.after, run.before);
    return text.empty() ? "" : "left on disk:\n" + text;
}

}  // namespace fault
