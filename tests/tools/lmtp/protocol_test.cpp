#include <gtest/gtest.h>

#include <random>

#include "tools/lmtp/conversation.h"

using conversation::literal;
using conversation::played;
using conversation::played_in_pieces;
using conversation::shown;
using conversation::Transcript;
using std::string;
using Tessaly::tool::lmtp::Decoder;

namespace {

const string kGreeting = "220 mx.site.test LMTP tsmail\r\n";
const string kHello = "LHLO client\r\n";
const string kFeatures =
    "250-mx.site.test\r\n250-PIPELINING\r\n250-ENHANCEDSTATUSCODES\r\n250-8BITMIME\r\n"
    "250-SIZE 1000\r\n250-CHUNKING\r\n250-SMTPUTF8\r\n250 XFORWARD IDENT\r\n";
const string kBegin = "LHLO c\r\nMAIL FROM:<s@x>\r\nRCPT TO:<a@x>\r\n";
const string kBegun = kFeatures + "250 2.1.0 OK\r\n250 2.1.5 OK\r\n";
const string kGo = "354 Go on; end with a line of one dot\r\n";
const string kDone = "250 2.0.0 Delivered\r\n";

using Events = std::vector<string>;

struct Row {
    string input, replies;
    Events events = {};
};

// What comes torn at any place means the same.
void expect_same_when_torn(const string& input) {
    const string whole = shown(played(input));
    for (std::size_t cut = 1; cut < input.size(); ++cut) {
        ASSERT_EQ(shown(played(input, {cut})), whole) << "cut at " << cut << "\n" << input;
    }
    for (std::size_t length = 1; length < 8; ++length) {
        ASSERT_EQ(shown(played_in_pieces(input, length)), whole) << input;
    }
}

void expect_rows(const std::vector<Row>& rows) {
    for (const auto& [input, replies, events] : rows) {
        const Transcript found = played(input);
        EXPECT_EQ(found.replies, kGreeting + replies) << input;
        EXPECT_EQ(found.events, events) << input;
        EXPECT_EQ(shown(literal(input)), shown(found)) << input;
        expect_same_when_torn(input);
    }
}

Events stored(const string& text) { return {"begin s@x ", "message s@x to a@x: " + text}; }

}  // namespace

TEST(Commands, OneByOne) {
    expect_rows({
        {"", ""},
        {"LHLO", ""},
        {kHello, kFeatures},
        {"lhlo c\r\n", kFeatures},
        {"LHLO\r\n", "501 5.5.4 Wrong arguments\r\n"},
        {"HELO c\r\n", "500 5.5.1 Unknown command\r\n"},
        {"EHLO c\r\n", "500 5.5.1 Unknown command\r\n"},
        {"\r\n", "500 5.5.1 Unknown command\r\n"},
        {"NOOP\r\nnoop what you like\r\n", "250 2.0.0 OK\r\n250 2.0.0 OK\r\n"},
        {"RSET\r\nRSET x\r\n", "250 2.0.0 OK\r\n501 5.5.4 Wrong arguments\r\n"},
        {"VRFY ann\r\nVRFY\r\n",
         "252 2.0.0 Send some mail to find out\r\n501 5.5.4 Wrong arguments\r\n"},
        {"EXPN all\r\n", "502 5.5.1 There are no lists here\r\n"},
        {"QUIT\r\nNOOP\r\n", "221 2.0.0 Bye\r\n"},
        {"QUIT now\r\n", "501 5.5.4 Wrong arguments\r\n"},
        {"MAIL FROM:<s@x>\r\n", "503 5.5.1 Not now\r\n"},
        {"RCPT TO:<a@x>\r\nDATA\r\n", "503 5.5.1 Not now\r\n503 5.5.1 Not now\r\n"},
        {"XFORWARD IDENT=Q1\r\n", "503 5.5.1 Not now\r\n"},
    });
}

TEST(Commands, OnlyCrLfEndsALine) {
    expect_rows({
        {"NOOP\n", ""},
        {"NOOP\r", ""},
        {"NOOP\nNOOP\r\n", "500 5.5.2 The line holds a control character\r\n"},
        {"NOOP\rNOOP\r\n", "500 5.5.2 The line holds a control character\r\n"},
        {"NOOP\r\r\n", "500 5.5.2 The line holds a control character\r\n"},
        {string("NO\0OP\r\n", 7), "500 5.5.2 The line holds a control character\r\n"},
    });
}

