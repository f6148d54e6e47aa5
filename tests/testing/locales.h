// Locales for tests, made by localedef: a bare machine has only C.
#ifndef TSMAIL_TESTS_TESTING_LOCALES_H
#define TSMAIL_TESTS_TESTING_LOCALES_H

#include <string>

namespace testing_locales {

// Makes a locale from a source ("de_DE") and a charmap ("ISO-8859-1") and switches to it. False if
// the machine does not have the sources; the case is skipped then. Throws if the switch fails
// although it has them.
bool use(const std::string& source, const std::string& charmap);

}  // namespace testing_locales

#endif
