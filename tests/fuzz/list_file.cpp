// Address lists: the first line is an entry and address, the second a number, the rest the list.
#include "fuzz/fuzz.h"
#include "maillist/lists.h"
#include "maillist/literal.h"
#include "testing/files.h"

namespace {

const std::string kTwin = fuzz::kDirectory + std::string("/twin");

void compare_reading(const char* entry) {
    fuzz::expect_equal(lists::find(entry), literal::find(kTwin, entry), "find");
    fuzz::expect_equal(lists::match(entry), literal::match(kTwin, entry), "match");
    for (const bool sorted : {false, true}) {
        const lists::Names names = lists::names(sorted);
        fuzz::expect_equal(names.result, 0, "listing");
        fuzz::expect(names.names == literal::names(kTwin, sorted), "names");
    }
}

// One operation that changes the list, on a new copy of it.
template <class Ours, class Model>
void compare_change(const std::string& text, const char* what, Ours ours, Model model) {
    lists::put(text);
    testing_files::write(kTwin, text);
    fuzz::expect_equal<int>(ours(), model(), what);
    fuzz::expect_equal(lists::content(), testing_files::read(kTwin), what);
}

void compare_changes(const std::string& text, const std::string& entry, int number) {
    const auto line_no = static_cast<unsigned>(number);
    compare_change(
        text, "add", [&] { return lists::add(entry.c_str()); },
        [&] { return literal::add(kTwin, entry.c_str()); });
    compare_change(
        text, "delete", [&] { return lists::drop(entry.c_str()); },
        [&] { return literal::remove(kTwin, entry.c_str()), 0; });
    compare_change(
        text, "delete through id", [&] { return lists::drop_id(number); },
        [&] { return literal::remove_id(kTwin, number), 0; });
    std::string changed = entry + "\r\n";
    compare_change(
        text, "modify", [&] { return lists::modify(changed, line_no); },
        [&] { return literal::modify(kTwin, changed.data(), line_no), 0; });
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::string entry = input.line().c_str();
    const int number = static_cast<int>(input.number());
    const std::string text = input.rest();
    lists::put(text);
    testing_files::write(kTwin, text);
    compare_reading(entry.c_str());
    compare_changes(text, entry, number);
    return 0;
}
