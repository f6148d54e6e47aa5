// create - makes mailboxes and folders in them.
#include <fmt/format.h>

#include <algorithm>

#include "tools/cli/address.h"
#include "tools/cli/input.h"
#include "tools/cli/text.h"
#include "tools/spool/mailbox_job.h"
#include "tools/spool/new_home.h"
#include "tools/verbs/verbs.h"
#include "tools/work/folder.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct Arguments {
    std::vector<string> addresses;
    std::vector<string> folders;
    std::optional<string> owner;
    bool dry_run = false;
};

// ---- which mailboxes

// The addresses of the command line, with those of standard input in the place of "-".
class Addresses {
  public:
    explicit Addresses(Session& session) : session_(session) {}

    std::vector<TSMailUserId> all(const std::vector<string>& given) {
        for (const string& address : given) address == "-" ? read() : take(address, "");
        // A mistake in a long list is better found before a part of it is made.
        if (refused_) throw Failure(kExitData, "nothing was created");
        return std::move(ids_);
    }

  private:
    void read() {
        const Input input = open_input("");
        LineReader lines(input);
        while (lines.next()) {
            const string where = fmt::format("{}, line {}: ", input.name, lines.number());
            if (!lines.line().empty()) take(lines.line(), where);
        }
    }

    void take(const string& address, const string& where) {
        try {
            ids_.push_back(exact_mailbox_of(address));
        } catch (const Failure& failure) {
            session_.error(where + failure.what());
            refused_ = true;
        }
    }

    Session& session_;
    std::vector<TSMailUserId> ids_;
    bool refused_ = false;
};

// ---- as the mailbox's owner

Json row(const TSMailUserId& id, const string& name, bool created, bool done) {
    return {{"address", id.address(true)},
            {"name", name},
            {"path", name.empty() ? id.mailpath() : id.mailfolder(name)},
            {"created", created},
            {"done", done}};
}

void make(const TSMailUserId& id, const std::vector<string>& folders, FolderBatch& batch,
          std::vector<Json>& rows) {
    rows.push_back(row(id, "", batch.make_roots(id), true));
    for (const string& name : folders) {
        rows.push_back(row(id, name, batch.make_folder(id, name), true));
    }
}

// What is reported as made is on the disk.
int create(const TSMailUserId& id, const std::vector<string>& folders, mode_t umask,
           Report& report) {
    FolderBatch batch(umask);
    std::vector<Json> rows;
    const auto finish = [&] {
        batch.flush();
        for (const Json& row : rows) report.object(row);
    };
    try {
        make(id, folders, batch, rows);
    } catch (const Failure&) {
        finish();
        throw;
    }
    finish();
    return kExitOk;
}

int look(const TSMailUserId& id, const std::vector<string>& folders, Report& report) {
    report.object(row(id, "", !mailbox_exists(id), false));
    for (const string& name : folders) {
        const bool there = tsl_is_mail_folder(id.mailfolder(name).c_str(), nullptr) != 0;
        report.object(row(id, name, !there, false));
    }
    return kExitOk;
}

// ---- in the parent

void show_made(Session& session, const Json& made) {
    if (session.json) return session.out.object(made);
    const bool created = made.at("created").get<bool>(), done = made.at("done").get<bool>();
    const char* what = !created ? "existed" : done ? "created" : "would create";
    session.out.line(fmt::format("{} {}", what, printable(made.at("path").get<string>())));
}

// The owner of a home that is there; nothing if there is none.
std::optional<Owner> owner_if_any(const TSMailUserId& id) {
    try {
        return owner_of_mailbox(Homes().home(id));
    } catch (const Failure& failure) {
        if (failure.code() == kExitNoUser) return std::nullopt;
        throw;
    }
}

// What would be made of one mailbox. Where there is no home, nobody has to look.
int look_at(Session& session, const TSMailUserId& id, const std::vector<string>& folders) {
    const std::optional<Owner> owner = owner_if_any(id);
    if (!owner) {
        show_made(session, row(id, "", true, false));
        for (const string& name : folders) show_made(session, row(id, name, true, false));
        return kExitOk;
    }
    Job job;
    job.owner = [&](std::size_t) { return owner; };
    job.work = [&](std::size_t, int, Report& report) { return look(id, folders, report); };
    job.show = [&](std::size_t, const Json& made) { show_made(session, made); };
    return run_job(session, job).code;
}

int look_at_all(Session& session, const std::vector<TSMailUserId>& ids,
                const std::vector<string>& folders) {
    int code = kExitOk;
    for (const TSMailUserId& id : ids) {
        try {
            code = std::max(code, look_at(session, id, folders));
        } catch (const Failure& failure) {
            session.error(failure.what());
            code = std::max(code, int{failure.code()});
        }
    }
    return code;
}

int create_all(Session& session, const std::vector<TSMailUserId>& ids,
               const std::vector<string>& folders, const std::optional<Owner>& wanted) {
    const mode_t umask = session.callers_umask;
    Job job;
    job.count = ids.size();
    job.progress = ids.size() > 1 ? "creating mailboxes" : "";
    job.owner = [&](std::size_t n) { return owner_of_made_mailbox(session, ids[n], wanted); };
    job.work = [&](std::size_t n, int, Report& report) {
        return create(ids[n], folders, umask, report);
    };
    job.show = [&](std::size_t, const Json& made) { show_made(session, made); };
    return run_job(session, job).code;
}

int run_create(Session& session, const Arguments& arguments) {
    for (const string& name : arguments.folders) check_folder_name(name);
    std::vector<string> folders = system_folders();
    folders.insert(folders.end(), arguments.folders.begin(), arguments.folders.end());
    std::optional<Owner> wanted;
    if (arguments.owner) wanted = owner_named(*arguments.owner);
    const std::vector<TSMailUserId> ids = Addresses(session).all(arguments.addresses);
    return arguments.dry_run ? look_at_all(session, ids, folders)
                             : create_all(session, ids, folders, wanted);
}

void declare_create(Verb& verb, Arguments& arguments) {
    verb.texts("ADDRESS", arguments.addresses,
               "The mailboxes, as ann@site.test; - reads them from standard input, one a line")
        .required()
        .repeated("--folder", arguments.folders,
                  "A folder besides the system's own, as Work/2024; may be given several times")
        .text("--owner", arguments.owner,
              "Whose a home that is made will be, as USER or USER:GROUP (default: the owner of the "
              "domain's directory; where that is root the configured mail user)")
        .flag("--dry-run", arguments.dry_run, "Only say what would be created");
}

}  // namespace

void add_create_verb(const VerbGroup& top) {
    top.verb("create", "Create mailboxes and folders in them, as far as they are missing",
             declare_create, run_create);
}

}  // namespace Tessaly::tool
