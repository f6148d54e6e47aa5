#include "tools/lmtp/protocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/cli/text.h"
#include "tools/lmtp/words.h"

namespace Tessaly::tool::lmtp {

namespace {

using std::string;
using std::string_view;

// Longer than any line that two names of files and some parameters need.
constexpr std::size_t kLongestLine = 2048;
// Replies that wait to be sent; after that the peer has to read before it is heard again.
constexpr std::size_t kMostOutput = 4096;
constexpr unsigned kMostMistakes = 20;

const Reply kOk = {250, "2.0.0", "OK"};
const Reply kOutOfOrder = {503, "5.5.1", "Not now"};
const Reply kNoRecipients = {503, "5.5.1", "No valid recipients"};
const Reply kBadArguments = {501, "5.5.4", "Wrong arguments"};
const Reply kBadParameter = {555, "5.5.4", "Unknown parameter"};
const Reply kTooBig = {552, "5.3.4", "The message is too big"};

}  // namespace

const Protocol::Command Protocol::kCommands[] = {
    {"LHLO", &Protocol::lhlo}, {"MAIL", &Protocol::mail},         {"RCPT", &Protocol::rcpt},
    {"DATA", &Protocol::data}, {"BDAT", &Protocol::bdat},         {"RSET", &Protocol::rset},
    {"NOOP", &Protocol::noop}, {"QUIT", &Protocol::quit},         {"VRFY", &Protocol::vrfy},
    {"EXPN", &Protocol::expn}, {"XFORWARD", &Protocol::xforward},
};

Protocol::Protocol(const Settings& settings, ContentSink& sink) : settings_(settings), sink_(sink) {
    output_ = "220 " + settings.host + " LMTP tsmail\r\n";
}

std::size_t Protocol::take(string_view bytes) {
    std::size_t taken = 0;
    while (taken < bytes.size() && wants_ == Wants::bytes && output_.size() < kMostOutput) {
        const string_view rest = bytes.substr(taken);
        switch (input_) {
            case Input::command:
                taken += take_command(rest);
                break;
            case Input::text:
                taken += take_text(rest);
                break;
            case Input::chunk:
                taken += take_chunk(rest);
                break;
        }
    }
    return taken;
}

// ---- command lines

// Takes bytes up to the next LF. Only CR LF ends a line.
std::size_t Protocol::take_command(string_view bytes) {
    const std::size_t end = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
    const bool cr_came = line_.ends_with('\r');
    line_ +=
        bytes.substr(0, std::min(end, kLongestLine + 1 - std::min(line_.size(), kLongestLine)));
    const bool ends = bytes[end - 1] == '\n' && (end > 1 ? bytes[end - 2] == '\r' : cr_came);
    if (line_.size() > kLongestLine) {
        too_long_ = true;
        line_.assign(1, bytes[end - 1]);  // its end may be a CR before the LF
    }
    if (ends) run_line();
    return end;
}

void Protocol::run_line() {
    string line = std::move(line_);
    line_.clear();
    if (std::exchange(too_long_, false)) return refuse({500, "5.5.2", "The line is too long"});
    line.resize(line.size() - 2);
    if (has_control_character(line)) {
        return refuse({500, "5.5.2", "The line holds a control character"});
    }
    run(line);
}

void Protocol::run(string_view line) {
    const string_view name = line.substr(0, line.find(' '));
    for (const Command& command : kCommands) {
        if (!equal(name, command.name)) continue;
        string_view arguments = line.substr(name.size());
        drop_prefix(arguments, " ");
        return (this->*command.run)(arguments);
    }
    refuse({500, "5.5.1", "Unknown command"});
}

void Protocol::lhlo(string_view arguments) {
    if (next_word(arguments).empty()) return refuse(kBadArguments);
    reset();
    greeted_ = true;
    output_ += fmt::format(
        "250-{}\r\n250-PIPELINING\r\n250-ENHANCEDSTATUSCODES\r\n250-8BITMIME\r\n250-SIZE {}\r\n"
        "250-CHUNKING\r\n250-SMTPUTF8\r\n250 XFORWARD IDENT\r\n",
        settings_.host, settings_.max_size);
}

void Protocol::mail(string_view arguments) {
    if (!greeted_ || sender_given_) return refuse(kOutOfOrder);
    const auto path = path_of(arguments, "FROM:", "5.1.7");
    if (!path) return;
    Envelope envelope;
    envelope.sender = path->written;
    envelope.ident = envelope_.ident;
    if (!take_mail_parameters(arguments, envelope)) return;
    if (!take_encoding(path->written, envelope.utf8, "5.1.7")) return;
    envelope_ = std::move(envelope);
    sender_given_ = true;
    say({250, "2.1.0", "OK"});
}

// The path after FROM: or TO:; without one, refuses.
std::optional<Path> Protocol::path_of(string_view& arguments, string_view keyword,
                                      const char* status) {
    if (!drop_prefix(arguments, keyword)) {
        refuse(kBadArguments);
        return std::nullopt;
    }
    auto path = read_path(arguments);
    if (path && (arguments.empty() || arguments.front() == ' ')) return path;
    refuse({553, status, "This is not an address"});
    return std::nullopt;
}

bool Protocol::take_mail_parameters(string_view parameters, Envelope& envelope) {
    for (string_view word; !(word = next_word(parameters)).empty();) {
        if (!take_mail_parameter(word, envelope)) return false;
    }
    return true;
}

bool Protocol::take_mail_parameter(string_view parameter, Envelope& envelope) {
    if (drop_prefix(parameter, "SIZE=")) return take_size(parameter, envelope);
    if (equal(parameter, "BODY=7BIT") || equal(parameter, "BODY=8BITMIME")) return true;
    if (equal(parameter, "SMTPUTF8")) return envelope.utf8 = true;
    refuse(kBadParameter);
    return false;
}

bool Protocol::take_size(string_view value, Envelope& envelope) {
    const auto size = number_of(value);
    if (!size) {
        refuse(kBadArguments);
        return false;
    }
    envelope.announced = *size;
    if (settings_.max_size == 0 || *size <= settings_.max_size) return true;
    say(kTooBig);
    return false;
}

bool Protocol::take_encoding(string_view path, bool utf8, const char* status) {
    if (is_ascii(path) || (utf8 && is_utf8(path))) return true;
    refuse({553, utf8 ? status : "5.6.7", "This address is not ASCII"});
    return false;
}

void Protocol::rcpt(string_view arguments) {
    if (!sender_given_ || began_) return refuse(kOutOfOrder);
    const auto path = path_of(arguments, "TO:", "5.1.3");
    if (!path) return;
    if (!next_word(arguments).empty()) return refuse(kBadParameter);
    if (path->address.empty()) return refuse({553, "5.1.3", "This is not an address"});
    if (!take_encoding(path->address, envelope_.utf8, "5.1.3")) return;
    if (envelope_.accepted.size() >= settings_.recipients) {
        return say({452, "4.5.3", "Too many recipients"});
    }
    asked_ = path->address;
    wants_ = Wants::recipient;
}

void Protocol::data(string_view arguments) {
    if (!demand_none(arguments)) return;
    if (!sender_given_ || began_) return refuse(kOutOfOrder);
    if (!demand_recipients()) return;
    begin_content(true);
    input_ = Input::text;
    output_ += "354 Go on; end with a line of one dot\r\n";
}

// A refused chunk must be read as well: what it holds must not be taken for commands.
void Protocol::bdat(string_view arguments) {
    const auto size = number_of(next_word(arguments));
    const string_view last = next_word(arguments);
    if (!size || !(last.empty() || equal(last, "LAST")) || !next_word(arguments).empty()) {
        refuse(kBadArguments);
        wants_ = Wants::end;  // where the chunk ends is not known
        return;
    }
    chunk_left_ = *size;
    chunk_last_ = !last.empty();
    chunk_refused_ = nullptr;
    if (!sender_given_) {
        chunk_refused_ = &kOutOfOrder;
    } else if (envelope_.accepted.empty()) {
        chunk_refused_ = &kNoRecipients;
    } else if (!began_) {
        begin_content(false);
    }
    input_ = Input::chunk;
    if (chunk_left_ == 0) end_chunk();
}

void Protocol::rset(string_view arguments) {
    if (!demand_none(arguments)) return;
    reset();
    say(kOk);
}

void Protocol::noop(string_view) { say(kOk); }

void Protocol::quit(string_view arguments) {
    if (!demand_none(arguments)) return;
    reset();
    say({221, "2.0.0", "Bye"});
    wants_ = Wants::end;
}

void Protocol::vrfy(string_view arguments) {
    if (next_word(arguments).empty()) return refuse(kBadArguments);
    say({252, "2.0.0", "Send some mail to find out"});
}

void Protocol::expn(string_view) { refuse({502, "5.5.1", "There are no lists here"}); }

// The queue identifier of a transfer agent, for the message that comes next.
void Protocol::xforward(string_view arguments) {
    if (!greeted_ || sender_given_) return refuse(kOutOfOrder);
    string_view word = next_word(arguments);
    if (word.empty()) return refuse(kBadArguments);
    string ident;
    for (; !word.empty(); word = next_word(arguments)) {
        if (!drop_prefix(word, "IDENT=")) return refuse(kBadArguments);
        ident = equal(word, "[UNAVAILABLE]") ? string() : decoded_xtext(word);
    }
    envelope_.ident = std::move(ident);
    say(kOk);
}

bool Protocol::demand_none(string_view arguments) {
    if (next_word(arguments).empty()) return true;
    refuse(kBadArguments);
    return false;
}

bool Protocol::demand_recipients() {
    if (!envelope_.accepted.empty()) return true;
    say(kNoRecipients);  // the usual end of a message that nobody gets
    return false;
}

// ---- the text of a message

void Protocol::begin_content(bool dots) {
    decoder_.begin(dots);
    began_ = true;
    too_big_ = false;
    sink_.begin(envelope_);
}

void Protocol::store(string_view bytes) {
    if (!too_big_) sink_.write(bytes);
}

std::size_t Protocol::take_text(string_view bytes) {
    const std::size_t taken = decoder_.take(bytes, [this](string_view part) { store(part); });
    too_big_ = settings_.max_size != 0 && decoder_.size() > settings_.max_size;
    if (decoder_.ended()) end_message();
    return taken;
}

std::size_t Protocol::take_chunk(string_view bytes) {
    const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), chunk_left_));
    if (chunk_refused_ == nullptr) {
        decoder_.take(bytes.substr(0, taken), [this](string_view part) { store(part); });
        too_big_ = settings_.max_size != 0 && decoder_.size() > settings_.max_size;
    }
    chunk_left_ -= taken;
    if (chunk_left_ == 0) end_chunk();
    return taken;
}

