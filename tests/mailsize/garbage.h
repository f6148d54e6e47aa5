// Random texts that resemble size files and damaged size files.
#ifndef TSMAIL_TESTS_MAILSIZE_GARBAGE_H
#define TSMAIL_TESTS_MAILSIZE_GARBAGE_H

#include <cstddef>
#include <iterator>
#include <random>
#include <string>

namespace testing_garbage {

using Random = std::mt19937_64;

inline std::size_t below(Random& random, std::size_t limit) { return random() % limit; }

inline std::string number(Random& random) {
    static const char* const kSpecial[] = {"9223372036854775807",
                                           "-9223372036854775808",
                                           "9223372036854775808",
                                           "-9223372036854775809",
                                           "18446744073709551615",
                                           "-18446744073709551616",
                                           "2147483648",
                                           "4294967297",
                                           "00000000000000000000000000000000012",
                                           "0x10",
                                           "1e5",
                                           "-",
                                           "+",
                                           "+-3",
                                           "- 3",
                                           "--3",
                                           "+0",
                                           "-0",
                                           "1,000"};
    switch (below(random, 16)) {
        case 0:
            return kSpecial[below(random, std::size(kSpecial))];
        case 1:
            return "-" + std::to_string(below(random, 100000));
        case 2:
            return "+" + std::to_string(below(random, 100000));
        case 3:
            return std::to_string(static_cast<long long>(random()));
        default:
            return std::to_string(below(random, 1000000));
    }
}

inline std::string blank(Random& random) {
    static const char* const kBlanks[] = {" ", " ", " ", "  ", "\t", "\v", "\f", "\r", "", "\n"};
    return kBlanks[below(random, std::size(kBlanks))];
}

inline std::string bytes(Random& random, std::size_t length) {
    std::string text(length, '\0');
    for (char& c : text) c = static_cast<char>(random());
    return text;
}

// One line, mostly a record.
inline std::string line(Random& random) {
    switch (below(random, 24)) {
        case 0:
            return "0S, 0C\n";
        case 1:
            return "\n";
        case 2:
            return bytes(random, below(random, 40)) + "\n";
        case 3:  // about as long as a piece, with a record at the end of the piece or cut by it
            return std::string(230 + below(random, 40), below(random, 2) ? ' ' : 'x') +
                   number(random) + " " + number(random) + "\n";
        case 4:
            return number(random) + std::string(1, '\0') + " " + number(random) + "\n";
        case 5:
            return number(random) + blank(random) + number(random);  // no line end
        case 6:
            return number(random) + "\n";
        case 7:
            return blank(random) + number(random) + blank(random) + number(random) + "x\n";
        case 8:
            return std::string(200 + below(random, 500), '7') + "\n";
        default:
            return number(random) + " " + number(random) + "\n";
    }
}

// A text of about this many bytes. `tame` leaves out numbers that do not fit.
inline std::string size_file(Random& random, std::size_t length, bool tame) {
    std::string text;
    while (text.size() < length) {
        text += tame ? std::to_string(below(random, 100000)) + " 1\n" : line(random);
    }
    if (below(random, 2) != 0) text.resize(length);
    return text;
}

}  // namespace testing_garbage

#endif
