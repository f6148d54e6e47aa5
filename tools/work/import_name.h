// The names of imported messages.
#ifndef TSMAIL_TOOLS_WORK_IMPORT_NAME_H
#define TSMAIL_TOOLS_WORK_IMPORT_NAME_H

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace Tessaly::tool {

// A sum over what makes a message the same one in a second run (FNV-1a with 128 bits).
class MessageSum {
  public:
    void add(std::string_view bytes) {
        for (const char byte : bytes) sum_ = (sum_ ^ static_cast<unsigned char>(byte)) * kPrime;
    }
    std::string text() const;

  private:
    __extension__ using Sum = unsigned __int128;
    static constexpr Sum kPrime = (Sum{1} << 88) + 0x13B;
    Sum sum_ = (Sum{0x6C62272E07BB0142} << 64) + 0x62B821756295C58D;
};

// The name of a message with this receipt date, sum and size. The date is the first number and, in
// the period that a queue part can express, that too.
std::string imported_name(std::time_t date, const std::string& sum, std::uint64_t size);

// The sum in the name of an imported message; empty for other names.
std::string_view sum_in_name(std::string_view name);

}  // namespace Tessaly::tool

#endif
