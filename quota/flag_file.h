// Files whose existence, age or single number tells something.
#ifndef TSMAIL_QUOTA_FLAG_FILE_H
#define TSMAIL_QUOTA_FLAG_FILE_H

#include <string>

namespace Tessaly::quota {

bool exists(const std::string& path);

// Creates the file, or empties it and so renews its time. False with errno if neither was possible.
bool make_empty(const std::string& path);

void remove(const std::string& path);

// The number at the beginning of the file by the rules of `stream >> int` in the classic locale. 0
// if there is none, if it does not fit an int, and if the file cannot be read.
int read_number(const std::string& path);

// Replaces the file's content by the number. If several processes write at once, the number of the
// last one stays, whole. False with errno if it could not be written.
bool write_number(const std::string& path, int number);

}  // namespace Tessaly::quota

#endif
