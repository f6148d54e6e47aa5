// Work in a directory that holds homes or domains, with the rights of the directory's owner.
#ifndef TSMAIL_TOOLS_SPOOL_DIRECTORY_JOB_H
#define TSMAIL_TOOLS_SPOOL_DIRECTORY_JOB_H

#include <functional>
#include <string>

#include "tools/cli/session.h"
#include "tools/spool/walk.h"
#include "tools/work/report.h"

namespace Tessaly::tool {

// Runs the work in a worker that has the rights of the directory's owner and gets the directory
// open (O_PATH). `show` gets the objects that it reports. Throws the Failure that the work throws.
void run_in(Session& session, const Place& directory,
            const std::function<void(int directory, Report& report)>& work,
            const std::function<void(const Json&)>& show = {});

// Flushes new entries to the disk; `path` is for messages. Skips a directory that this process may
// not read.
void flush_directory(int directory, const std::string& path);

// Renames. False with errno; EEXIST if the new name is taken. (Where the file
// system cannot promise to replace nothing, an empty directory may be replaced.)
bool move_between(int from_directory, const std::string& from, int to_directory,
                  const std::string& to);
bool move_within(int directory, const std::string& from, const std::string& to);

// A Failure if something has the name, and that Failure.
void demand_free(const Place& directory, const std::string& name);
Failure name_taken(const std::string& path);

}  // namespace Tessaly::tool

#endif
