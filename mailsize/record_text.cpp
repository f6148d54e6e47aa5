#include "mailsize/record_text.h"

#include "base/text.h"
#include "mailsize/number.h"

namespace Tessaly::mailsize {

std::optional<ParsedRecord> parse_record(std::string_view piece) {
    TextCursor cursor(piece);
    const Number size = scan_number(cursor);
    if (!size.found) return {};
    const Number count = scan_number(cursor);
    if (!count.found) return {};
    return ParsedRecord{{size.as_signed(), count.as_signed()},
                        size.beyond_signed() || count.beyond_signed()};
}

RecordText::RecordText(const Record& record, std::string_view header) {
    base::BoundedText text(text_, sizeof text_);
    text << header << record.size << ' ' << record.count << '\n';
    length_ = text.view().size();
}

}  // namespace Tessaly::mailsize
