// The protocol, written plainly: everything that came lies in one string.
#include <cstdlib>
#include <regex>

#include "tools/lmtp/conversation.h"

namespace conversation {

namespace {

using std::string;
using std::string_view;

string upper(string text) {
    for (char& c : text) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
    return text;
}

string replaced(string text, const string& from, const string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::vector<string> words_of(const string& text) {
    std::vector<string> words(1);
    for (const char c : text) {
        if (c != ' ') {
            words.back() += c;
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    if (words.back().empty()) words.pop_back();
    return words;
}

bool all_digits(const string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == string::npos;
}

// A number of more than 64 bits is refused.
bool number(const string& text, unsigned long long& value) {
    if (!all_digits(text)) return false;
    errno = 0;
    value = std::strtoull(text.c_str(), nullptr, 10);
    return errno == 0;
}

bool ascii(const string& text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) > 127) return false;
    }
    return true;
}

bool utf8(const string& text) {
    static const std::regex form(
        "([\\x01-\\x7f]|[\\xc2-\\xdf][\\x80-\\xbf]|\\xe0[\\xa0-\\xbf][\\x80-\\xbf]|"
        "[\\xe1-\\xec\\xee\\xef][\\x80-\\xbf]{2}|\\xed[\\x80-\\x9f][\\x80-\\xbf]|"
        "\\xf0[\\x90-\\xbf][\\x80-\\xbf]{2}|[\\xf1-\\xf3][\\x80-\\xbf]{3}|"
        "\\xf4[\\x80-\\x8f][\\x80-\\xbf]{2})*");
    return std::regex_match(text, form);
}

// The path, the address in it, and the rest of the line.
bool split_path(const string& text, string& written, string& address, string& rest) {
    static const std::regex form(
        " *<(?:@[^:>]*:)?((?:\"((?:[^\"\\\\@]|\\\\[^@])*)\"|([^<>@\"\\\\ ,;:()]*))(@[^<>@\"\\\\ "
        ",;()]+)?)>(| .*)");
    std::smatch found;
    if (!std::regex_match(text, found, form)) return false;
    written = found[1];
    const string quoted = std::regex_replace(found[2].str(), std::regex("\\\\(.)"), "$1");
    const string local = found[2].matched ? quoted : found[3].str();
    address = local + found[4].str();
    rest = found[5];
    return (written.empty() || !local.empty()) && !(found[2].matched && local.empty());
}

// "+2B" stands for '+'.
string plain_text(const string& text) {
    static const std::regex code("\\+([0-9A-Fa-f]{2})");
    string plain;
    std::smatch found;
    auto at = text.cbegin();
    for (; std::regex_search(at, text.cend(), found, code); at = found[0].second) {
        plain.append(at, found[0].first);
        plain += static_cast<char>(std::stoi(found[1].str(), nullptr, 16));
    }
    return plain.append(at, text.cend());
}

class Talk {
  public:
    explicit Talk(string_view input) : input_(input) {
        out_.replies = "220 mx.site.test LMTP tsmail\r\n";
    }

    Transcript whole() {
        while (!over_ && line()) {
        }
        if (!over_) out_.taken = input_.size();
        return out_;
    }

  private:
    bool line() {
        const auto end = input_.find("\r\n", out_.taken);
        if (end == string::npos) return false;
        const string text = input_.substr(out_.taken, end - out_.taken);
        out_.taken = end + 2;
        if (text.size() + 2 > 2048) {
            mistake("500 5.5.2 The line is too long");
        } else if (std::any_of(text.begin(), text.end(),
                               [](char c) { return (c >= 0 && c < 32) || c == 127; })) {
            mistake("500 5.5.2 The line holds a control character");
        } else {
            command(text);
        }
        return true;
    }

