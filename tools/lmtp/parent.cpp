#include "tools/lmtp/parent.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "tools/cli/address.h"
#include "tools/cli/passing.h"

namespace Tessaly::tool::lmtp {

namespace {

using boost::system::error_code;
using std::string;

constexpr std::size_t kMostQuestions = 16;  // that wait for an answer: more could fill the socket
constexpr std::chrono::seconds kOwnerKnown{5};
constexpr std::size_t kMostKnown = 4000;

}  // namespace

string home_of(const string& address) { return mailbox_of(address).homepath(); }

Parent::Parent(boost::asio::io_context& context, int socket)
    : context_(context), socket_(context, socket) {
    listen();
}

void Parent::find_owner(const string& address, const Answered& answered) {
    const string home = home_of(address);
    const auto known = owners_.find(home);
    if (known != owners_.end() && Clock::now() < known->second.until) {
        Answer answer;
        answer.owner = known->second.owner;
        return answered(answer);
    }
    ask(Ask::owner, address, [this, home, answered](const Answer& answer, Fd) {
        if (owners_.size() >= kMostKnown) owners_.clear();
        owners_.erase(home);
        if (answer.code == kExitOk) owners_[home] = {answer.owner, Clock::now() + kOwnerKnown};
        answered(answer);
    });
}

void Parent::start_worker(const string& address, Started started) {
    ask(Ask::worker, address, std::move(started));
}

void Parent::signal(pid_t worker, int number) {
    Question question;
    question.ask = Ask::signal;
    question.process = worker;
    question.signal = number;
    send_with(socket_.native_handle(), &question, sizeof question, -1);
}

void Parent::ask(Ask what, const string& address, Started answered) {
    Question question;
    question.ask = what;
    question.serial = ++serial_;
    question.length = static_cast<std::uint32_t>(std::min(address.size(), sizeof question.address));
    std::memcpy(question.address, address.data(), question.length);
    asked_[question.serial] = std::move(answered);
    unasked_.push_back(question);
    send_questions();
}

void Parent::send_questions() {
    while (!unasked_.empty() && asked_.size() - unasked_.size() < kMostQuestions) {
        const Question& question = unasked_.front();
        if (!send_with(socket_.native_handle(), &question, sizeof question, -1))
            return context_.stop();
        unasked_.pop_front();
    }
}

void Parent::listen() {
    using Stream = boost::asio::posix::stream_descriptor;
    socket_.async_wait(Stream::wait_read, [this](const error_code& error) {
        if (error) return;
        take_answer();
        listen();
    });
}

// A descriptor may be reported as readable although nothing has come. An answer whose socket this
// process has no room for, because of many peers, is one without a worker.
void Parent::take_answer() {
    Answer answer;
    Fd socket;
    const ssize_t n = receive_with(socket_.native_handle(), &answer, sizeof answer, socket);
    if (n < 0 && errno == EAGAIN) return;
    const bool lost_socket = n < 0 && errno == EMFILE;
    if (n != sizeof answer && !lost_socket) return context_.stop();
    const auto asked = asked_.find(answer.serial);
    if (asked == asked_.end()) return;
    const Started answered = std::move(asked->second);
    asked_.erase(asked);
    send_questions();
    answered(answer, std::move(socket));
}

}  // namespace Tessaly::tool::lmtp
