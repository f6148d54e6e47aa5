#include "tools/cli/output.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "testing/files.h"

using namespace Tessaly::tool;

namespace {

// What an Output shows, through a real file.
template <class Show>
std::string shown(Show show) {
    const testing_files::TempDir dir;
    const std::string path = dir / "out";
    std::FILE* file = std::fopen(path.c_str(), "w");
    Output out(::fileno(file));
    show(out);
    EXPECT_TRUE(out.finish());
    std::fclose(file);
    return testing_files::read(path);
}

}  // namespace

TEST(Table, AlignsByWidthOnTheScreen) {
    EXPECT_EQ(shown([](Output& out) {
                  Table table({{"name"}, {"size", Align::right}, {"end"}});
                  table.row({"gr\xc3\xbc\xc3\x9f\x65", "1", "x"});
                  table.row({"gru\xcc\x88\xc3\x9f\x65", "3", "x"});     // decomposed
                  table.row({"\xe4\xbc\x9a\xe8\xad\xb0", "100", "y"});  // two columns each
                  table.row({"a\x1b", "12", ""});
                  table.print(out);
              }),
              "name   size  end\n"
              "gr\xc3\xbc\xc3\x9f\x65     1  x\n"
              "gru\xcc\x88\xc3\x9f\x65     3  x\n"
              "\xe4\xbc\x9a\xe8\xad\xb0    100  y\n"
              "a\\x1b    12\n");
}

TEST(Output, JsonKeepsOrderAndStaysOnOneLine) {
    EXPECT_EQ(
        shown([](Output& out) {
            out.object(Json{{"z", 1}, {"a", "line\nbreak \x1b"}, {"bad", "\xff"}});
        }),
        "{\"z\":1,\"a\":\"line\\nbreak \\u001b\",\"bad\":\"\xef\xbf\xbd\",\"bad_hex\":\"ff\"}\n");
}

TEST(Output, LongOutputComesWhole) {
    const std::string line(999, 'x');
    EXPECT_EQ(shown([&](Output& out) {
                  for (int i = 0; i < 1000; ++i) out.line(line);
              }).size(),
              1000000U);
}

TEST(Output, SilenceShowsNothing) {
    EXPECT_EQ(shown([](Output& out) {
                  out.silence();
                  out.line("x");
              }),
              "");
}