TEST(Commands, OfAnyLength) {
    const string longest = "NOOP " + string(2048 - 7, 'x') + "\r\n";
    EXPECT_EQ(played(longest).replies, kGreeting + "250 2.0.0 OK\r\n");
    for (const std::size_t length : {std::size_t{2049}, std::size_t{4097}, std::size_t{1} << 20}) {
        const string input = "NOOP " + string(length - 7, 'x') + "\r\nNOOP\r\n";
        const Transcript found = played(input);
        EXPECT_EQ(found.replies, kGreeting + "500 5.5.2 The line is too long\r\n250 2.0.0 OK\r\n");
        EXPECT_EQ(shown(played_in_pieces(input, 1)), shown(found));
        EXPECT_EQ(shown(literal(input)), shown(found));
    }
}

TEST(Mail, Arguments) {
    const string ok = "250 2.1.0 OK\r\n", wrong = "501 5.5.4 Wrong arguments\r\n";
    const string no_address = "553 5.1.7 This is not an address\r\n";
    const struct {
        string line, reply;
    } rows[] = {
        {"FROM:<>", ok},
        {"from:<s@x>", ok},
        {"FROM: <s@x>", ok},
        {"FROM:<s@x> SIZE=1000 BODY=8BITMIME SMTPUTF8", ok},
        {"FROM:<s@x> body=7bit  size=0", ok},
        {"FROM:<@one,@two:s@x>", ok},
        {"FROM:<\"a b\"@x>", ok},
        {"FROM:<s@x> SIZE=1001", "552 5.3.4 The message is too big\r\n"},
        {"FROM:<s@x> SIZE=99999999999999999999", wrong},
        {"FROM:<s@x> SIZE=", wrong},
        {"FROM:<s@x> SIZE=-1", wrong},
        {"FROM:<s@x> BODY=BINARYMIME", "555 5.5.4 Unknown parameter\r\n"},
        {"FROM:<s@x> RET=FULL", "555 5.5.4 Unknown parameter\r\n"},
        {"FROM:<\xc3\xbc@x>", "553 5.6.7 This address is not ASCII\r\n"},
        {"FROM:<\xc3\xbc@x> SMTPUTF8", ok},
        {"FROM:<\xfc@x> SMTPUTF8", "553 5.1.7 This address is not ASCII\r\n"},
        {"FROM:s@x", no_address},
        {"FROM:<s@x", no_address},
        {"FROM:<s@x>SIZE=1", no_address},
        {"FROM:<s@x@y>", no_address},
        {"FROM:<s@>", no_address},
        {"FROM:<@x>", no_address},
        {"FROM:<a b@x>", no_address},
        {"FROM:<\"a@b\"@x>", no_address},
        {"FROM:<\"a>", no_address},
        {"FROM:<\"\">", no_address},
        {"FROM:<\"\"@x>", no_address},
        {"FROM:", no_address},
        {"<s@x>", wrong},
        {"", wrong},
    };
    for (const auto& [line, reply] : rows) {
        expect_rows({{kHello + "MAIL " + line + "\r\n", kFeatures + reply}});
    }
    expect_rows({{kBegin + "MAIL FROM:<s@x>\r\n", kBegun + "503 5.5.1 Not now\r\n"}});
}

TEST(Rcpt, Arguments) {
    const string begin = kHello + "MAIL FROM:<s@x>\r\nRCPT ";
    const string begun = kFeatures + "250 2.1.0 OK\r\n";
    expect_rows({
        {begin + "TO:<a@x>\r\n", begun + "250 2.1.5 OK\r\n"},
        {begin + "to: <a@x>\r\n", begun + "250 2.1.5 OK\r\n"},
        {begin + "TO:<xa@x>\r\n", begun + "550 5.1.1 Unknown\r\n"},
        {begin + "TO:<>\r\n", begun + "553 5.1.3 This is not an address\r\n"},
        {begin + "TO:<a@x> NOTIFY=NEVER\r\n", begun + "555 5.5.4 Unknown parameter\r\n"},
        {begin + "TO:<\xc3\xbc@x>\r\n", begun + "553 5.6.7 This address is not ASCII\r\n"},
        {begin + "FROM:<a@x>\r\n", begun + "501 5.5.4 Wrong arguments\r\n"},
    });
}

