// The size field of message file names, ",#F#S#<bytes>#E", as this subsystem reads and inserts it.
#ifndef TSMAIL_MAILSIZE_NAME_SIZE_H
#define TSMAIL_MAILSIZE_NAME_SIZE_H

#include <cstddef>
#include <string_view>

namespace Tessaly::mailsize {

// The size that a name carries, -1 if it carries none. Of several "#S" behind the ",#F" the last
// counts; the "#E" may stand anywhere behind it.
long long size_in_name(const char* name);

// Whether the name holds a group ",#F" ... "#E", with or without a size in it.
bool is_tagged(std::string_view name);

// Room for any name of a file.
inline constexpr std::size_t kNameBuffer = 256;
using NameBuffer = char[kNameBuffer];

// The name with a size field: before the first ",U", else before the first ":2", else at the end.
// Stands in the buffer; nullptr if it is too long for a file.
const char* tagged_name(std::string_view name, long long size, NameBuffer& buffer);

// A tagged name as it was before tagged_name made it.
std::string_view untagged_name(std::string_view name, NameBuffer& buffer);

}  // namespace Tessaly::mailsize

#endif
