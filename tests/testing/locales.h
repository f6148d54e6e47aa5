// Locales for tests, made by localedef: a bare machine has none but C.
#ifndef TSMAIL_TESTS_TESTING_LOCALES_H
#define TSMAIL_TESTS_TESTING_LOCALES_H

#include <string>

namespace testing_locales {

// Makes a locale from a source ("de_DE") and a charmap ("ISO-8859-1") and switches to it. False if
// the machine has nothing to make it from: the case is to be skipped then. Throws if it has and the
// switch fails all the same.
bool use(const std::string& source, const std::string& charmap);

}  // namespace testing_locales

#endif
