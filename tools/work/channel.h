// Channel - passes messages of a mailbox between a worker, which has the owner's rights, and the
// process that reads or writes files outside of the store with the caller's rights.
#ifndef TSMAIL_TOOLS_WORK_CHANNEL_H
#define TSMAIL_TOOLS_WORK_CHANNEL_H

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/cli/descriptors.h"
#include "tools/cli/output.h"

namespace Tessaly::tool {

// What goes over the channel: an object, and perhaps an open file.
struct Item {
    Json head;
    Fd file;
};

// One end of a socket of records. Waiting calls `idle` twice a second, which throws to give up.
class Channel {
  public:
    using Idle = std::function<void()>;
    explicit Channel(
        int socket, Idle idle = [] {})
        : socket_(socket), idle_(std::move(idle)) {}

    // False if the other process is gone. A Failure for any other error.
    bool send(const Json& head, int file = -1) const;
    // Nothing if the other process is gone. A Failure for an error, and for bytes that are not an
    // item.
    std::optional<Item> receive() const;

  private:
    void wait(short event) const;

    int socket_;
    Idle idle_;
};

// The values of the field "kind" of an item.
namespace item {
inline constexpr char kFolder[] = "folder";     // a folder: "folder", its names as they stand
inline constexpr char kMessage[] = "message";   // a message in its file: "folder", "name", "fresh"
inline constexpr char kMbox[] = "mbox";         // an mbox file: "folder"
inline constexpr char kLeftOut[] = "left out";  // "text"
inline constexpr char kNote[] = "note";         // "text"
inline constexpr char kFailed[] = "failed";     // "text", "code": the process gives up
inline constexpr char kEnd[] = "end";           // everything was sent
}  // namespace item

}  // namespace Tessaly::tool

#endif
