// Fields of the mailbox value: construction, init, parse, accessors.
#include <tessaly/MailUserId.h>

#include <gtest/gtest.h>

#include <cctype>
#include <iostream>
#include <random>
#include <type_traits>

#include "mailuser/literal_parse.h"
#include "testing/locales.h"

using namespace Tessaly;
using std::string;
using namespace std::string_literals;

namespace {

MailBoxType type_of(unsigned number) { return static_cast<MailBoxType>(number); }

// The domain of a value whose accessor may throw.
string domain_of(TSMailUserId id) {
    id.type(MAILBOX_USER);
    return id.domain();
}

void expect_fields(const TSMailUserId& id, const string& tilde, const string& local,
                   const string& tag, const string& domain) {
    EXPECT_EQ(id.tilde_name(), tilde);
    EXPECT_EQ(id.local(true), local);
    EXPECT_EQ(id.tag(), tag);
    EXPECT_EQ(domain_of(id), domain);
}

}  // namespace

static_assert(sizeof(TSMailUserId) == 8 + 4 * sizeof(string), "a type and four strings");
static_assert(!std::is_polymorphic_v<TSMailUserId>);
static_assert(std::is_nothrow_move_constructible_v<TSMailUserId>);
static_assert(std::is_same_v<std::underlying_type_t<MailBoxType>, std::uint32_t>);
static_assert(
    std::is_same_v<decltype(std::declval<const TSMailUserId&>().domain()), const string&>);
static_assert(std::is_same_v<decltype(std::declval<const TSMailUserId&>().tag()), const string&>);
static_assert(
    std::is_same_v<decltype(std::declval<const TSMailUserId&>().tilde_name()), const string&>);
static_assert(std::is_same_v<decltype(TSMailUserId::AdminUser), const string>);

TEST(MailBoxType, NumbersAreInterface) {
    const unsigned numbers[] = {MAILBOX_NONE,           MAILBOX_USER,       MAILBOX_DEAD_LETTER,
                                MAILBOX_SYSTEM_ARCHIVE, MAILBOX_QUARANTINE, MAILBOX_SECURE_STORE,
                                MAILBOX_USER_UNTYPED,   MAILBOX_EXTERNAL,   MAILBOX_GIVEN_PATH,
                                MAILBOX_DIRECT,         MAILBOX_DEFERRED,   MAILBOX_GIVEN_PATH_2,
                                MAILBOX_LOCAL};
    for (unsigned i = 0; i < 13; ++i) EXPECT_EQ(numbers[i], i);
}

TEST(MailUserId, ConstantsAreTheDocumentedOnes) {
    EXPECT_EQ(TSMailUserId::SYSTEM_DOMAIN, "system");
    EXPECT_EQ(TSMailUserId::MAIL_PATH_PREFIX, "/var/spool/home");
    EXPECT_EQ(TSMailUserId::MAIL_PATH_SUFFIX, "/mail");
    EXPECT_EQ(TSMailUserId::SYSTEM_DEAD_LETTER_PATH, "/var/spool/dead");
    EXPECT_EQ(TSMailUserId::SYSTEM_QUARANTINE_HOME_PATH, "/var/spool/home/sys_quar");
    EXPECT_EQ(TSMailUserId::AdminUser, "admin");
    EXPECT_EQ(TSMailUserId::MAIL_LOCAL_PATH_PREFIX, "/var/spool/home.local");
}

TEST(MailUserId, IsEmptyAsBuilt) {
    const TSMailUserId id;
    EXPECT_EQ(id.type(), MAILBOX_NONE);
    expect_fields(id, "", "", "", "");
    EXPECT_EQ(id.address(), "");
}

// Type, domain, local part, tag and tilde name, with nothing between them.
TEST(MailUserId, FieldsLieInOrder) {
    const TSMailUserId id(MAILBOX_USER, "ann+Work@site.test");
    const auto offset = [&id](const string& field) {
        return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&id);
    };
    constexpr auto kString = static_cast<std::ptrdiff_t>(sizeof(string));
    EXPECT_EQ(*reinterpret_cast<const std::uint32_t*>(&id), 1U);
    EXPECT_EQ(offset(id.domain()), 8);
    EXPECT_EQ(offset(id.tag()), 8 + 2 * kString);
    EXPECT_EQ(offset(id.tilde_name()), 8 + 3 * kString);
}

TEST(MailUserId, OfATextAloneIsAUser) {
    const TSMailUserId id(string("Ann@Site.Test"));
    EXPECT_EQ(id.type(), MAILBOX_USER);
    expect_fields(id, "ann~site.test", "ann", "", "site.test");
}