    void command(const string& text) {
        const auto space = text.find(' ');
        const string name = upper(text.substr(0, space));
        const string rest = space == string::npos ? "" : text.substr(space + 1);
        const auto words = words_of(rest);
        const bool bare = words.empty();
        if (name == "LHLO") {
            if (bare) return mistake("501 5.5.4 Wrong arguments");
            clear();
            greeted_ = true;
            for (const char* feature :
                 {"250-mx.site.test", "250-PIPELINING", "250-ENHANCEDSTATUSCODES", "250-8BITMIME",
                  "250-SIZE 1000", "250-CHUNKING", "250-SMTPUTF8", "250 XFORWARD IDENT"}) {
                say(feature);
            }
        } else if (name == "MAIL") {
            mail(rest);
        } else if (name == "RCPT") {
            rcpt(rest);
        } else if (name == "DATA") {
            if (!bare) return mistake("501 5.5.4 Wrong arguments");
            if (!mail_ || began_) return mistake("503 5.5.1 Not now");
            if (recipients_.empty()) return say("503 5.5.1 No valid recipients");
            data();
        } else if (name == "BDAT") {
            bdat(words);
        } else if (name == "RSET") {
            if (!bare) return mistake("501 5.5.4 Wrong arguments");
            clear();
            say("250 2.0.0 OK");
        } else if (name == "NOOP") {
            say("250 2.0.0 OK");
        } else if (name == "QUIT") {
            if (!bare) return mistake("501 5.5.4 Wrong arguments");
            clear();
            say("221 2.0.0 Bye");
            over_ = true;
        } else if (name == "VRFY") {
            if (bare) return mistake("501 5.5.4 Wrong arguments");
            say("252 2.0.0 Send some mail to find out");
        } else if (name == "EXPN") {
            mistake("502 5.5.1 There are no lists here");
        } else if (name == "XFORWARD") {
            xforward(words);
        } else {
            mistake("500 5.5.1 Unknown command");
        }
    }

    void mail(const string& rest) {
        if (!greeted_ || mail_) return mistake("503 5.5.1 Not now");
        if (upper(rest.substr(0, 5)) != "FROM:") return mistake("501 5.5.4 Wrong arguments");
        string written, address, parameters;
        if (!split_path(rest.substr(5), written, address, parameters)) {
            return mistake("553 5.1.7 This is not an address");
        }
        bool wide = false;
        for (const string& word : words_of(parameters)) {
            const string name = upper(word);
            unsigned long long size = 0;
            if (name.starts_with("SIZE=")) {
                if (!number(word.substr(5), size)) return mistake("501 5.5.4 Wrong arguments");
                if (size > 1000) return say("552 5.3.4 The message is too big");
            } else if (name == "SMTPUTF8") {
                wide = true;
            } else if (name != "BODY=7BIT" && name != "BODY=8BITMIME") {
                return mistake("555 5.5.4 Unknown parameter");
            }
        }
        if (!ascii(written) && !(wide && utf8(written))) {
            return mistake(wide ? "553 5.1.7 This address is not ASCII"
                                : "553 5.6.7 This address is not ASCII");
        }
        mail_ = true;
        wide_ = wide;
        sender_ = written;
        say("250 2.1.0 OK");
    }

    void rcpt(const string& rest) {
        if (!mail_ || began_) return mistake("503 5.5.1 Not now");
        if (upper(rest.substr(0, 3)) != "TO:") return mistake("501 5.5.4 Wrong arguments");
        string written, address, parameters;
        if (!split_path(rest.substr(3), written, address, parameters)) {
            return mistake("553 5.1.3 This is not an address");
        }
        if (!words_of(parameters).empty()) return mistake("555 5.5.4 Unknown parameter");
        if (address.empty()) return mistake("553 5.1.3 This is not an address");
        if (!ascii(address) && !(wide_ && utf8(address))) {
            return mistake(wide_ ? "553 5.1.3 This address is not ASCII"
                                 : "553 5.6.7 This address is not ASCII");
        }
        if (recipients_.size() == 3) return say("452 4.5.3 Too many recipients");
        if (address[0] == 'x') return say("550 5.1.1 Unknown");
        recipients_.push_back(address);
        say("250 2.1.5 OK");
    }

