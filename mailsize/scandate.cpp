// The date of a folder's last scan for unread messages.
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <optional>
#include <string_view>

#include "base/locked_stream.h"
#include "base/store_names.h"
#include "base/text.h"
#include "mailsize/folder_path.h"
#include "mailsize/number.h"
#include "mailsize/piece_reader.h"
#include "mailsize/write_whole.h"

namespace Tessaly::mailsize {

namespace {

// A longer line is read in pieces of this many bytes. Each piece may begin with the date.
constexpr std::size_t kDatePiece = 254;

// The date that a piece begins with. The file holds 32-bit numbers. Of a larger number the low 32
// bits count, as with scanf's "%d"; a number beyond 64 bits stands as the nearest that fits first.
std::optional<int> parse_date(std::string_view piece) {
    TextCursor cursor(piece);
    const Number number = scan_number(cursor);
    if (!number.found) return {};
    return static_cast<int>(number.as_signed());
}

std::optional<int> read_date(const base::LockedStream& file) {
    std::optional<int> date;
    PieceReader reader(file, kDatePiece);
    for (std::string_view piece = reader.next(); !piece.empty(); piece = reader.next()) {
        if (const auto found = parse_date(piece)) date = found;
    }
    return reader.failed() ? std::nullopt : date;
}

}  // namespace

}  // namespace Tessaly::mailsize

using namespace Tessaly::mailsize;

int tsl_set_mail_unread_scandate(const char* dir, int date) {
    if (dir == nullptr) return 0;
    const Tessaly::base::LockedStream stream(FolderPath(dir, Tessaly::names::kScanDate).c_str(),
                                             "w");
    if (!stream) return 0;
    char buffer[16];  // "-2147483648\n"
    Tessaly::base::BoundedText text(buffer, sizeof buffer);
    text << date << '\n';
    write_whole(stream, text.view(), 0);
    return 0;
}

int tsl_get_mail_unread_scandate(const char* dir, long* date) {
    if (dir == nullptr) return -1;
    FolderPath path(dir, Tessaly::names::kScanDate);
    if (::access(path.c_str(), F_OK) != 0) return -1;
    Tessaly::base::LockedStream stream(path.c_str(), "r");
    if (!stream) return -1;
    const auto found = read_date(stream);
    stream.close_plainly();
    if (!found) return -1;
    if (date != nullptr) *date = *found;
    return 0;
}
