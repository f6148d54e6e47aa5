// Addresses. The first line is the mailbox type, the rest is the text. A second text, which the
// same value reads, may follow behind a NUL.
#include <tessaly/MailUserId.h>

#include "fuzz/fuzz.h"
#include "mailuser/literal_parse.h"

using namespace Tessaly;

namespace {

// The fields that a type makes of a text.
void read(LiteralFields& fields, unsigned type, const std::string& text) {
    switch (type) {
        case 2:
        case 8:
        case 11:
            fields.tilde = text;
            fields.domain = "system";
            break;
        case 9:
        case 10:
            fields.tilde = text;
            break;
        case 0:
            break;
        default:
            if (type <= 12) fields.parse(text);
    }
}

void compare(const TSMailUserId& id, const LiteralFields& fields) {
    fuzz::expect_equal(id.tilde_name(), fields.tilde, "tilde name");
    fuzz::expect_equal(id.tag(), fields.tag, "tag");
    fuzz::expect_equal(id.local(true), fields.local, "local part");
    fuzz::expect_equal(id.address(false), fields.address(false), "address");
    fuzz::expect_equal(id.address(true), fields.address(true), "address without tag");
    if (id.type() != MAILBOX_DIRECT) fuzz::expect_equal(id.domain(), fields.domain, "domain");
}

// The flat function gives the path of the class, cut to the buffer, and does not write behind the
// buffer.
void compare_filenames(const std::string& text) {
    constexpr unsigned kRoom = 40;
    for (int kind = -1; kind <= 32; ++kind) {
        const auto type = kind == MUF_LOCAL_HOMEPATH ? MAILBOX_LOCAL : MAILBOX_USER;
        const std::string path = TSMailUserId(type, text.c_str()).fname(kind);
        char buffer[kRoom + 1];
        buffer[kRoom] = '#';
        fuzz::expect_equal(mailuser_filename(kind, buffer, kRoom, text.c_str()), 0, "result");
        const std::string cut = path.substr(0, kRoom - 1);
        fuzz::expect_equal(std::string(buffer), std::string(cut.c_str()), "file name");
        fuzz::expect(buffer[kRoom] == '#', "wrote behind the buffer");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const auto type = static_cast<unsigned>(input.number()) % 15;
    const std::string both = input.rest();
    const auto cut = both.find('\0');
    const std::string first = both.substr(0, cut);
    const std::string second = cut == std::string::npos ? "" : both.substr(cut + 1);

    TSMailUserId id(static_cast<MailBoxType>(type), first);
    LiteralFields fields;
    read(fields, type, first);
    compare(id, fields);
    if (!second.empty() && type != MAILBOX_DIRECT) {
        id.init(second);
        read(fields, type, second);
        compare(id, fields);
    }
    compare_filenames(first);
    return 0;
}
