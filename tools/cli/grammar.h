// The command line: one grammar for all verbs.
#ifndef TSMAIL_TOOLS_CLI_GRAMMAR_H
#define TSMAIL_TOOLS_CLI_GRAMMAR_H

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/cli/failure.h"
#include "tools/cli/session.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace Tessaly::tool {

// A word that people write and the number it stands for.
struct Word {
    int number;
    std::string_view word;
};

// What an argument may be, where that is a matter of a few words: for completion and documents.
using Choices = std::map<const CLI::Option*, std::vector<std::string>>;

// Which mailboxes a command is about, as its words say it.
struct Choice {
    std::optional<std::string> address;
    bool all = false;
    std::optional<std::string> domain;
};

// A verb's arguments, as they are declared: "--name" for options, a word for positional ones.
// Values are taken as they stand. What is declared lives as long as the verb can run.
class Verb {
  public:
    Verb(CLI::App& app, Choices& choices) : app_(&app), choices_(&choices) {}

    Verb& text(const std::string& name, std::string& value, const std::string& help);
    Verb& text(const std::string& name, std::optional<std::string>& value, const std::string& help);
    Verb& texts(const std::string& name, std::vector<std::string>& values, const std::string& help);
    Verb& flag(const std::string& name, bool& value, const std::string& help);
    // The argument declared last must be there.
    Verb& required();
    // What the argument declared last may be. Whether it is, the verb itself looks at.
    Verb& one_of(std::span<const Word> words);
    Verb& one_of(std::vector<std::string> words);
    // The mailbox that nearly every verb is about.
    Verb& address(std::string& value);
    // The same, or all mailboxes, or those of a domain.
    Verb& choice(Choice& choice);
    // How many of them at a time.
    Verb& jobs(std::optional<std::string>& value);

  private:
    CLI::App* app_;
    Choices* choices_;
    CLI::Option* last_ = nullptr;
};

// Where verbs are added: the command itself, or a verb that has verbs of its own.
class VerbGroup {
  public:
    VerbGroup(CLI::App& app, Session& session, Choices& choices)
        : app_(&app), session_(&session), choices_(&choices) {}

    VerbGroup group(const std::string& name, const std::string& help) const;

    // Adds a verb with arguments of its own: declare(verb, arguments) says what they are,
    // run(session, arguments) does the work and returns the exit code.
    template <class Arguments>
    void verb(const std::string& name, const std::string& help,
              void (*declare)(Verb& verb, Arguments& arguments),
              int (*run)(Session& session, const Arguments& arguments)) const {
        const auto arguments = std::make_shared<Arguments>();
        Session* session = session_;
        Verb verb = add(name, help, [=] { return run(*session, *arguments); });
        declare(verb, *arguments);
    }

  private:
    Verb add(const std::string& name, const std::string& help, std::function<int()> work) const;

    CLI::App* app_;
    Session* session_;
    Choices* choices_;
};

// The row whose word (letter case does not matter, '_' is as good as '-') or number is given.
// Otherwise a Failure with code kExitUsage that lists the words; `what` names what they are.
const Word& word_of(std::span<const Word> words, std::string_view what, std::string_view given);

// The whole number that is given, between the limits. A Failure with code kExitUsage for anything
// else.
long long whole_number(std::string_view what, std::string_view given, long long least,
                       long long most);

// The age that is given: a whole number with s, h, d or w behind it for seconds, hours, days or
// weeks. A Failure with code kExitUsage for anything else.
std::chrono::seconds age_of(std::string_view what, std::string_view given);

// What --jobs says; one for each processor if it was not given. A Failure with code kExitUsage.
std::size_t jobs_of(const std::optional<std::string>& given);

// Reads the command line into the session. Returns true if there is a verb to run; false if all was
// said (help, version). Failure with code kExitUsage for what is not in the grammar.
bool read_command_line(int argc, const char* const* argv, Session& session);

}  // namespace Tessaly::tool

#endif
