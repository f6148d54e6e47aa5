// The examples of the document about lists are what the operations do.
#include <tessaly/maillist.h>

#include <gtest/gtest.h>

#include <string>

#include "lists.h"
#include "testing/files.h"

using namespace lists;

namespace {

// The text between the n-th pair of code marks, from 0.
std::string example(int n) {
    const std::string mark = "```\n";
    const std::string document = testing_files::read(TSMAIL_SOURCE_DIR "/docs/formats/lists.md");
    std::size_t begin = document.find(mark), end = document.find(mark, begin + 1);
    for (; n > 0; --n) {
        begin = document.find(mark, end + 1);
        end = document.find(mark, begin + 1);
    }
    EXPECT_NE(end, std::string::npos);
    return document.substr(begin + mark.size(), end - begin - mark.size());
}

}  // namespace

TEST(Document, ShowsWhatTheOperationsDo) {
    put(example(0));
    EXPECT_EQ(drop_id(2), 0);
    EXPECT_EQ(add("3,*@junk.test"), 0);
    EXPECT_EQ(content(), example(1));
}
