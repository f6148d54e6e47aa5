// Message file names: the size and both dates in them, and the size field put into one.
#include <tessaly/mailstore.h>

#include <climits>

#include "fuzz/fuzz.h"
#include "maildir/literal.h"
#include "mailsize/literal.h"
#include "mailsize/name_size.h"

namespace {

// Local time of a place with daylight-saving time.
bool set_zone() {
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    ::tzset();
    return true;
}

void compare_tagging(const std::string& name) {
    using namespace Tessaly::mailsize;
    NameBuffer buffer, other;
    const std::string expected = literal::tagged(name, 4711);
    const char* const ours = tagged_name(name, 4711, buffer);
    fuzz::expect((ours != nullptr) == (expected.size() <= NAME_MAX), "tagged beyond the limit");
    if (ours == nullptr) return;
    fuzz::expect_equal(std::string(ours), expected, "tagged name");
    if (is_tagged(name)) return;
    fuzz::expect(is_tagged(ours), "a tagged name is not known as one");
    fuzz::expect_equal(std::string(untagged_name(ours, other)), name, "untagged name");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    [[maybe_unused]] static const bool zone_set = set_zone();
    const std::string name = fuzz::Input(data, size).rest().c_str();
    fuzz::expect_equal(get_maildir_msg_len_from_name(name.c_str()),
                       literal::size_in_name(name.c_str()), "size");
    fuzz::expect_equal(tsl_get_mail_creation_date(name.c_str()),
                       literal::creation_date(name.c_str()), "creation date");
    fuzz::expect_equal(tsl_get_mail_received_date(name.c_str()), literal::received_date(name),
                       "receipt date");
    compare_tagging(name);
    return 0;
}