TEST(Rcpt, AQuotedLocalPartIsMeantWithoutItsQuotes) {
    const string input =
        kHello + "MAIL FROM:<\"q\\\"\"@x>\r\nRCPT TO:<\"a\\ b\"@x>\r\nDATA\r\n.\r\n";
    EXPECT_EQ(played(input).events,
              (Events{"begin \"q\\\"\"@x ", "message \"q\\\"\"@x to a b@x: "}));
    EXPECT_EQ(shown(literal(input)), shown(played(input)));
}

TEST(Rcpt, AFewOfMany) {
    const string input = kHello +
                         "MAIL FROM:<>\r\nRCPT TO:<a@x>\r\nRCPT TO:<xb@x>\r\nRCPT TO:<yc@x>\r\n"
                         "RCPT TO:<d@x>\r\nRCPT TO:<e@x>\r\nDATA\r\nt\r\n.\r\n";
    expect_rows({{input,
                  kFeatures +
                      "250 2.1.0 OK\r\n250 2.1.5 OK\r\n550 5.1.1 Unknown\r\n250 2.1.5 OK\r\n"
                      "250 2.1.5 OK\r\n452 4.5.3 Too many recipients\r\n" +
                      kGo + kDone + "452 4.2.2 Full\r\n" + kDone,
                  {"begin  ", "message  to a@x yc@x d@x: t\n"}}});
}

TEST(Data, WithoutRecipients) {
    expect_rows({
        {kHello + "DATA\r\n", kFeatures + "503 5.5.1 Not now\r\n"},
        {kHello + "MAIL FROM:<>\r\nRCPT TO:<x@x>\r\nDATA\r\n",
         kFeatures + "250 2.1.0 OK\r\n550 5.1.1 Unknown\r\n503 5.5.1 No valid recipients\r\n"},
        {kBegin + "DATA now\r\n", kBegun + "501 5.5.4 Wrong arguments\r\n"},
    });
}

TEST(Data, DotsAndLineEnds) {
    const struct {
        string text, stored;
    } rows[] = {
        {".\r\n", ""},
        {"a\r\n.\r\n", "a\n"},
        {"\r\n.\r\n", "\n"},
        {"..\r\n.\r\n", ".\n"},
        {".a\r\n...\r\n.\r\n", "a\n..\n"},
        {"a.\r\n b\r\n.\r\n", "a.\n b\n"},
        {"a\n.\nb\r\n.\r\n", "a\n.\nb\n"},    // a bare LF does not end anything
        {"a\n.\r\nb\r\n.\r\n", "a\n.\nb\n"},  // nor on one side
        {"a\r\n.\nb\r\n.\r\n", "a\n\nb\n"},   // of the dot
        {"a\r.\rb\r\n.\r\n", "a\r.\rb\n"},    // nor does a bare CR
        {"a\r\n.\rb\r\n.\r\n", "a\n\rb\n"},
        {"a\r.\r\nb\r\n.\r\n", "a\r.\nb\n"},
        {"a\r\r\n.\r\r\n.\r\n", "a\r\n\r\n"},
        {"\r\r\n.\r\n", "\r\n"},
        {string("a\0b\r\n\0\r\n.\r\n", 11), string("a\0b\n\0\n", 6)},
        {"\x80\xff\r\n.\r\n", "\x80\xff\n"},
    };
    for (const auto& [text, expected] : rows) {
        expect_rows({{kBegin + "DATA\r\n" + text + "QUIT\r\n",
                      kBegun + kGo + kDone + "221 2.0.0 Bye\r\n", stored(expected)}});
    }
}

TEST(Data, EndsOnlyAtItsEnd) {
    for (const char* text : {"", ".", ".\r", ".\n", "a\r\n.", "a\r\n.\r", "a\n.\r\n", "\n.\n"}) {
        expect_rows({{kBegin + "DATA\r\n" + text, kBegun + kGo, {"begin s@x "}}});
    }
}

