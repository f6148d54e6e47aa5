#include "tools/work/import_name.h"

#include <fmt/format.h>
#include <tessaly/mailstore.h>

#include <algorithm>

namespace Tessaly::tool {

namespace {

using std::string;
using std::string_view;

constexpr string_view kBefore = ".0_0_1.", kBehind = "-import";
constexpr std::size_t kDigits = 32;

// The queue part for a date, if one can be read back from it; else empty.
string queue_part(std::time_t date) {
    constexpr std::size_t kTime = 6;  // digits of the time
    char id[64];
    std::tm utc;
    if (::gmtime_r(&date, &utc) == nullptr || tsl_gen_queue_id(&utc, id, sizeof id) == nullptr) {
        return "";
    }
    string part = "#Q#" + string(id, kTime) + "00000000";
    return tsl_get_mail_received_date(("0.0" + part + ',').c_str()) == date ? part : "";
}

}  // namespace

string MessageSum::text() const {
    return fmt::format("{:016x}{:016x}", static_cast<std::uint64_t>(sum_ >> 64),
                       static_cast<std::uint64_t>(sum_));
}

string imported_name(std::time_t date, const string& sum, std::uint64_t size) {
    date = std::max<std::time_t>(date, 0);
    return fmt::format("{}{}{}{}{},#F#S#{}#E", date, kBefore, sum, kBehind, queue_part(date), size);
}

string_view sum_in_name(string_view name) {
    const auto at = name.find(kBefore);
    if (at == string_view::npos) return {};
    const string_view sum = name.substr(at + kBefore.size());
    return sum.size() > kDigits && sum.substr(kDigits).starts_with(kBehind) ? sum.substr(0, kDigits)
                                                                            : string_view();
}

}  // namespace Tessaly::tool
