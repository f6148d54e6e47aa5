#include "tools/cli/word_mark.h"

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

// The parser would take a positional word "[a,b]" for a list of two, and "-FS", which takes flags
// from a message, for options. The mark in front keeps these words (and those that begin with the
// mark) as they are.
constexpr char kMark = '\x01';

bool takes_flags(string_view word) {
    return word.size() > 1 && word.front() == '-' &&
           word.find_first_not_of(kMessageFlags, 1) == string_view::npos;
}

}  // namespace

string marked(string_view word) {
    const bool mark =
        !word.empty() && (word.front() == '[' || word.front() == kMark || takes_flags(word));
    return mark ? kMark + string(word) : string(word);
}

string unmarked(string word) {
    if (!word.empty() && word.front() == kMark) word.erase(0, 1);
    return word;
}

}  // namespace Tessaly::tool