TEST(Data, UpToTheMostBytes) {
    const auto text = [](std::size_t length) { return string(length - 2, 't') + "\r\n"; };
    expect_rows({{kBegin + "DATA\r\n" + text(1000) + ".\r\nNOOP\r\n",
                  kBegun + kGo + kDone + "250 2.0.0 OK\r\n", stored(string(998, 't') + "\n")},
                 {kBegin + "DATA\r\n" + text(1001) + ".\r\nNOOP\r\n",
                  kBegun + kGo + "552 5.3.4 The message is too big\r\n250 2.0.0 OK\r\n",
                  {"begin s@x ", "drop"}}});
    const string megabyte = kBegin + "DATA\r\n" + string(1 << 20, 't') + "\r\n.\r\n";
    EXPECT_EQ(played(megabyte).replies,
              kGreeting + kBegun + kGo + "552 5.3.4 The message is too big\r\n");
}

TEST(Decoder, HandsOutLongTexts) {
    const auto decoded = [](const string& text) {
        string stored;
        const Tessaly::tool::lmtp::Sink sink = [&](std::string_view piece) { stored += piece; };
        Decoder decoder;
        decoder.begin(true);
        EXPECT_EQ(decoder.take(text + "\r\n.\r\nQUIT", sink), text.size() + 5);
        EXPECT_EQ(decoder.size(), text.size() + 2);
        return stored;
    };
    constexpr std::size_t kPiece = 65536;
    for (const std::size_t length : {kPiece - 1, kPiece, kPiece + 1, 3 * kPiece}) {
        const string line(length, 't');
        EXPECT_TRUE(decoded(line) == line + "\n") << length;
        EXPECT_TRUE(decoded("a\r\n" + line) == "a\n" + line + "\n") << length;
        EXPECT_TRUE(decoded(line + "\r\nb\nc") == line + "\nb\nc\n") << length;
    }
}

TEST(Data, SecondMessageOfAConnection) {
    expect_rows(
        {{kBegin + "DATA\r\n.\r\nMAIL FROM:<t@x>\r\nRCPT TO:<b@x>\r\nDATA\r\nu\r\n.\r\n",
          kBegun + kGo + kDone + "250 2.1.0 OK\r\n250 2.1.5 OK\r\n" + kGo + kDone,
          {"begin s@x ", "message s@x to a@x: ", "begin t@x ", "message t@x to b@x: u\n"}}});
}

TEST(Bdat, Chunks) {
    const string ok = "250 2.0.0 OK\r\n";
    expect_rows({
        {kBegin + "BDAT 3 LAST\r\na\r\n", kBegun + kDone, stored("a\n")},
        {kBegin + "BDAT 0 LAST\r\n", kBegun + kDone, stored("")},
        {kBegin + "BDAT 2\r\na\rbdat 3 last\r\n\n.\r", kBegun + ok + kDone, stored("a\n.\r")},
        {kBegin + "BDAT 6\r\na\r\n.\r\nBDAT 0 LAST\r\n", kBegun + ok + kDone, stored("a\n.\n")},
        {kBegin + "BDAT 7\r\na\r\n.\r\n", kBegun, {"begin s@x "}},  // a byte is missing
        {kBegin + "BDAT 5\r\n\r\n.\r\nBDAT 3 LAST\r\n..\n", kBegun + ok + kDone,
         stored("\n.\n..\n")},
        {kBegin + "BDAT 1\r\naRSET\r\n", kBegun + ok + ok, {"begin s@x ", "drop"}},
        {kBegin + "BDAT 1\r\naDATA\r\n", kBegun + ok + "503 5.5.1 Not now\r\n", {"begin s@x "}},
        {kBegin + "BDAT 1\r\naRCPT TO:<b@x>\r\n",
         kBegun + ok + "503 5.5.1 Not now\r\n",
         {"begin s@x "}},
    });
}

TEST(Bdat, RefusedChunksAreNoCommands) {
    expect_rows({
        {kHello + "BDAT 6\r\nNOOP\r\nQUIT\r\n",
         kFeatures + "503 5.5.1 Not now\r\n221 2.0.0 Bye\r\n"},
        {kHello + "MAIL FROM:<>\r\nBDAT 6 LAST\r\nNOOP\r\nQUIT\r\n",
         kFeatures + "250 2.1.0 OK\r\n503 5.5.1 No valid recipients\r\n221 2.0.0 Bye\r\n"},
        {kBegin + "BDAT x\r\nNOOP\r\n", kBegun + "501 5.5.4 Wrong arguments\r\n"},
        {kBegin + "BDAT 1 FIRST\r\nNOOP\r\n", kBegun + "501 5.5.4 Wrong arguments\r\n"},
        {kBegin + "BDAT\r\nNOOP\r\n", kBegun + "501 5.5.4 Wrong arguments\r\n"},
    });
}

