// The preference file done the plainest way, line by line and key by key: what the library must
// agree with.
#ifndef TSMAIL_TESTS_USERPREF_LITERAL_H
#define TSMAIL_TESTS_USERPREF_LITERAL_H

#include <tessaly/userpref.h>

#include <cstdio>
#include <string>

namespace literal {

int parse_line(user_pref* p, char* line);
int fill(user_pref* p, FILE* stream);
// The text that a store writes, through a line buffer of 512 bytes.
std::string text_of(const user_pref& p);
// Field by field what a store and a read with defaults make of a record, lines too long for the
// writer and line feeds in texts aside.
user_pref normalised(const user_pref& p);

}  // namespace literal

#endif
