// The messages from a worker to its parent, and their form on the socket between them.
#ifndef TSMAIL_TOOLS_WORK_REPORT_H
#define TSMAIL_TOOLS_WORK_REPORT_H

#include <chrono>
#include <cstddef>
#include <memory>
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
    error,     // {"text", "code", "errno", "status"}: a part was left out; the work goes on
    progress,  // {"done", "total"}
    fed,       // the task's input came or is waited for: the task's time restarts
    passed,    // from here on the task can no longer fail
    end,       // {"code"}: the task is over
};

struct Message {
    Event event;
    Json body;
};

// The worker's end. Messages are collected; urgent ones are sent at once. When the parent is gone,
// sending is a Failure until the task has passed; after that it does nothing.
class Report {
  public:
    explicit Report(int socket) : socket_(socket) {}

    void object(const Json& object) { put(Event::object, object); }
    void warn(std::string_view text) { put(Event::warning, {{"text", text}}); }
    void detail(std::string_view text) { put(Event::detail, {{"text", text}}); }
    void error(const Failure& failure);
    // Sent at most ten times a second.
    void progress(std::size_t done, std::size_t total);
    // The task has received some input, or waits for it. That is not the mailbox owner's fault, so
    // the task's time restarts. Sent at most four times a second.
    void fed();
    // From here on the task succeeds, whatever happens; for example, a message was delivered.
    void passed();
    // The task's exit code is the larger one of `code` and those of its errors. Ends the process if
    // the parent is gone.
    void end(int code);
    // Sends the collected messages.
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

// The parent's end: collects bytes and returns messages as soon as they are complete. Checks them,
// as the worker's user may have tampered with them.
class Incoming {
  public:
    // Reads the bytes that have arrived; none if the socket does not block. False at the end; a
    // Failure for an error.
    bool fill(int socket);
    // Whether the worker ended and had not read all that was sent to it.
    bool unread() const { return unread_; }
    // The next complete message; nothing if there is none yet. A Failure with kExitSoftware for
    // bytes that are not a message.
    std::optional<Message> next();

  private:
    std::unique_ptr<char[]> piece_;
    std::string bytes_;
    std::size_t begin_ = 0;
    bool unread_ = false;
};

}  // namespace Tessaly::tool

#endif
