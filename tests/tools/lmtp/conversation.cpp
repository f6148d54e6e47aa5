#include "tools/lmtp/conversation.h"

#include <algorithm>

namespace conversation {

using Tessaly::tool::lmtp::ContentSink;
using Tessaly::tool::lmtp::Envelope;
using Tessaly::tool::lmtp::Protocol;
using Tessaly::tool::lmtp::Reply;

namespace {

class Recorder : public ContentSink {
  public:
    explicit Recorder(Transcript& transcript) : transcript_(transcript) {}
    void begin(const Envelope& envelope) override {
        transcript_.events.push_back("begin " + envelope.sender + " " + envelope.ident);
        text.clear();
    }
    void write(std::string_view bytes) override { text += bytes; }
    void drop() override { transcript_.events.push_back("drop"); }

    std::string text;

  private:
    Transcript& transcript_;
};

void answer_message(Protocol& protocol, Transcript& transcript, const std::string& text) {
    const Envelope envelope = protocol.envelope();
    std::string event = "message " + envelope.sender + " to";
    for (const auto& recipient : envelope.accepted) event += " " + recipient;
    transcript.events.push_back(event + ": " + text);
    for (const auto& recipient : envelope.accepted) protocol.answer(outcome(recipient));
}

}  // namespace

Reply verdict(const std::string& recipient) {
    if (recipient.starts_with('x')) return {550, "5.1.1", "Unknown"};
    return {250, "2.1.5", "OK"};
}

Reply outcome(const std::string& recipient) {
    if (recipient.starts_with('y')) return {452, "4.2.2", "Full"};
    return {250, "2.0.0", "Delivered"};
}

Transcript played(std::string_view input, const std::vector<std::size_t>& cuts) {
    Transcript transcript;
    Recorder recorder(transcript);
    Protocol protocol(kSettings, recorder);
    std::size_t cut = 0;
    while (protocol.wants() != Protocol::Wants::end) {
        transcript.replies += protocol.output();
        protocol.output().clear();
        if (protocol.wants() == Protocol::Wants::recipient) {
            protocol.answer(verdict(protocol.asked()));
        } else if (protocol.wants() == Protocol::Wants::message) {
            answer_message(protocol, transcript, recorder.text);
        } else {
            while (cut < cuts.size() && cuts[cut] <= transcript.taken) ++cut;
            const std::size_t end = cut < cuts.size() ? cuts[cut] : input.size();
            if (transcript.taken == input.size()) break;
            transcript.taken += protocol.take(input.substr(0, end).substr(transcript.taken));
        }
    }
    transcript.replies += protocol.output();
    return transcript;
}

Transcript played_in_pieces(std::string_view input, std::size_t length) {
    std::vector<std::size_t> cuts;
    for (std::size_t at = length; at < input.size(); at += length) cuts.push_back(at);
    return played(input, cuts);
}

std::string shown(const Transcript& transcript) {
    std::string text = transcript.replies;
    for (const auto& event : transcript.events) text += "[" + event + "]\n";
    return text + std::to_string(transcript.taken) + " bytes";
}

}  // namespace conversation
