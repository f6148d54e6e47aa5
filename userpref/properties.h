// The description of the preferences as the library itself uses it.
#ifndef TSMAIL_USERPREF_PROPERTIES_H
#define TSMAIL_USERPREF_PROPERTIES_H

#include <tessaly/userpref.h>

#include <cstddef>

namespace Tessaly::userpref {

// The writer's line buffer holds 512 bytes; the converters are told of 511, NUL included.
constexpr unsigned int kLineCapacity = 511;
// The longest text that the lines of a record can make.
constexpr std::size_t kLongestText = 2870;

constexpr std::size_t kKeys = 35;

// What a line sets.
struct Setting {
    const pref_property* row;  // of the line's key; nullptr if the line sets nothing
    const char* text;          // behind the '='; nullptr if the line ends with the key
};

// Looks at one line, which ends at its line feed or at a NUL.
Setting setting_of(const char* line);

// The same for line after line, fastest if the lines have the order of the file. kLookAhead bytes
// must be readable behind the line.
class LineReader {
  public:
    static constexpr std::size_t kLookAhead = 24;

    Setting read(const char* line);

  private:
    std::size_t expected_ = 0;  // the row behind the last one that was found
};

// One of the two converters of a row's type, as the one function type that casts to any other.
inline auto convertor_of(const pref_property& row, std::size_t direction) {
    return reinterpret_cast<void (*)()>(pref_data_convertor[std::size_t{2} * row.type + direction]);
}
inline pref_text_to_field text_to_field(const pref_property& row) {
    return reinterpret_cast<pref_text_to_field>(convertor_of(row, 0));
}
inline pref_field_to_text field_to_text(const pref_property& row) {
    return reinterpret_cast<pref_field_to_text>(convertor_of(row, 1));
}

inline void* field_of(user_pref& p, const pref_property& row) {
    return reinterpret_cast<char*>(&p) + row.offset;
}

}  // namespace Tessaly::userpref

#endif
