// metrics - the sums of each domain in the text format that Prometheus reads.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/cli/descriptors.h"
#include "tools/cli/text.h"
#include "tools/verbs/usage_rows.h"
#include "tools/verbs/verbs.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    std::optional<string> domain;
    std::optional<string> output;
};

// A label's value, in which the format escapes three characters.
string label(const string& text) {
    string escaped;
    for (const char c : printable(text)) {
        if (c == '\\' || c == '"') escaped += '\\';
        escaped += c;
    }
    return escaped;
}

string metrics_text(const UsageRows& rows, std::size_t left_out) {
    const auto domains = sums_by_domain(rows);
    string text;
    for (std::size_t i = 0; i < kUsageSums; ++i) {
        const auto& [field, metric, help, of] = kUsageSumTable[i];
        text += fmt::format("# HELP {0} {1}\n# TYPE {0} gauge\n", metric, help);
        for (const auto& [domain, sums] : domains) {
            text += fmt::format("{}{{domain=\"{}\"}} {}\n", metric, label(domain), sums[i]);
        }
    }
    constexpr char kLeftOut[] = "tsmail_left_out_mailboxes";
    return text + fmt::format(
                      "# HELP {0} Mailboxes that could not be read.\n# TYPE {0} gauge\n"
                      "{0} {1}",
                      kLeftOut, left_out);
}

// A file that appears under its name when it is whole. Until then it has a hidden name beside it.
class NewFile {
  public:
    NewFile(const string& path, mode_t mode) : path_(path) {
        const auto slash = path.rfind('/') + 1;
        hidden_ = fmt::format("{}.{}.{}", path.substr(0, slash), path.substr(slash), ::getpid());
        fd_.reset(retry([&] {
            return ::open(hidden_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        }));
        if (!fd_) {
            throw Failure(kExitCannotCreate, fmt::format("{}: cannot be made ({})", printable(path),
                                                         error_text(errno)));
        }
        ::fchmod(fd_.get(), mode);
    }
    NewFile(const NewFile&) = delete;
    ~NewFile() {
        if (!hidden_.empty()) ::unlink(hidden_.c_str());
    }

    void write(const string& text) {
        if (!base::write_all(fd_.get(), text)) throw system_failure(printable(hidden_));
    }
    void appear() {
        if (::rename(hidden_.c_str(), path_.c_str()) != 0) throw system_failure(printable(path_));
        hidden_.clear();
    }

  private:
    string path_, hidden_;
    Fd fd_;
};

int run_metrics(Session& session, const Arguments& arguments) {
    UsageRows rows;
    JobResult result;
    const int code = run_reader([&] {
        result = read_usage(session, arguments.domain, true, rows);
        return result.code;
    });
    if (arguments.output) {
        NewFile file(*arguments.output, 0666 & ~session.callers_umask);
        file.write(metrics_text(rows, result.left_out) + '\n');
        file.appear();
    } else if (session.json) {
        show_sums(session, sums_by_domain(rows));
    } else {
        session.out.line(metrics_text(rows, result.left_out));
    }
    return code;
}

void declare_metrics(Verb& verb, Arguments& arguments) {
    verb.text("--domain", arguments.domain, "Only the mailboxes of this domain")
        .text("--output", arguments.output, "Replace this file, in one step");
}

}  // namespace

void add_metrics_verb(const VerbGroup& top) {
    top.verb("metrics", "Show the sums of each domain for a monitoring system", declare_metrics,
             run_metrics);
}

}  // namespace Tessaly::tool
