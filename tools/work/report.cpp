#include "tools/work/report.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

namespace {

using std::string;

// A message is a head and a body in MessagePack, which carries bytes that are not UTF-8, too.
struct Head {
    std::uint32_t length;  // of the body
    std::uint32_t event;
};

constexpr std::size_t kFull = 32768;                    // bytes collected before they are sent
constexpr std::size_t kLongest = std::size_t{1} << 28;  // of a body

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// Whether `next` has come; if so, sets it to a pause from now.
bool has_come(Clock::time_point& next, milliseconds pause) {
    const auto now = Clock::now();
    if (now < next) return false;
    next = now + pause;
    return true;
}

Failure garbled() { return {kExitSoftware, "a worker's answer cannot be read"}; }

}  // namespace

void Report::error(const Failure& failure) {
    worst_ = std::max<int>(worst_, failure.code());
    put(Event::error, {{"text", failure.what()},
                       {"code", int{failure.code()}},
                       {"errno", failure.error()},
                       {"status", failure.status()}});
}

void Report::progress(std::size_t done, std::size_t total) {
    constexpr milliseconds kPause{100};
    if (!has_come(next_progress_, kPause)) return;
    put(Event::progress, {{"done", done}, {"total", total}});
    send();
}

void Report::fed() {
    constexpr milliseconds kPause{250};
    if (!has_come(next_fed_, kPause)) return;
    put(Event::fed, Json::object());
    send();
}

void Report::passed() {
    passed_ = true;
    put(Event::passed, Json::object());
    send();
}

void Report::end(int code) {
    put(Event::end, {{"code", std::max(code, worst_)}});
    worst_ = kExitOk;
    passed_ = true;
    send();
    passed_ = false;
    if (unheard_) ::_exit(kExitTryAgain);
}

void Report::put(Event event, const Json& body) {
    const std::size_t at = pending_.size();
    pending_.resize(at + sizeof(Head));
    Json::to_msgpack(body, pending_);
    const Head head = {static_cast<std::uint32_t>(pending_.size() - at - sizeof(Head)),
                       static_cast<std::uint32_t>(event)};
    std::memcpy(pending_.data() + at, &head, sizeof head);
    if (pending_.size() >= kFull) send();
}

// Without a parent the result would be lost, so the task is given up if it still can be.
void Report::send() {
    constexpr int kAttempts = 10;  // after an error other than the end of the parent
    for (int attempt = 0; !unheard_ && !pending_.empty(); ++attempt) {
        const ssize_t n = retry([&] { return ::write(socket_, pending_.data(), pending_.size()); });
        if (n > 0) pending_.erase(0, static_cast<std::size_t>(n));
        if (n < 0) unheard_ = errno == EPIPE || errno == ECONNRESET || attempt >= kAttempts;
    }
    if (unheard_ && !passed_) throw Failure(kExitTryAgain, "the command was ended");
    pending_.clear();
}

// A worker that ends with something unread resets the connection. The reset is told once, before
// what the worker has sent.
bool Incoming::fill(int socket) {
    constexpr std::size_t kPiece = 65536;
    if (!piece_) piece_ = std::make_unique_for_overwrite<char[]>(kPiece);
    const auto receive = [&] { return ::recv(socket, piece_.get(), kPiece, 0); };
    ssize_t n = retry(receive);
    if (n < 0 && errno == ECONNRESET) {
        unread_ = true;
        n = retry(receive);
    }
    if (n < 0 && errno == EAGAIN) return true;
    if (n < 0) throw system_failure("reading from a worker");
    bytes_.erase(0, std::exchange(begin_, 0));
    bytes_.append(piece_.get(), static_cast<std::size_t>(n));
    return n > 0;
}

std::optional<Message> Incoming::next() {
    Head head;
    if (bytes_.size() - begin_ < sizeof head) return std::nullopt;
    std::memcpy(&head, bytes_.data() + begin_, sizeof head);
    if (head.length > kLongest || head.event > static_cast<unsigned>(Event::end)) throw garbled();
    if (bytes_.size() - begin_ - sizeof head < head.length) return std::nullopt;
    const char* body = bytes_.data() + begin_ + sizeof head;
    begin_ += sizeof head + head.length;
    Json json = Json::from_msgpack(body, body + head.length, true, false);
    if (!json.is_object()) throw garbled();
    return Message{static_cast<Event>(head.event), std::move(json)};
}

}  // namespace Tessaly::tool
