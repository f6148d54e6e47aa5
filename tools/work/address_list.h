// AddressList - one address list, as the verbs work on it.
#ifndef TSMAIL_TOOLS_WORK_ADDRESS_LIST_H
#define TSMAIL_TOOLS_WORK_ADDRESS_LIST_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Tessaly::tool {

// How many lines a list may have for another one to be added.
constexpr int kListLines = 2048;

// A reason against an entry, or nullptr: what would not be one line of the list, or cannot be seen.
const char* against_entry(std::string_view entry);

class AddressList {
  public:
    // `scope` is one of enum mail_list_scope. The names were checked.
    AddressList(std::string user, std::string list, unsigned scope);

    const std::string& path() const { return path_; }
    // A Failure if that cannot be told.
    bool exists() const;

    // All lines, numbered from 1 by their place, as the library counts them: empty ones too, and
    // the pieces of overlong ones. A Failure with code kExitNoInput if there is no such list.
    std::vector<std::string> lines() const;
    // The entries in the order of the alphabet.
    std::vector<std::string> sorted() const;

    bool contains(const std::string& entry) const;
    bool matches(const std::string& address) const;

    enum class Added { added, present, full };
    // Adds an entry, if no line equals it. A Failure if it cannot be written.
    Added add(const std::string& entry) const;
    // Removes every line that equals the entry. Whether there was one. The file keeps its mode.
    bool remove(const std::string& entry) const;
    // Replaces a line, which must be there. The file keeps its mode.
    void replace(unsigned line, std::string entry) const;

  private:
    void demand() const;
    void keeping_mode(const std::function<void()>& rewrite) const;
    void end_last_line(const std::string& entry) const;
    void rewritten(int answer) const;

    std::string user_, list_;
    unsigned scope_;
    std::string path_;
};

}  // namespace Tessaly::tool

#endif
