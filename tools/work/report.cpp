#include "tools/work/report.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "base/io.h"
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

Failure garbled() { return {kExitSoftware, "a worker's answer cannot be read"}; }

}  // namespace

void Report::error(const Failure& failure) {
    worst_ = std::max<int>(worst_, failure.code());
    put(Event::error,
        {{"text", failure.what()}, {"code", int{failure.code()}}, {"errno", failure.error()}});
}

void Report::progress(std::size_t done, std::size_t total) {
    constexpr std::chrono::milliseconds kPause{100};
    const auto now = std::chrono::steady_clock::now();
    if (now < next_progress_) return;
    next_progress_ = now + kPause;
    put(Event::progress, {{"done", done}, {"total", total}});
    send();
}

void Report::passed() {
    put(Event::passed, Json::object());
    send();
}

void Report::end(int code) {
    put(Event::end, {{"code", std::max(code, worst_)}});
    worst_ = kExitOk;
    send();
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

// Without a reader there is nobody left to work for.
void Report::send() {
    if (!base::write_all(socket_, pending_)) ::_exit(kExitTryAgain);
    pending_.clear();
}

bool Incoming::fill(int socket) {
    constexpr std::size_t kPiece = 65536;
    bytes_.erase(0, std::exchange(begin_, 0));
    const std::size_t had = bytes_.size();
    bytes_.resize(had + kPiece);
    const ssize_t n = retry([&] { return ::read(socket, bytes_.data() + had, kPiece); });
    bytes_.resize(had + static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    if (n < 0 && errno != ECONNRESET) throw system_failure("reading from a worker");
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
