// Preference files as a whole and line by line, and the file that a store makes of the record.
#include <tessaly/userpref.h>

#include <cstring>
#include <memory>

#include "fuzz/fuzz.h"
#include "testing/files.h"
#include "userpref/literal.h"

namespace {

constexpr char kUser[] = "ann@fuzz.test";
constexpr char kFile[] = "/var/spool/home/fuzz.test/ann~fuzz.test/pref/ann~fuzz.test.pref";

user_pref garbage() {
    user_pref p;
    std::memset(&p, 0x5a, sizeof p);
    return p;
}

void expect_same(const user_pref& ours, const user_pref& model, const char* what) {
    fuzz::expect(std::memcmp(&ours, &model, sizeof ours) == 0, what);
}

void compare_lines(fuzz::Input input, std::string text) {
    for (; !text.empty(); text = input.rest()) {
        const std::string line = input.line() + '\n';
        std::string mine = line, models = line;
        user_pref ours = garbage(), model = garbage();
        fuzz::expect_equal(parse_pref_line(&ours, mine.data()),
                           literal::parse_line(&model, models.data()), "answer for a line");
        expect_same(ours, model, "a line");
    }
}

user_pref compare_file() {
    user_pref ours, streamed, model;
    get_default_user_pref(&ours);
    streamed = model = ours;
    const auto close = [](FILE* stream) { std::fclose(stream); };
    using File = std::unique_ptr<FILE, decltype(close)>;
    literal::fill(&model, File(std::fopen(kFile, "r")).get());
    fill_user_pref_struct(&streamed, File(std::fopen(kFile, "r")).get());
    fuzz::expect_equal(read_user_pref(&ours, kUser), 0, "answer of a read");
    expect_same(ours, model, "a file");
    expect_same(streamed, model, "a stream");
    fuzz::expect_equal(get_user_pref_lite_timezone(kUser), ours.timezone, "time zone");
    return ours;
}

void compare_storing(const user_pref& p) {
    constexpr std::size_t kLongest = 490;  // of a text that fits the writer's line
    fuzz::expect_equal(store_user_pref(kUser, &p), 0, "answer of a store");
    fuzz::expect_equal(testing_files::read(kFile), literal::text_of(p), "stored text");
    if (std::strlen(p.alternate_id) > kLongest) return;
    user_pref again;
    fuzz::expect_equal(read_user_pref_all(kUser, &again), 0, "answer of a second read");
    const user_pref model = literal::normalised(p);
    for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
        const auto field = [row](const user_pref& of) {
            return reinterpret_cast<const char*>(&of) + row->offset;
        };
        const bool same = row->type == PREF_TYPE_STRING
                              ? std::strcmp(field(again), field(model)) == 0
                              : std::memcmp(field(again), field(model), row->size) == 0;
        fuzz::expect(same, row->name);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::Input input(data, size);
    compare_lines(input, input.rest());
    testing_files::write(kFile, input.rest());
    compare_storing(compare_file());
    return 0;
}
