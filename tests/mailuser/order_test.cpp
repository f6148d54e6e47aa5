// ==, != and < of mailbox values.
#include <tessaly/MailUserId.h>

#include <gtest/gtest.h>

using namespace Tessaly;
using std::string;

namespace {

MailBoxType type_of(unsigned number) { return static_cast<MailBoxType>(number); }

bool equal(const TSMailUserId& a, const TSMailUserId& b) {
    EXPECT_NE(a == b, a != b);
    EXPECT_EQ(a == b, b == a);
    return a == b;
}

}  // namespace

TEST(Equal, NeverForDifferentTypes) {
    for (unsigned a = 0; a <= 14; ++a) {
        for (unsigned b = 0; b <= 14; ++b) {
            const bool same = equal({type_of(a), "x@y"}, {type_of(b), "x@y"});
            EXPECT_EQ(same, a == b && a < 13) << a << ' ' << b;
        }
    }
}

TEST(Equal, LooksAtWhatTheTypeSays) {
    enum class Looks { never, always, tilde, address };
    const struct {
        unsigned type;
        Looks looks;
    } rows[] = {
        {0, Looks::always},  {1, Looks::address}, {2, Looks::always},         {3, Looks::address},
        {4, Looks::address}, {5, Looks::address}, {6, Looks::address},        {7, Looks::address},
        {8, Looks::tilde},   {9, Looks::always},  {10, Looks::tilde},         {11, Looks::tilde},
        {12, Looks::always}, {13, Looks::never},  {0xffffffff, Looks::never},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        const auto same = [&](const string& a, const string& b) {
            return equal({type_of(row.type), a}, {type_of(row.type), b});
        };
        const bool always = row.looks == Looks::always;
        const bool address = row.looks == Looks::address;
        const bool tilde = row.looks == Looks::tilde;
        EXPECT_EQ(same("a@d", "a@d"), row.looks != Looks::never);
        EXPECT_EQ(same("a@d", "b@d"), always);
        EXPECT_EQ(same("a@d", "a@e"), always);
        EXPECT_EQ(same("a@d", ""), always);
        EXPECT_EQ(same("a@d", "A@D"), always || address);
        EXPECT_EQ(same("a@d", "a~d"), always || address);
        EXPECT_EQ(same("a+x@d", "a@d"), always);
        EXPECT_EQ(same("a+x@d", "a+X@d"), always);
        EXPECT_EQ(same("a+x@d", "a+x@D"), always || address);
        EXPECT_EQ(same("user@", "user"), always || address);
        EXPECT_EQ(same("/x/y", "/x/y"), always || address || tilde);
        EXPECT_EQ(same("/x/y", "/x/Y"), always || address);
        EXPECT_EQ(same("/x/y", "/x/y/"), always);
        EXPECT_EQ(same(string("a\0b", 3), string("a\0c", 3)), always);
    }
}

TEST(Equal, AddressesThatReadTheSameAreTheSame) {
    // Different fields with the same text.
    EXPECT_TRUE(equal(TSMailUserId("a~b@c"), TSMailUserId("a~b~c")));
    TSMailUserId kept("a+T@d");
    kept.parse("x");
    EXPECT_TRUE(equal(kept, TSMailUserId("x+T@d")));
}

TEST(Equal, ToItself) {
    for (unsigned type = 0; type <= 13; ++type) {
        const TSMailUserId id(type_of(type), "a@d");
        const TSMailUserId& same = id;
        EXPECT_EQ(id == same, type < 13) << type;
        EXPECT_FALSE(id < same);
    }
}

TEST(Less, IsTheOrderOfTheAddressesAsBytes) {
    const string addresses[] = {"",     "+t@d",  "@d", "a",    "a+A@d", "a+a@d",  "a@",     "a@D",
                                "a@d.", "a@d.e", "a~", "aa@d", "b",     "\x7f@d", "\x80@d", "\xff"};
    for (std::size_t i = 0; i < std::size(addresses); ++i) {
        for (std::size_t j = 0; j < std::size(addresses); ++j) {
            const TSMailUserId a(addresses[i]);
            const TSMailUserId b(addresses[j]);
            EXPECT_EQ(a < b, a.address(false) < b.address(false)) << i << ' ' << j;
        }
    }
    const auto less = [](const string& a, const string& b) {
        const TSMailUserId x(a);
        const TSMailUserId y(b);
        EXPECT_FALSE((x < y) && (y < x));
        return x < y;
    };
    EXPECT_TRUE(less("", "a"));
    EXPECT_TRUE(less("a", "a@d"));
    EXPECT_TRUE(less("a+Z@d", "a+a@d"));
    EXPECT_TRUE(less("a+t@d", "a@d"));  // '+' before '@'
    EXPECT_TRUE(less("a@d", "aa@d"));   // '@' before 'a'
    EXPECT_TRUE(less("z@d", "\x80@d"));
    EXPECT_TRUE(less("\x80@d", "\xff@d"));
    EXPECT_TRUE(less(string("a", 1), string("a\0", 2)));
    EXPECT_FALSE(less("a@d", "A@D"));
    EXPECT_FALSE(less("user@", "user"));
    EXPECT_FALSE(less("user", "user@"));
}

TEST(Less, DoesNotAskTheType) {
    for (unsigned a = 0; a <= 14; ++a) {
        for (unsigned b = 0; b <= 14; ++b) {
            TSMailUserId x("a@d");
            TSMailUserId y("b@d");
            x.type(type_of(a));
            y.type(type_of(b));
            EXPECT_TRUE(x < y);
            EXPECT_FALSE(y < x);
            y.parse("a@d");
            EXPECT_EQ(x < y, b == MAILBOX_DIRECT);  // its text is not an address
        }
    }
    // Ids that are equal and nevertheless ordered.
    const TSMailUserId one(MAILBOX_LOCAL, "a@d");
    const TSMailUserId two(MAILBOX_LOCAL, "b@d");
    EXPECT_TRUE(one == two);
    EXPECT_TRUE(one < two);
}
