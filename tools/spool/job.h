// A job: the same work on one or many mailboxes, done by worker processes that run as the
// mailboxes' owners.
//
// The parent does only three things: it finds the home and its owner (spool/walk.h, spool/owner.h),
// it starts a worker for that owner, and it shows what the worker reports. Only workers touch
// anything below a home. Tasks of one owner share a worker. The job limits how many workers run at
// a time. A worker that takes too long, uses too much memory or dies is ended; its task is left
// out, and the other tasks go on.
#ifndef TSMAIL_TOOLS_SPOOL_JOB_H
#define TSMAIL_TOOLS_SPOOL_JOB_H

#include <tessaly/MailUserId.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/cli/session.h"
#include "tools/spool/owner.h"
#include "tools/work/report.h"

namespace Tessaly::tool {

struct Job {
    std::size_t count = 1;  // of tasks; the functions below get the task's number, counted from 0
    std::size_t jobs = 1;   // the most workers that run at a time
    std::string progress;   // the text of the progress line; empty: no progress line
    // A descriptor (SignalHold) for the signals that end the program. The caller has blocked these
    // signals. The job forwards them to the workers and ends when the workers end.
    int signals = -1;

    // In the parent: the owner whose rights the task's worker gets; nothing if there is nothing to
    // do. A Failure leaves the task out.
    std::function<std::optional<Owner>(std::size_t)> owner;
    // In the parent: the task's input, if it has one, opened with the caller's rights.
    std::function<Fd(std::size_t)> input = {};
    // In the parent: shows a result. It is called in the order of the tasks.
    std::function<void(std::size_t, const Json&)> show = [](std::size_t, const Json&) {};
    // In the parent: the text that people see for a failure, to which a verb may add its object.
    // Without this function the text is shown unchanged.
    std::function<std::string(std::size_t, const std::string&)> failed = {};
    // In the parent: shows a failure in the output, too, with its text as people see it and its
    // exit code.
    std::function<void(std::size_t, const std::string&, int)> show_failure = {};

    // In a worker: does the task and returns the exit code. A Failure ends the task with its code.
    // `input` is -1 if the task has no input.
    std::function<int(std::size_t, int input, Report&)> work;
    // In a new worker of the same owner, after a worker was ended in the middle of this task.
    std::function<void(std::size_t)> after_kill = {};
};

struct JobResult {
    int code = kExitOk;        // the largest exit code of a task
    std::size_t left_out = 0;  // tasks that failed
};

// Combines the results of two jobs on the same mailboxes.
JobResult worst_of(const JobResult& a, const JobResult& b);

// Runs the job. Errors and warnings go to the session's error stream.
JobResult run_job(Session& session, const Job& job);

}  // namespace Tessaly::tool

#endif
