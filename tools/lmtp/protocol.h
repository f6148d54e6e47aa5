// The protocol LMTP: the bytes of a connection go in, replies and what has to be done come out.
// Nothing here reads or writes anything.
#ifndef TSMAIL_TOOLS_LMTP_PROTOCOL_H
#define TSMAIL_TOOLS_LMTP_PROTOCOL_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/lmtp/content.h"
#include "tools/lmtp/path.h"

namespace Tessaly::tool::lmtp {

// "250 2.1.5 OK". A text that a stranger chose must be made printable first.
struct Reply {
    int code;
    std::string status;
    std::string text;
};

// What was said of a message before its text.
struct Envelope {
    std::string sender;                 // as it came, without angle brackets
    bool utf8 = false;                  // addresses may hold UTF-8
    std::uint64_t announced = 0;        // the size that the sender announced; 0: none
    std::string ident;                  // the sender's queue identifier; empty: none
    std::vector<std::string> accepted;  // the recipients
};

struct Settings {
    std::string host;              // the name in the greeting
    std::uint64_t max_size = 0;    // of a message; 0: no limit
    std::size_t recipients = 100;  // the most of one message
};

// Takes the text of messages.
class ContentSink {
  public:
    virtual ~ContentSink() = default;
    // The text of a message begins.
    virtual void begin(const Envelope& envelope) = 0;
    virtual void write(std::string_view bytes) = 0;
    // The message that began is given up.
    virtual void drop() = 0;
};

// One connection's side of the protocol. It holds at most a command line, an envelope and a few
// replies, whatever the peer sends.
class Protocol {
  public:
    // What has to happen next. recipient: asked() is to be judged, by one answer(). message: the
    // text is complete; an answer() for each accepted recipient, in their order. end: the
    // connection is to be closed when the replies are sent.
    enum class Wants { bytes, recipient, message, end };

    Protocol(const Settings& settings, ContentSink& sink);

    // Takes bytes until something else is wanted, or many replies wait, and returns how many.
    std::size_t take(std::string_view bytes);
    Wants wants() const { return wants_; }
    // The replies that are to be sent; the caller empties it.
    std::string& output() { return output_; }

    const Envelope& envelope() const { return envelope_; }
    const std::string& asked() const { return asked_; }
    // The answer to what is wanted. A recipient is accepted by a code below 300.
    void answer(const Reply& reply);
    // Ends the connection from this side, with the reply 421.
    void close(const std::string& why);

    // Whether a message is on its way: what is lost when the connection is closed now.
    bool idle() const { return input_ == Input::command && !sender_given_; }

  private:
    enum class Input { command, text, chunk };
    struct Command {
        std::string_view name;
        void (Protocol::*run)(std::string_view arguments);
    };
    static const Command kCommands[];

    std::size_t take_command(std::string_view bytes);
    std::size_t take_text(std::string_view bytes);
    std::size_t take_chunk(std::string_view bytes);
    void run_line();
    void run(std::string_view line);

    void lhlo(std::string_view arguments);
    void mail(std::string_view arguments);
    void rcpt(std::string_view arguments);
    void data(std::string_view arguments);
    void bdat(std::string_view arguments);
    void rset(std::string_view arguments);
    void noop(std::string_view arguments);
    void quit(std::string_view arguments);
    void vrfy(std::string_view arguments);
    void expn(std::string_view arguments);
    void xforward(std::string_view arguments);

    std::optional<Path> path_of(std::string_view& arguments, std::string_view keyword,
                                const char* status);
    bool take_mail_parameters(std::string_view parameters, Envelope& envelope);
    bool take_mail_parameter(std::string_view parameter, Envelope& envelope);
    bool take_size(std::string_view value, Envelope& envelope);
    bool take_encoding(std::string_view path, bool utf8, const char* status);
    bool demand_none(std::string_view arguments);
    bool demand_recipients();

    void begin_content(bool dots);
    void store(std::string_view bytes);
    void end_chunk();
    void end_message();
    void answer_all(const Reply& reply);
    void reset();

    void say(const Reply& reply);
    void refuse(const Reply& reply);

    const Settings& settings_;
    ContentSink& sink_;
    Wants wants_ = Wants::bytes;
    Input input_ = Input::command;
    std::string line_;       // the command line so far, with its CR LF
    bool too_long_ = false;  // the rest of the line is dropped
    unsigned mistakes_ = 0;
    bool greeted_ = false;

    Envelope envelope_;
    bool sender_given_ = false;
    std::string asked_;
    std::size_t answered_ = 0;  // the accepted recipients that have an answer after the text

    Decoder decoder_;
    bool began_ = false;  // the sink has the beginning of a message
    bool too_big_ = false;
    std::uint64_t chunk_left_ = 0;
    bool chunk_last_ = false;
    const Reply* chunk_refused_ = nullptr;  // why the chunk is read and dropped; null: it is not

    std::string output_;
};

}  // namespace Tessaly::tool::lmtp

#endif
