// What a worker tells the process that started it, and how it crosses the socket between them.
#ifndef TSMAIL_TOOLS_WORK_REPORT_H
#define TSMAIL_TOOLS_WORK_REPORT_H

#include <chrono>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tools/cli/failure.h"
#include "tools/cli/output.h"

namespace Tessaly::tool {

enum class Event : unsigned char {
    object,    // a result, as --json prints it
    warning,   // {"text"}
    detail,    // {"text"}
    error,     // {"text", "code", "errno"}: something was left out; the work goes on
    progress,  // {"done", "total"}
    fed,       // some of the task's input came: its time begins anew
    passed,    // nothing that happens from here on makes the task fail
    end,       // {"code"}: the task is over
};

struct Message {
    Event event;
    Json body;
};

// The worker's end. Messages are collected; those that somebody waits for are sent at once. When
// the parent is gone each call is a Failure until the task has passed; then it does nothing.
class Report {
  public:
    explicit Report(int socket) : socket_(socket) {}

    void object(const Json& object) { put(Event::object, object); }
    void warn(std::string_view text) { put(Event::warning, {{"text", text}}); }
    void detail(std::string_view text) { put(Event::detail, {{"text", text}}); }
    void error(const Failure& failure);
    // Ten times a second at most.
    void progress(std::size_t done, std::size_t total);
    // The task has got some of its input, for which its mailbox's owner is not to blame. Sent once
    // a second at most.
    void fed();
    // From here on the task succeeds, whatever comes: a message was delivered, say.
    void passed();
    // The task's exit code is the larger one of `code` and those of its errors. Ends the process if
    // the parent is gone.
    void end(int code);
    // Sends what was collected.
    void send();

  private:
    void put(Event event, const Json& body);

    int socket_;
    int worst_ = kExitOk;
    bool passed_ = false;
    bool unheard_ = false;  // the parent is gone
    std::chrono::steady_clock::time_point next_progress_, next_fed_;
    std::string pending_;
};

// The parent's end: bytes as they come, messages as soon as they are whole. What comes from a
// worker is checked, as its user may have had a hand in it.
class Incoming {
  public:
    // Reads what is there. False at the end; a Failure for an error.
    bool fill(int socket);
    // The next whole message; nothing if there is none yet. A Failure with kExitSoftware for bytes
    // that are not a message.
    std::optional<Message> next();

  private:
    std::string bytes_;
    std::size_t begin_ = 0;
};

}  // namespace Tessaly::tool

#endif
