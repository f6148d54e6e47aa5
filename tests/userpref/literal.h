// The preference file done in the plainest way, line by line and key by key. The library must agree
// with it.
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
// The record that a store and a read with defaults give, field by field. It does not cover lines
// that are too long for the writer, and line feeds in texts.
user_pref normalised(const user_pref& p);

}  // namespace literal

#endif
