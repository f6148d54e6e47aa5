// Inserting one text after the other takes quadratic time, so the place of a text among its equals
// is computed beforehand. A text goes behind its equals as long as no greater text has arrived, and
// in front of all its equals from then on. So among equals those that came after a greater text
// come first, the last of them foremost; those that came before it follow in the order of arrival.
#include "maillist/sorted.h"

#include <boost/sort/pdqsort/pdqsort.hpp>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "maillist/fold.h"

namespace Tessaly::maillist {

namespace {

constexpr std::size_t kKeyLength = sizeof(std::uint64_t);

struct Item {
    std::uint64_t key;  // eight bytes of the text, letter case folded
    char* text;
    std::int64_t place;  // among equal texts
};
using Items = std::vector<Item>::iterator;

// Eight folded bytes of the text as a number. The numbers have the order of strcasecmp. Bytes
// behind the text's end are zero.
std::uint64_t folded_key(const char* text, Fold fold) {
    std::uint64_t key = 0;
    for (std::size_t i = 0; i < kKeyLength; ++i) {
        key = key << 8 | fold(*text);
        if (*text != '\0') ++text;
    }
    return key;
}

bool ends_within(std::uint64_t key) { return (key & 0xff) == 0; }

bool is_greater(const Item& a, const Item& b, Fold fold) {
    std::uint64_t a_key = a.key, b_key = b.key;
    for (std::size_t at = kKeyLength; a_key == b_key && !ends_within(a_key); at += kKeyLength) {
        a_key = folded_key(a.text + at, fold);
        b_key = folded_key(b.text + at, fold);
    }
    return a_key > b_key;
}

std::vector<Item> ranked_items(char** names, std::size_t count) {
    std::vector<Item> items;
    items.reserve(count);
    const Fold fold;
    std::size_t greatest = 0;
    for (std::size_t i = 0; i < count; ++i) {
        items.push_back({folded_key(names[i], fold), names[i], static_cast<std::int64_t>(i)});
        if (is_greater(items[greatest], items[i], fold)) {
            items[i].place = -items[i].place;
        } else {
            greatest = i;
        }
    }
    return items;
}

void sort_items(Items first, Items last, std::size_t depth);

// Sorts items whose texts agree up to `depth`, where their keys end.
void sort_run(Items first, Items last, std::size_t depth) {
    if (last - first == 1) return;
    if (ends_within(first->key)) {
        std::sort(first, last, [](const Item& a, const Item& b) { return a.place < b.place; });
        return;
    }
    const Fold fold;
    for (Items i = first; i != last; ++i) i->key = folded_key(i->text + depth, fold);
    sort_items(first, last, depth);
}

// Sorts items whose texts agree up to `depth`, where their keys begin.
void sort_items(Items first, Items last, std::size_t depth) {
    boost::sort::pdqsort_branchless(first, last,
                                    [](const Item& a, const Item& b) { return a.key < b.key; });
    while (first != last) {
        const auto differs = [key = first->key](const Item& item) { return item.key != key; };
        const Items end = std::find_if(first + 1, last, differs);
        sort_run(first, end, depth + kKeyLength);
        first = end;
    }
}

}  // namespace

void sort_names(char** names, std::size_t count) {
    std::vector<Item> items = ranked_items(names, count);
    sort_items(items.begin(), items.end(), 0);
    std::transform(items.begin(), items.end(), names, [](const Item& item) { return item.text; });
}

}  // namespace Tessaly::maillist
