#include <tessaly/Exception.h>

#include <gtest/gtest.h>

using Tessaly::Exception;

TEST(Exception, KeepsWhatItWasBuiltFrom) {
    char file[] = "Source";
    const Exception e("a message", 4, file, 123);
    file[0] = 'X';
    EXPECT_STREQ(e.what(), "a message");
    EXPECT_EQ(e.message(), "a message");
    EXPECT_EQ(e.code(), 4);
    EXPECT_STREQ(e.file(), "Source");
    EXPECT_EQ(e.line(), 123);
}

TEST(Exception, ANullFileIsEmpty) { EXPECT_STREQ(Exception("", -1, nullptr, 0).file(), ""); }

TEST(Exception, IsCopiedAndAssigned) {
    Exception a("a", 1, "A", 10);
    const Exception b("b", 2, "B", 20);
    const Exception copy(a);
    a = b;
    EXPECT_STREQ(a.what(), "b");
    EXPECT_EQ(a.code() + a.line(), 22);
    EXPECT_STREQ(copy.what(), "a");
    EXPECT_STREQ(copy.file(), "A");
}

TEST(Exception, IsCaughtAsAStandardOne) {
    try {
        throw Exception(std::string("with\0zero", 9), 4, "S", 1);
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "with");
        const auto* ours = dynamic_cast<const Exception*>(&e);
        ASSERT_NE(ours, nullptr);
        EXPECT_EQ(ours->message().size(), 9U);
    }
}