TEST(Bdat, UpToTheMostBytes) {
    const string big = string(1001, 't'), too_big = "552 5.3.4 The message is too big\r\n";
    expect_rows({
        {kBegin + "BDAT 1000 LAST\r\n" + big.substr(1) + "NOOP\r\n",
         kBegun + kDone + "250 2.0.0 OK\r\n", stored(big.substr(1))},
        {kBegin + "BDAT 1001 LAST\r\n" + big + "NOOP\r\n",
         kBegun + too_big + "250 2.0.0 OK\r\n",
         {"begin s@x ", "drop"}},
        {kBegin + "BDAT 1001\r\n" + big + "BDAT 0 LAST\r\nNOOP\r\n",
         kBegun + too_big + too_big + "250 2.0.0 OK\r\n",
         {"begin s@x ", "drop"}},
    });
}

TEST(Xforward, QueueIdentifier) {
    const string rest = "MAIL FROM:<s@x>\r\nRCPT TO:<a@x>\r\nDATA\r\n.\r\n";
    const string answers = "250 2.1.0 OK\r\n250 2.1.5 OK\r\n" + kGo + kDone;
    const string ok = "250 2.0.0 OK\r\n", wrong = "501 5.5.4 Wrong arguments\r\n";
    expect_rows({
        {kHello + "XFORWARD IDENT=Q1+2B\r\n" + rest,
         kFeatures + ok + answers,
         {"begin s@x Q1+", "message s@x to a@x: "}},
        {kHello + "XFORWARD ident=[unavailable]\r\n" + rest, kFeatures + ok + answers, stored("")},
        {kHello + "XFORWARD IDENT=Q1\r\nRSET\r\n" + rest, kFeatures + ok + ok + answers,
         stored("")},
        {kHello + "XFORWARD NAME=x\r\n", kFeatures + wrong},
        {kHello + "XFORWARD\r\n", kFeatures + wrong},
        {kBegin + "XFORWARD IDENT=Q1\r\n", kBegun + "503 5.5.1 Not now\r\n"},
    });
    const string next = kHello + "XFORWARD IDENT=Q1\r\n" + rest + rest;
    EXPECT_EQ(played(next).events[2], "begin s@x ");  // it was for one message
}

TEST(Mistakes, ManyEndTheConnection) {
    string input;
    for (int n = 0; n < 25; ++n) input += "X\r\n";
    const Transcript found = played(input);
    EXPECT_EQ(found.taken, 60);
    EXPECT_TRUE(found.replies.ends_with("Unknown command\r\n421 4.3.2 Too many mistakes\r\n"));
    EXPECT_EQ(shown(literal(input)), shown(found));
}

TEST(Protocol, AgreesWithAPlainSecondVersion) {
    const string parts[] = {
        kHello,
        "MAIL FROM:<s@x>",
        "MAIL FROM:<> SIZE=10 SMTPUTF8",
        "RCPT TO:<a@x>",
        "RCPT TO:<xb@x>",
        "RCPT TO:<yc@x>",
        "DATA",
        "BDAT 4",
        "BDAT 12 LAST",
        "BDAT 0 LAST",
        "RSET",
        "NOOP",
        "VRFY x",
        "XFORWARD IDENT=Q+41",
        "\r\n",
        "\r\n",
        "\r\n",
        "\r\n",
        "\r\n.\r\n",
        ".",
        "..",
        "\n",
        "\r",
        "text",
        string(1, '\0'),
        "\xc3\xbc",
        "<\"a\\b\"@x>",
        "+",
        " ",
    };
    std::mt19937 random(20261122);
    for (int round = 0; round < 20000; ++round) {
        string input = random() % 2 ? kBegin : kHello;
        for (auto n = random() % 12; n > 0; --n) {
            input += parts[random() % std::size(parts)];
            if (random() % 2) input += "\r\n";
        }
        const std::size_t length = 1 + random() % 20;
        ASSERT_EQ(shown(played_in_pieces(input, length)), shown(literal(input))) << input;
    }
}
