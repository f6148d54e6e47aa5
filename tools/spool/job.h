// A job: the same work on one or many mailboxes, done by worker processes that become the
// mailboxes' owners.
//
// The process that was started does three things only: it finds the home and learns whose it is
// (spool/walk.h, spool/owner.h), it starts a worker for that owner, and it shows what the worker
// reports. Everything below a home is touched by workers. Tasks of one owner share a worker; so
// many workers as the job allows work at a time. A worker that takes too long, uses too much
// memory or dies is ended; its task is left out, and the others go on.
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
    std::size_t count = 1;  // of tasks; the functions below get the task's number from 0
    std::size_t jobs = 1;   // how many workers at a time
    std::string progress;   // what the progress line says; empty: none is shown
    // Signals that end the program are forwarded to the workers, and the job ends when they do.
    // The caller blocks them before (SignalHold).
    int signals = -1;

    // In the parent. Whose rights the task's worker gets. Nothing: there is nothing to do. A
    // Failure leaves the task out.
    std::function<std::optional<Owner>(std::size_t)> owner;
    // What the task reads, opened with the caller's rights, if it reads something.
    std::function<Fd(std::size_t)> input = {};
    // A result, in the order of the tasks.
    std::function<void(std::size_t, const Json&)> show = [](std::size_t, const Json&) {};
    // A failure's text for the person; as it is, unless a verb puts its object in front.
    std::function<std::string(std::size_t, const std::string&)> failed = {};

    // In a worker. Returns the exit code; a Failure ends the task with its code. `input` is -1
    // without one.
    std::function<int(std::size_t, int input, Report&)> work;
    // In another worker of the same owner, after one was ended in the middle of its task.
    std::function<void(std::size_t)> after_kill = {};
};

struct JobResult {
    int code = kExitOk;        // the largest exit code of a task
    std::size_t left_out = 0;  // tasks that failed
};

// Of two jobs on the same mailboxes.
JobResult worst_of(const JobResult& a, const JobResult& b);

// Runs the job. Errors and warnings go to the session's error stream.
JobResult run_job(Session& session, const Job& job);

}  // namespace Tessaly::tool

#endif