void Protocol::end_chunk() {
    input_ = Input::command;
    if (chunk_refused_ != nullptr) return say(*chunk_refused_);
    if (!chunk_last_) return say(too_big_ ? kTooBig : kOk);
    decoder_.finish([this](string_view part) { store(part); });
    too_big_ = settings_.max_size != 0 && decoder_.size() > settings_.max_size;
    end_message();
}

void Protocol::end_message() {
    input_ = Input::command;
    answered_ = 0;
    if (too_big_) return answer_all(kTooBig);
    wants_ = Wants::message;
}

void Protocol::answer_all(const Reply& reply) {
    for (std::size_t n = 0; n < envelope_.accepted.size(); ++n) say(reply);
    reset();
}

void Protocol::answer(const Reply& reply) {
    say(reply);
    if (wants_ == Wants::recipient) {
        if (reply.code < 300) envelope_.accepted.push_back(std::move(asked_));
        wants_ = Wants::bytes;
    } else if (wants_ == Wants::message && ++answered_ == envelope_.accepted.size()) {
        began_ = false;  // the caller has the text; there is nothing to drop
        wants_ = Wants::bytes;
        reset();
    }
}

void Protocol::close(const string& why) {
    reset();
    say({421, "4.3.2", why});
    wants_ = Wants::end;
}

void Protocol::reset() {
    if (std::exchange(began_, false)) sink_.drop();
    envelope_ = {};
    sender_given_ = false;
}

// ---- replies

void Protocol::say(const Reply& reply) {
    output_ += fmt::format("{} {} {}\r\n", reply.code, reply.status, reply.text);
}

// Answers a mistake of the peer. One that makes many is cut off.
void Protocol::refuse(const Reply& reply) {
    say(reply);
    if (++mistakes_ >= kMostMistakes) close("Too many mistakes");
}

}  // namespace Tessaly::tool::lmtp
