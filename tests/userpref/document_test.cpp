// The document about the file, and the header, agree with the tables for every key.
#include <map>
#include <sstream>
#include <vector>

#include "helpers.h"
#include "testing/files.h"

namespace fs = testing_files;

namespace {

std::string document() { return fs::read(TSMAIL_SOURCE_DIR "/docs/formats/preferences.md"); }

// The part of a text between two marks.
std::string between(const std::string& text, const std::string& from, const std::string& to) {
    const std::size_t begin = text.find(from);
    EXPECT_NE(begin, std::string::npos) << from;
    const std::size_t end = text.find(to, begin + from.size());
    EXPECT_NE(end, std::string::npos) << to;
    return text.substr(begin + from.size(), end - begin - from.size());
}

// The document's line for a row of the table.
std::string table_line(const pref_property& row) {
    static const char* const types[] = {"int", "flag", "text", "uint16"};
    std::string value = prefs::value_of(prefs::defaults(), row);
    if (!value.empty()) value = "`" + value + "` ";
    return "| `" + std::string(row.name) + "` | " + types[row.type] + " | " +
           std::to_string(row.size) + " | " + value + "|\n";
}

TEST(Document, ListsEveryKeyAndNoOther) {
    std::string wanted;
    for (const pref_property* row = pref_properties; row->name != nullptr; ++row) {
        wanted += table_line(*row);
    }
    EXPECT_EQ(between(document(), "| key | type | size | default |\n|---|---|---|---|\n", "\n\n"),
              wanted.substr(0, wanted.size() - 1));
}

TEST(Document, ShowsAStoreOfTheDefaults) {
    const user_pref p = prefs::defaults();
    ASSERT_EQ(store_user_pref(prefs::kUser, &p), 0);
    EXPECT_EQ(between(document(), "```\n", "```\n"), fs::read(prefs::kFile));
}

// A field of the record as the header declares it, its default in the comment.
struct Field {
    std::string type, name, size, by_default;
};

// The text behind a mark, up to one of the ends. Empty without the mark.
std::string behind(const std::string& text, const std::string& mark, const char* ends) {
    const std::size_t begin = text.find(mark);
    if (begin == std::string::npos) return "";
    return text.substr(begin + mark.size(),
                       text.find_first_of(ends, begin + mark.size()) - begin - mark.size());
}

// "char lang[256]; /* = "en"; more */"
Field field_of_line(const std::string& line) {
    Field field;
    std::istringstream(line) >> field.type >> field.name;
    field.name = field.name.substr(0, field.name.find_first_of("[;"));
    field.size = behind(line, "[", "]");
    field.by_default = behind(line, "/* = ", ";*");
    while (field.by_default.ends_with(' ')) field.by_default.pop_back();
    if (field.by_default.starts_with('"')) field.by_default = behind(field.by_default, "\"", "\"");
    return field;
}

std::vector<Field> fields_of_the_header() {
    std::istringstream record(between(fs::read(TSMAIL_SOURCE_DIR "/include/tessaly/userpref.h"),
                                      "typedef struct user_pref {\n", "} user_pref;"));
    std::vector<Field> fields;
    for (std::string line; std::getline(record, line);) fields.push_back(field_of_line(line));
    return fields;
}

// The header's comments name the defaults that the library sets, field by field.
TEST(Document, TheHeaderNamesTheDefaults) {
    const std::map<std::string, unsigned> sizes = {
        {"int32_t", 4}, {"uint16_t", 2}, {"uint8_t", 1}, {"char", 1}};
    std::size_t end = 0;
    const std::vector<Field> fields = fields_of_the_header();
    EXPECT_EQ(fields.size(), 35u);
    for (const Field& field : fields) {
        SCOPED_TRACE(field.name);
        const pref_property& row = prefs::row_of(field.name);
        EXPECT_EQ(row.size, field.size.empty() ? sizes.at(field.type)
                                               : static_cast<unsigned>(std::stoul(field.size)));
        EXPECT_GE(row.offset, end) << "not in the order of the record";
        end = row.offset + row.size;
        const bool number = row.type != PREF_TYPE_STRING;
        EXPECT_EQ(prefs::value_of(prefs::defaults(), row),
                  field.by_default.empty() && number ? "0" : field.by_default);
    }
}

}  // namespace
