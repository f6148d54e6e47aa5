// AddressList - one address list, as the verbs work on it.
#ifndef TSMAIL_TOOLS_WORK_ADDRESS_LIST_H
#define TSMAIL_TOOLS_WORK_ADDRESS_LIST_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Tessaly::tool {

// An entry can be added only to a list of at most this many lines.
constexpr int kListLines = 2048;

// The lists that programs of the store use. Any other name makes a list that nothing reads.
std::vector<std::string> known_lists();

// The names of the lists that a user or another scope has, in byte order; none if there is no such
// directory. The preferences, which lie beside a user's lists, are left out.
std::vector<std::string> list_names(const std::string& user, unsigned scope);

// The reason why an entry is refused, or nullptr. Refused are texts that would not be one line of
// the list, and control characters.
const char* against_entry(std::string_view entry);

class AddressList {
  public:
    // `scope` is one of enum mail_list_scope. The caller has checked the names.
    AddressList(std::string user, std::string list, unsigned scope);

    const std::string& user() const { return user_; }
    const std::string& path() const { return path_; }
    // A Failure if that cannot be determined.
    bool exists() const;

    // All lines as the library counts them, from 1: empty lines count, and so does each piece of an
    // overlong line. A Failure with code kExitNoInput if there is no such list.
    std::vector<std::string> lines() const;
    // The entries in alphabetical order.
    std::vector<std::string> sorted() const;

    bool contains(const std::string& entry) const;
    bool matches(const std::string& address) const;

    enum class Added { added, present, full };
    // Adds an entry unless a line equals it. A Failure if it cannot be written.
    Added add(const std::string& entry) const;
    // Removes every line that equals the entry. Returns whether there was one. The file keeps its
    // mode.
    bool remove(const std::string& entry) const;
    // An existing line, counted from 1; a Failure with code kExitData if there is no such line.
    std::string line(unsigned number) const;
    // Replaces an existing line. The file keeps its mode.
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
