// How verbs declare their arguments: one grammar for all of them.
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
#include "tools/cli/values.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace Tessaly::tool {

// The words that an argument may be, if only a few are allowed: for completion and documents.
using Choices = std::map<const CLI::Option*, std::vector<std::string>>;

// The mailboxes that a command line asks for.
struct Choice {
    std::optional<std::string> address;
    bool all = false;
    std::optional<std::string> domain;
};

struct GrammarContext;

// Declares a verb's arguments: "--name" for an option, a word for a positional argument. Values are
// not interpreted. The variables must live as long as the verb can run.
class Verb {
  public:
    Verb(CLI::App& app, GrammarContext& context) : app_(&app), context_(&context) {}

    Verb& text(const std::string& name, std::string& value, const std::string& help);
    Verb& text(const std::string& name, std::optional<std::string>& value, const std::string& help);
    Verb& texts(const std::string& name, std::vector<std::string>& values, const std::string& help);
    // An option that may be given several times, with one value each time.
    Verb& repeated(const std::string& name, std::vector<std::string>& values,
                   const std::string& help);
    Verb& flag(const std::string& name, bool& value, const std::string& help);
    // Makes the argument declared last mandatory.
    Verb& required();
    // Lists the words that the argument declared last may be. The verb itself checks the value.
    Verb& one_of(std::span<const Word> words);
    Verb& one_of(std::vector<std::string> words);
    // Declares the address of the mailbox to work on, which nearly every verb takes.
    Verb& address(std::string& value);
    Verb& address(std::optional<std::string>& value);
    // Declares an address, or all mailboxes, or those of a domain. If the command line asks for
    // many mailboxes, the first word is the next argument and not an address.
    Verb& choice(Choice& choice);
    // Declares how many mailboxes are worked on at a time.
    Verb& jobs(std::optional<std::string>& value);

  private:
    CLI::App* app_;
    GrammarContext* context_;
    CLI::Option* last_ = nullptr;
};

// What the parts of a grammar share.
struct GrammarContext {
    Session& session;
    std::span<const std::string> words;  // the command line, without the command itself
    Choices choices = {};
    // Only verbs with one of these names are declared; null: all. The words of the command line are
    // enough to run it, and to declare the other verbs takes longer than many a verb's work.
    const std::vector<std::string>* names = nullptr;
};

// A place to add verbs to: the command itself, or a verb that has verbs of its own.
class VerbGroup {
  public:
    // `app` is null for a group that is not declared itself.
    VerbGroup(CLI::App* app, GrammarContext& context) : app_(app), context_(&context) {}

    VerbGroup group(const std::string& name, const std::string& help) const;

    template <class Arguments>
    using Declare = void (*)(Verb& verb, Arguments& arguments);
    template <class Arguments>
    using Run = int (*)(Session& session, const Arguments& arguments);

    // Adds a verb with arguments of its own: declare(verb, arguments) declares them, run(session,
    // arguments) does the work and returns the exit code.
    template <class Arguments>
    void verb(const std::string& name, const std::string& help, Declare<Arguments> declare,
              Run<Arguments> run) const {
        add(name, help, declare, run);
    }

    // The same for a verb that only reads the store, see run_reader().
    template <class Arguments>
    void reader(const std::string& name, const std::string& help, Declare<Arguments> declare,
                Run<Arguments> run) const {
        add(name, help, declare, [run](Session& session, const Arguments& arguments) {
            return run_reader([&] { return run(session, arguments); });
        });
    }

  private:
    template <class Arguments, class Work>
    void add(const std::string& name, const std::string& help, Declare<Arguments> declare,
             Work work) const {
        if (!declares(name)) return;
        const auto arguments = std::make_shared<Arguments>();
        Session* session = &context_->session;
        Verb verb = add_to_app(name, help, [=] { return work(*session, *arguments); });
        declare(verb, *arguments);
    }
    bool declares(const std::string& name) const;
    Verb add_to_app(const std::string& name, const std::string& help,
                    std::function<int()> work) const;

    CLI::App* app_;
    GrammarContext* context_;
};

// Runs work that only reads. Where it could not, the exit code is kExitNoInput and not
// kExitCannotCreate.
int run_reader(const std::function<int()>& work);

}  // namespace Tessaly::tool

#endif
