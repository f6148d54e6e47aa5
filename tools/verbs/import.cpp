// import - brings messages from elsewhere into a mailbox.
#include <fmt/format.h>

#include <memory>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/companion.h"
#include "tools/spool/mailbox_job.h"
#include "tools/spool/source.h"
#include "tools/verbs/verbs.h"
#include "tools/work/import.h"
#include "tools/work/quota_daemon.h"
#include "tools/work/records.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string address;
    std::vector<string> sources;
    std::optional<string> folder;
    bool dry_run = false;
};

// As the mailbox's owner.
int import(const ImportPlan& plan, int socket, Report& report) {
    const SignalHold signals;
    // Waiting for the source is not the owner's fault.
    const Channel source(socket, [&] {
        report.fed();
        signals.check();
    });
    import_messages(plan, source, signals, report);
    return kExitOk;
}

void show(Session& session, const Json& object) {
    if (session.json) return session.out.object(object);
    const auto number = [&](const char* field) { return object.at(field).get<std::uint64_t>(); };
    const char* verb = object.at("done").get<bool>() ? "imported" : "would import";
    const string there =
        number("present") == 0 ? "" : fmt::format(", {} were there", number("present"));
    session.out.line(fmt::format("{}: {} {} ({}){}", printable(object.at("folder").get<string>()),
                                 verb, messages_text(number("messages")),
                                 size_text(number("bytes")), there));
}

int run_import(Session& session, const Arguments& arguments) {
    if (arguments.folder) check_folder_name(*arguments.folder);
    const ImportPlan plan = {exact_mailbox_of(arguments.address), arguments.folder,
                             session.callers_umask, arguments.dry_run};
    const Owner owner = Homes().owner(plan.id);
    std::vector<std::unique_ptr<Companion>> readers;
    QuotaDaemon daemon;
    Job job;
    job.count = arguments.sources.size();
    job.progress = "importing messages";
    job.owner = [&](std::size_t) { return owner; };
    job.input = [&](std::size_t n) {
        readers.push_back(std::make_unique<Companion>(
            [&](const Channel& channel) { send_source(arguments.sources[n], channel); }));
        return readers.back()->take_socket();
    };
    job.work = [&](std::size_t, int socket, Report& report) {
        return import(plan, socket, report);
    };
    job.show = [&](std::size_t n, const Json& counted) {
        Json object = {{"source", arguments.sources[n]}};
        object.update(counted);
        show(session, object);
        const auto bytes = object.at("bytes").get<long long>();
        if (!arguments.dry_run && bytes > 0) {
            daemon.tell(plan.id.mailfolder(object.at("folder").get<string>()), bytes);
        }
    };
    job.after_kill = [&](std::size_t) { mark_for_recount(plan.id); };
    return run_job(session, job).code;
}

void declare_import(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .texts("SOURCE", arguments.sources,
               "A Maildir, an mbox file, or a directory of mbox files that export wrote")
        .required();
    verb.text("--folder", arguments.folder,
              "The folder that everything goes into (default: Inbox, and the source's folders "
              "beside it)")
        .flag("--dry-run", arguments.dry_run, "Only say what would be imported");
}

}  // namespace

void add_import_verb(const VerbGroup& top) {
    top.verb("import", "Bring messages from elsewhere into a mailbox", declare_import, run_import);
}

}  // namespace Tessaly::tool