    void xforward(const std::vector<string>& words) {
        if (!greeted_ || mail_) return mistake("503 5.5.1 Not now");
        if (words.empty()) return mistake("501 5.5.4 Wrong arguments");
        string ident;
        for (const string& word : words) {
            if (upper(word.substr(0, 6)) != "IDENT=") return mistake("501 5.5.4 Wrong arguments");
            const string value = word.substr(6);
            ident = upper(value) == "[UNAVAILABLE]" ? "" : plain_text(value);
        }
        ident_ = ident;
        say("250 2.0.0 OK");
    }

    // The text ends at the first line of one dot.
    void data() {
        begin();
        say("354 Go on; end with a line of one dot");
        const string rest = "\r\n" + input_.substr(out_.taken);
        const auto end = rest.find("\r\n.\r\n");
        if (end == string::npos) {
            over_ = true;
            out_.taken = input_.size();
            return;
        }
        out_.taken += end + 3;
        text_ = replaced(rest.substr(0, end + 2), "\r\n.", "\r\n").substr(2);
        deliver();
    }

    void bdat(const std::vector<string>& words) {
        unsigned long long size = 0;
        const bool last = words.size() == 2 && upper(words[1]) == "LAST";
        if (words.empty() || !number(words[0], size) || words.size() > 2 ||
            (words.size() == 2 && !last)) {
            mistake("501 5.5.4 Wrong arguments");
            over_ = true;
            return;
        }
        const bool taken = mail_ && !recipients_.empty();
        if (taken && !began_) begin();
        if (size > input_.size() - out_.taken) {
            over_ = true;
            out_.taken = input_.size();
            return;
        }
        const string chunk = input_.substr(out_.taken, size);
        out_.taken += size;
        if (!mail_) return say("503 5.5.1 Not now");
        if (!taken) return say("503 5.5.1 No valid recipients");
        text_ += chunk;
        // A CR at the end counts when it is known what follows.
        const auto counted = text_.size() - (text_.ends_with('\r') && !last ? 1 : 0);
        if (last) return deliver();
        say(counted > 1000 ? "552 5.3.4 The message is too big" : "250 2.0.0 OK");
    }

    void begin() {
        began_ = true;
        text_.clear();
        out_.events.push_back("begin " + sender_ + " " + ident_);
    }

    void deliver() {
        if (text_.size() > 1000) {
            for (std::size_t n = 0; n < recipients_.size(); ++n) {
                say("552 5.3.4 The message is too big");
            }
            return clear();
        }
        string event = "message " + sender_ + " to";
        for (const string& recipient : recipients_) event += " " + recipient;
        out_.events.push_back(event + ": " + replaced(text_, "\r\n", "\n"));
        for (const string& recipient : recipients_) {
            say(recipient[0] == 'y' ? "452 4.2.2 Full" : "250 2.0.0 Delivered");
        }
        began_ = false;
        clear();
    }

    void clear() {
        if (began_) out_.events.emplace_back("drop");
        began_ = mail_ = wide_ = false;
        recipients_.clear();
        ident_.clear();
    }

    void say(const string& reply) { out_.replies += reply + "\r\n"; }

    void mistake(const string& reply) {
        say(reply);
        if (++mistakes_ < 20) return;
        clear();
        say("421 4.3.2 Too many mistakes");
        over_ = true;
    }

    const string input_;
    Transcript out_;
    bool over_ = false, greeted_ = false, mail_ = false, began_ = false, wide_ = false;
    int mistakes_ = 0;
    string sender_, ident_, text_;
    std::vector<string> recipients_;
};

}  // namespace

Transcript literal(string_view input) { return Talk(input).whole(); }

}  // namespace conversation
