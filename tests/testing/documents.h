// The documents of the formats on disk, for tests that compare them with what the library does.
#ifndef TSMAIL_TESTS_TESTING_DOCUMENTS_H
#define TSMAIL_TESTS_TESTING_DOCUMENTS_H

#include <string>
#include <vector>

namespace testing_documents {

// The text of docs/formats/<name>.
std::string format(const std::string& name);

// The blocks of a document between lines of "```", each with its line ends.
std::vector<std::string> blocks(const std::string& text);

// The rows of the table under this head ("| a | b |"), each cell without blanks and backquotes
// around it. Throws if there is none.
std::vector<std::vector<std::string>> table(const std::string& text, const std::string& head);

}  // namespace testing_documents

#endif
