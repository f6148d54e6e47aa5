// export - writes the messages of a mailbox to a directory.
#include "tools/work/export.h"

#include <fmt/format.h>

#include "tools/cli/address.h"
#include "tools/cli/text.h"
#include "tools/spool/companion.h"
#include "tools/spool/mailbox_job.h"
#include "tools/spool/target.h"
#include "tools/verbs/verbs.h"
#include "tools/work/signals.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    string address;
    string directory;
    std::optional<string> folder;
    string format = "maildir";
    bool dry_run = false;
};

constexpr Word kFormats[] = {{static_cast<int>(ExportFormat::maildir), "maildir"},
                             {static_cast<int>(ExportFormat::mbox), "mbox"}};

// As the mailbox's owner.
int export_mailbox(const ExportPlan& plan, int socket, bool dry_run, Report& report) {
    // The disk that is written to may be slow, which is not the owner's fault.
    const Channel target(socket, [&] { report.fed(); });
    export_messages(plan, dry_run ? nullptr : &target, report);
    return kExitOk;
}

void show(Session& session, const Json& object) {
    if (session.json) return session.out.object(object);
    session.out.line(fmt::format("{}: {} {} ({})", printable(object.at("folder").get<string>()),
                                 object.at("done").get<bool>() ? "exported" : "would export",
                                 messages_text(object.at("messages").get<std::uint64_t>()),
                                 size_text(object.at("bytes").get<std::uint64_t>())));
}

int run_export(Session& session, const Arguments& arguments) {
    if (arguments.folder) check_folder_name(*arguments.folder);
    const Word& format = word_of(kFormats, "format", arguments.format);
    const ExportPlan plan = {exact_mailbox_of(arguments.address), arguments.folder,
                             static_cast<ExportFormat>(format.number)};
    const Owner owner = Homes().owner(plan.id);
    std::optional<Target> target;
    if (!arguments.dry_run) target.emplace(arguments.directory, plan);
    std::optional<Companion> writer;
    Job job;
    job.progress = "exporting messages";
    job.owner = [&](std::size_t) { return owner; };
    job.input = [&](std::size_t) {
        if (arguments.dry_run) return Fd();
        writer.emplace([&](const Channel& channel) { target->write(channel); });
        return writer->take_socket();
    };
    job.work = [&](std::size_t, int socket, Report& report) {
        return export_mailbox(plan, socket, arguments.dry_run, report);
    };
    job.show = [&](std::size_t, const Json& object) { show(session, object); };
    return run_job(session, job).code;
}

void declare_export(Verb& verb, Arguments& arguments) {
    verb.address(arguments.address)
        .text("DIR", arguments.directory, "The directory to write to; it is made if it is missing")
        .required();
    verb.text("--folder", arguments.folder, "Only this folder and those below it")
        .text("--format", arguments.format, "maildir (default) or mbox, a file for each folder")
        .one_of(kFormats)
        .flag("--dry-run", arguments.dry_run, "Only say what would be exported");
}

}  // namespace

void add_export_verb(const VerbGroup& top) {
    top.verb("export", "Write the messages of a mailbox to a directory", declare_export,
             run_export);
}

}  // namespace Tessaly::tool