TEST(MailUserId, CopiesAndAssignsAllFields) {
    const TSMailUserId id(MAILBOX_QUARANTINE, "Ann+Work@Site.Test");
    const TSMailUserId copy(id);
    TSMailUserId assigned("other@else");
    assigned = id;
    TSMailUserId moved(std::move(assigned));
    for (const TSMailUserId& same : {copy, moved}) {
        EXPECT_EQ(same.type(), MAILBOX_QUARANTINE);
        expect_fields(same, "ann~site.test", "ann", "Work", "site.test");
    }
}

TEST(MailUserId, UserTypes) {
    const int expected[] = {0, 1, 0, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    for (unsigned type = 0; type < std::size(expected); ++type) {
        EXPECT_EQ(TSMailUserId(type_of(type), "a@b").userType(), expected[type]) << type;
    }
    EXPECT_EQ(TSMailUserId(type_of(0xffffffff), "a@b").userType(), 0);
}

// The fields that the constructor, or a later init, makes of a text.
TEST(Init, ByType) {
    enum class Fill { nothing, parsed, system, kept };
    const struct {
        unsigned type;
        Fill constructor, init;
    } rows[] = {
        {0, Fill::nothing, Fill::nothing},
        {1, Fill::parsed, Fill::parsed},
        {2, Fill::system, Fill::system},
        {3, Fill::parsed, Fill::parsed},
        {4, Fill::parsed, Fill::parsed},
        {5, Fill::parsed, Fill::parsed},
        {6, Fill::parsed, Fill::parsed},
        {7, Fill::parsed, Fill::parsed},
        {8, Fill::system, Fill::system},
        {9, Fill::kept, Fill::nothing},
        {10, Fill::kept, Fill::kept},
        {11, Fill::system, Fill::system},
        {12, Fill::parsed, Fill::parsed},
        {13, Fill::nothing, Fill::nothing},
        {14, Fill::nothing, Fill::nothing},
        {0x80000000, Fill::nothing, Fill::nothing},
        {0xffffffff, Fill::nothing, Fill::nothing},
    };
    const string text = "Ann+Work@Site.Test";
    const auto expect = [&](const TSMailUserId& id, Fill fill, const string& before) {
        switch (fill) {
            case Fill::nothing:
                return expect_fields(id, before, before, before, before);
            case Fill::parsed:
                return expect_fields(id, "ann~site.test", "ann", "Work", "site.test");
            case Fill::system:
                return expect_fields(id, text, before, before, "system");
            case Fill::kept:
                return expect_fields(id, text, before, before, before);
        }
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        const TSMailUserId built(type_of(row.type), text);
        EXPECT_EQ(built.type(), type_of(row.type));
        expect(built, row.constructor, "");

        TSMailUserId typed;
        typed.type(type_of(row.type));
        typed.init(text);
        expect(typed, row.init, "");
    }
}

TEST(Init, LeavesWhatItDoesNotSet) {
    const struct {
        unsigned type;
        const char *tilde, *local, *tag, *domain;
    } rows[] = {
        {0, "ann~d", "ann", "T", "d"},    {2, "x@y", "ann", "T", "system"},
        {8, "x@y", "ann", "T", "system"}, {9, "ann~d", "ann", "T", "d"},
        {10, "x@y", "ann", "T", "d"},     {11, "x@y", "ann", "T", "system"},
        {13, "ann~d", "ann", "T", "d"},   {1, "x~y", "x", "T", "y"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        TSMailUserId id("ann+T@d");
        id.type(type_of(row.type));
        id.init("x@y");
        expect_fields(id, row.tilde, row.local, row.tag, row.domain);
    }
}

TEST(Init, OfAFieldOfItsOwn) {
    TSMailUserId id("ann+T@d");
    id.type(MAILBOX_GIVEN_PATH);
    id.init(id.domain());
    expect_fields(id, "d", "ann", "T", "system");
    id.type(MAILBOX_USER);
    id.parse(id.tag());
    expect_fields(id, "t", "t", "T", "system");
    id.parse(id.tilde_name());
    expect_fields(id, "t", "t", "T", "system");
}

TEST(Type, OfAnObjectIsSetWithoutParsingAnew) {
    TSMailUserId id("Ann+Work@Site.Test");
    id.type(MAILBOX_LOCAL);
    EXPECT_EQ(id.type(), MAILBOX_LOCAL);
    expect_fields(id, "ann~site.test", "ann", "Work", "site.test");
    EXPECT_EQ(id.homepath(), "/var/spool/home.local/site.test/ann~site.test");
}

TEST(Parse, Rows) {
    const struct {
        string text, tilde, local, tag, domain, address;
    } rows[] = {
        {"", "", "", "", "", ""},
        {"Ann.Lee+Work@Site.Test", "ann.lee~site.test", "ann.lee", "Work", "site.test",
         "ann.lee+Work@site.test"},
        {"Bob", "bob", "bob", "", "", "bob"},
        {"user@", "user~", "user", "", "", "user"},
        {"@d", "~d", "", "", "d", "@d"},
        {"@", "~", "", "", "", ""},
        {"+tag@d", "~d", "", "tag", "d", "+tag@d"},
        {"+", "", "", "", "", ""},
        {"+Tag", "", "", "Tag", "", "+Tag"},
        {"a+@d", "a~d", "a", "", "d", "a@d"},
        {"a+b+c@d", "a~d", "a", "b+c", "d", "a+b+c@d"},
        {"a+B", "a", "a", "B", "", "a+B"},
        {"a@d+x", "a~d+x", "a", "", "d+x", "a@d+x"},
        {"a+T@d+x", "a~d+x", "a", "T", "d+x", "a+T@d+x"},
        {"a@b@c", "a~b@c", "a", "", "b@c", "a@b@c"},
        {"a~b@c", "a~b~c", "a~b", "", "c", "a~b@c"},
        {"a~B", "a~b", "a", "", "b", "a@b"},
        {"a~b~C", "a~b~c", "a~b", "", "c", "a~b@c"},
        {"a~", "a~", "a", "", "", "a"},
        {"~", "~", "", "", "", ""},
        // The domain is the text behind the '@', even if it contains a '~'. The local part is not
        // the text before the '@' then.
        {"a@B~c", "a~b~c", "a~b", "", "b~c", "a~b@b~c"},
        {"a+T@b~c", "a~c", "a", "T~b", "b~c", "a+T~b@b~c"},
        // A '+' in the domain starts the tag if a '~' follows it.
        {"a@b+x~c", "a~b~c", "a~b", "x", "b+x~c", "a~b+x@b+x~c"},
        {"a+x~y@d", "a~d", "a", "x~y", "d", "a+x~y@d"},
        {"a~b+c", "a~b+c", "a", "", "b+c", "a@b+c"},
        {"a+b~c", "a~c", "a", "b", "c", "a+b@c"},
        {"a+b@", "a~", "a", "b", "", "a+b"},
        {"A/../B@D/..", "a/../b~d/..", "a/../b", "", "d/..", "a/../b@d/.."},
        {" A @ D ", " a ~ d ", " a ", "", " d ", " a @ d "},
        {"@[Z`az{", "~[z`az{", "", "", "[z`az{", "@[z`az{"},
        {"\xc3\x84\xdc\xff+\xc4@\xd6.X", "\xc3\x84\xdc\xff~\xd6.x", "\xc3\x84\xdc\xff", "\xc4",
         "\xd6.x", "\xc3\x84\xdc\xff+\xc4@\xd6.x"},
        {"A\0B+T\0t@D\0d"s, "a\0b~d\0d"s, "a\0b"s, "T\0t"s, "d\0d"s, "a\0b+T\0t@d\0d"s},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const TSMailUserId id(row.text);
        expect_fields(id, row.tilde, row.local, row.tag, row.domain);
        EXPECT_EQ(id.address(), row.address);
        EXPECT_EQ(id.address(false), row.address);
    }
}

TEST(Parse, KeepsADomainAndATagThatTheTextLacks) {
    TSMailUserId id("a+T@d");
    id.parse("X");
    expect_fields(id, "x", "x", "T", "d");
    EXPECT_EQ(id.address(), "x+T@d");
    id.parse("Y@");
    expect_fields(id, "y~", "y", "T", "");
    id.parse("z+@E");
    expect_fields(id, "z~e", "z", "", "e");
    id.parse("");
    expect_fields(id, "", "", "", "e");
}

TEST(Parse, OfADirectOneSetsTheTildeNameOnly) {
    TSMailUserId id("a+T@d");
    id.type(MAILBOX_DIRECT);
    id.parse("/Some/Folder@X+y");
    expect_fields(id, "/Some/Folder@X+y", "a", "T", "d");
}

TEST(Parse, SplitsWhateverTheOtherTypes) {
    for (const unsigned type : {0U, 2U, 8U, 10U, 11U, 13U, 0xffffffffU}) {
        TSMailUserId id;
        id.type(type_of(type));
        id.parse("A+T@D");
        expect_fields(id, "a~d", "a", "T", "d");
    }
}

// In one of these locales letters beyond ASCII have two cases. In the other 'I' is not the upper
// case of 'i'.
TEST(Parse, DoesNotAskTheLocale) {
    const std::pair<const char*, const char*> locales[] = {{"de_DE", "ISO-8859-1"},
                                                           {"tr_TR", "ISO-8859-9"}};
    for (const auto& [source, charmap] : locales) {
        if (!testing_locales::use(source, charmap)) GTEST_SKIP() << "no locale sources";
        ASSERT_TRUE(std::tolower(0xc4) != 0xc4 || std::tolower('I') != 'i');
        const TSMailUserId id("I\xc4@I\xd6");
        EXPECT_EQ(id.tilde_name(), "i\xc4~i\xd6");
        EXPECT_EQ(id.domain(), "i\xd6");
    }
}

TEST(Parse, OfAMebibyte) {
    const string local(1 << 20, 'L');
    const string tag(1 << 20, 'T');
    const string domain(1 << 20, 'D');
    const TSMailUserId id(local + "+" + tag + "@" + domain);
    const string low_local(1 << 20, 'l');
    const string low_domain(1 << 20, 'd');
    EXPECT_TRUE(id.tilde_name() == low_local + "~" + low_domain);
    EXPECT_TRUE(id.local(true) == low_local);
    EXPECT_TRUE(id.tag() == tag);
    EXPECT_TRUE(id.domain() == low_domain);
    EXPECT_EQ(id.homepath().size(), 16 + (1U << 20) + 1 + (2U << 20) + 1);
    for (const char c : {'@', '~', '+'}) {
        EXPECT_EQ(TSMailUserId(string(1 << 20, c)).local(true).size(), c == '@'   ? 0U
                                                                       : c == '~' ? (1U << 20) - 1
                                                                                  : 0U);
    }
}

TEST(Parse, AgreesWithTheLiteralOneOnRandomTexts) {
    const unsigned seed = 20240611;
    std::cout << "seed " << seed << '\n';
    std::mt19937 random(seed);
    const string alphabet = "aAzZ@@~~++.\xe4\xc4\0/"s;
    TSMailUserId id("");
    LiteralFields literal;
    for (int i = 0; i < 200000; ++i) {
        string text(random() % 12, ' ');
        for (char& c : text) c = alphabet[random() % alphabet.size()];
        if (random() % 4 == 0) {  // otherwise the fields of the previous text stay
            id = TSMailUserId(MAILBOX_USER, "");
            literal = {};
        }
        id.parse(text);
        literal.parse(text);
        ASSERT_EQ(id.tilde_name(), literal.tilde) << testing::PrintToString(text);
        ASSERT_EQ(id.local(true), literal.local) << testing::PrintToString(text);
        ASSERT_EQ(id.tag(), literal.tag) << testing::PrintToString(text);
        ASSERT_EQ(id.domain(), literal.domain) << testing::PrintToString(text);
        ASSERT_EQ(id.address(), literal.address(false)) << testing::PrintToString(text);
        ASSERT_EQ(id.address(true), literal.address(true)) << testing::PrintToString(text);
    }
}

TEST(Address, WithAndWithoutTheTag) {
    const TSMailUserId tagged("A+T@D");
    EXPECT_EQ(tagged.local(), "a+T");
    EXPECT_EQ(tagged.local(false), "a+T");
    EXPECT_EQ(tagged.local(true), "a");
    EXPECT_EQ(tagged.address(), "a+T@d");
    EXPECT_EQ(tagged.address(true), "a@d");
    const TSMailUserId plain("A@D");
    EXPECT_EQ(plain.local(false), "a");
    EXPECT_EQ(plain.address(false), "a@d");
    EXPECT_EQ(TSMailUserId("A+T").address(true), "a");
    EXPECT_EQ(TSMailUserId("A+T").address(false), "a+T");
}

TEST(Address, OfADirectOneIsNotRefused) {
    const TSMailUserId id(MAILBOX_DIRECT, "x@y");
    EXPECT_EQ(id.local(), "");
    EXPECT_EQ(id.address(), "");
    EXPECT_EQ(id.tilde_name(), "x@y");
    EXPECT_EQ(id.tag(), "");
    EXPECT_EQ(id.userType(), 0);
}
