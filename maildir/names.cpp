// Message file names and queue identifiers, and the dates read back from them.
#include <sys/time.h>
#include <tessaly/mailstore.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/text.h"

namespace {

using std::string_view;
using Tessaly::base::BoundedText;

constexpr size_t kHostRoom = 256;  // of the escaped host name, with its NUL

// Asks for the host name and writes it without the separators of paths and of message flags.
string_view ask_host_name(char (&escaped)[kHostRoom]) {
    char plain[kHostRoom];
    if (::gethostname(plain, sizeof plain) != 0) return "localhost";
    plain[sizeof plain - 1] = '\0';
    BoundedText text(escaped, sizeof escaped);
    for (const char* c = plain; *c != '\0'; ++c) {
        switch (*c) {
            case '/':
                text << "\\057";
                break;
            case ':':
                text << "\\072";
                break;
            default:
                text << *c;
        }
    }
    return text.view();
}

// The host name as the process first saw it. It needs no lock: every thread that finds it unknown
// reads it into its own buffer, and one of them stores it. So no thread waits, not even for one
// that a fork has removed.
class HostName {
  public:
    string_view get(char (&own)[kHostRoom]) {
        if (state_.load(std::memory_order_acquire) == known) return {text_, length_};
        const string_view name = ask_host_name(own);
        State expected = unknown;
        // An empty name stays unknown: the host may get one later.
        if (!name.empty() && state_.compare_exchange_strong(expected, being_stored)) {
            length_ = name.copy(text_, sizeof text_);
            state_.store(known, std::memory_order_release);
        }
        return name;
    }

  private:
    enum State { unknown, being_stored, known };
    std::atomic<State> state_{unknown};
    size_t length_ = 0;
    char text_[kHostRoom] = {};
};

string_view host_name(char (&own)[kHostRoom]) {
    static constinit HostName name;
    return name.get(own);
}

// "<seconds>.<pid>_<microseconds>_<counter>.<host>#Q#"
void write_unique_part(BoundedText& text) {
    constexpr long kCounters = 1000000;
    const long counter = ::random() % kCounters + 1;
    struct timeval now;
    ::gettimeofday(&now, nullptr);
    char own[kHostRoom];
    text << now.tv_sec << '.' << ::getpid() << '_' << now.tv_usec << '_' << counter << '.'
         << host_name(own) << "#Q#";
}

// The part of a queue identifier that goes into names.
string_view queue_part(string_view id) {
    const auto dash = id.find('-');
    return dash == string_view::npos ? id : id.substr(dash + 1);
}

constexpr string_view kDigits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr int kNoDigit = -1;
constexpr int kYears = 60;    // the period in which a coded year repeats
constexpr size_t kCoded = 6;  // digits of the time in front of a queue identifier

// The digit for a value, which is taken modulo `modulus` (never negative): fields of a struct tm
// may hold anything.
char digit(int value, int modulus) {
    const int rest = value % modulus;
    return kDigits[static_cast<size_t>(rest < 0 ? rest + modulus : rest)];
}

int digit_value(char c) {
    const auto at = kDigits.find(c);
    return at == string_view::npos ? kNoDigit : static_cast<int>(at);
}

// The place of the six digits of the time in a message file name, or nullptr. Some queues put
// letters 'q' in front of the identifier; a 'q' that is followed by a month is a year.
const char* find_coded_time(const char* name) {
    constexpr char kMark[] = "#Q#";
    constexpr int kLastMonth = 11;
    const char* p = std::strstr(name, kMark);
    if (p == nullptr) return nullptr;
    for (p += std::strlen(kMark); ::strnlen(p, kCoded) == kCoded; ++p) {
        const int month = digit_value(p[1]);
        if (month == kNoDigit) return nullptr;
        if (month <= kLastMonth || p[0] != 'q') return p;
    }
    return nullptr;
}

struct tm now_in_utc() {
    const time_t now = ::time(nullptr);
    struct tm utc = {};
    ::gmtime_r(&now, &utc);
    return utc;
}

// The first year of today's period, counted as tm_year is.
int first_year_of_period() {
    const int year = now_in_utc().tm_year;
    return year - year % kYears;
}

// The time coded in six digits, -1 if one of them is not a digit.
time_t decode_time(const char* p) {
    int values[kCoded];
    std::transform(p, p + kCoded, values, digit_value);
    if (std::find(values, values + kCoded, kNoDigit) != values + kCoded) return -1;
    struct tm when = {};
    when.tm_year = values[0] + first_year_of_period();
    when.tm_mon = values[1];
    when.tm_mday = values[2];
    when.tm_hour = values[3];
    when.tm_min = values[4];
    when.tm_sec = values[5];
    return ::timegm(&when);
}

}  // namespace

char* tsl_gen_mail_unique_name(size_t size, const char* queue_id, char* dst, size_t dst_len) {
    if (dst == nullptr || queue_id == nullptr || dst_len == 0) return nullptr;
    // Room for four numbers, the separators and the host name.
    char head[4 * 20 + 8 + kHostRoom];
    BoundedText unique(head, sizeof head);
    write_unique_part(unique);

    // The queue part is put into its place first: the identifier may lie in dst.
    const string_view queue = queue_part(queue_id);
    const size_t head_length = std::min(unique.view().size(), dst_len - 1);
    const size_t queue_length = std::min(queue.size(), dst_len - 1 - head_length);
    std::memmove(dst + head_length, queue.data(), queue_length);
    std::memcpy(dst, head, head_length);
    const size_t done = head_length + queue_length;
    BoundedText rest(dst + done, dst_len - done);
    rest << ",#F#S#" << size << "#E";
    rest.c_str();
    dst[dst_len - 1] = '\0';
    return dst;
}

char* tsl_gen_queue_id(const struct tm* when, char* buf, size_t buf_len) {
    constexpr size_t kLeast = 32;
    constexpr size_t kProcessAt = 8;
    if (buf == nullptr || buf_len < kLeast) return nullptr;
    const struct tm moment = when == nullptr ? now_in_utc() : *when;
    std::memset(buf, 0, buf_len);
    const int base = static_cast<int>(kDigits.size());
    const int chance = std::rand() % 3600;
    const char coded[kProcessAt] = {
        digit(moment.tm_year, kYears), digit(moment.tm_mon, base), digit(moment.tm_mday, base),
        digit(moment.tm_hour, base),   digit(moment.tm_min, base), digit(moment.tm_sec, base),
        digit(chance / 60, base),      digit(chance, 60),
    };
    std::memcpy(buf, coded, sizeof coded);
    std::snprintf(buf + kProcessAt, kLeast - kProcessAt, "%06d", static_cast<int>(::getpid()));
    return buf;
}

time_t tsl_get_mail_creation_date(const char* name) {
    if (name == nullptr || name[std::strspn(name, "0123456789")] != '.') return -1;
    // Begins with a digit or with '.': no blank and no sign that strtoul would take.
    const auto seconds = static_cast<time_t>(std::strtoul(name, nullptr, 10));
    struct tm local;
    if (::localtime_r(&seconds, &local) == nullptr) return -1;
    local.tm_isdst = -1;  // mktime decides: around a daylight-saving change the value may differ
    return ::mktime(&local);
}

time_t tsl_get_mail_received_date(const char* name) {
    if (name == nullptr) return -1;
    const char* coded = find_coded_time(name);
    const time_t received = coded == nullptr ? -1 : decode_time(coded);
    return received == -1 ? tsl_get_mail_creation_date(name) : received;
}
