// A second version of the splitting of an address, as plain as possible.
#ifndef TSMAIL_TESTS_MAILUSER_LITERAL_PARSE_H
#define TSMAIL_TESTS_MAILUSER_LITERAL_PARSE_H

#include <string>

// The fields of a mailbox value. parse changes them as the value's parse does.
struct LiteralFields {
    std::string domain, local, tag, tilde;

    void parse(const std::string& text) {
        std::string whole = text;
        int at = -1;
        for (int i = 0; i < size(whole) && at < 0; ++i) {
            if (whole[index(i)] == '@') at = i;
        }
        if (at >= 0) {
            whole[index(at)] = '~';
            domain = part(whole, at + 1, size(whole));
        } else if (last_tilde(whole) >= 0) {
            domain = part(whole, last_tilde(whole) + 1, size(whole));
        }

        int plus = -1;
        for (int i = 0; i < size(whole) && plus < 0; ++i) {
            if (whole[index(i)] == '+') plus = i;
        }
        const int end = last_tilde(whole) >= 0 ? last_tilde(whole) : size(whole);
        if (plus >= 0 && plus < end) {
            tag = part(whole, plus + 1, end);
            whole = part(whole, 0, plus) + part(whole, end, size(whole));
        }

        tilde = lower(whole);
        local = last_tilde(tilde) >= 0 ? part(tilde, 0, last_tilde(tilde)) : tilde;
        domain = lower(domain);
    }

    std::string address(bool without_tag) const {
        std::string text = local;
        if (!without_tag && !tag.empty()) text = text + "+" + tag;
        if (!domain.empty()) text = text + "@" + domain;
        return text;
    }

  private:
    static int size(const std::string& text) { return static_cast<int>(text.size()); }
    static std::size_t index(int i) { return static_cast<std::size_t>(i); }
    static int last_tilde(const std::string& text) {
        int last = -1;
        for (int i = 0; i < size(text); ++i) {
            if (text[index(i)] == '~') last = i;
        }
        return last;
    }
    static std::string part(const std::string& text, int begin, int end) {
        std::string result;
        for (int i = begin; i < end; ++i) result += text[index(i)];
        return result;
    }
    static std::string lower(const std::string& text) {
        const std::string upper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
        std::string result;
        for (const char c : text) {
            const auto found = upper.find(c);
            result += found == std::string::npos ? c : "abcdefghijklmnopqrstuvwxyz"[found];
        }
        return result;
    }
};

#endif
