// The text of size records: "<bytes> <messages>\n", two signed 64-bit decimal numbers.
#ifndef TSMAIL_MAILSIZE_RECORD_TEXT_H
#define TSMAIL_MAILSIZE_RECORD_TEXT_H

#include <cstddef>
#include <optional>
#include <string_view>

namespace Tessaly::mailsize {

// A longer line is read in pieces of this many bytes. Each piece may be a record.
inline constexpr std::size_t kRecordPiece = 254;

struct Record {
    long long size = 0;
    long long count = 0;
    bool operator==(const Record&) const = default;
};

struct ParsedRecord : Record {
    bool out_of_range = false;  // a number does not fit 64 bits; it stands as the nearest that does
};

// The record that a piece of a size file begins with: two numbers, each after optional white space.
// A sign of the second number separates the two as well. Nothing if there are not two.
std::optional<ParsedRecord> parse_record(std::string_view piece);

// A record as it is written; the text lives in the object.
class RecordText {
  public:
    explicit RecordText(const Record& record, std::string_view header = {});
    std::string_view view() const { return {text_, length_}; }

    static constexpr std::size_t kRoom = 64;  // two numbers of at most 20 characters and a header

  private:
    char text_[kRoom];
    std::size_t length_;
};

}  // namespace Tessaly::mailsize

#endif
