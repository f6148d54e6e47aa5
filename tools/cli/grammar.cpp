#include "tools/cli/grammar.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <utility>

#include "tools/cli/word_mark.h"

namespace Tessaly::tool {

namespace {

using std::string;

// Whether the words ask for many mailboxes.
bool asks_for_many(std::span<const string> words) {
    for (const string& word : words) {
        if (word == "--") return false;
        if (word == "--all" || word == "--domain" || word.starts_with("--domain=")) return true;
    }
    return false;
}

// An address where the next argument is expected. A setting may contain one.
string against_address(const string& word) {
    const bool is_address = word.find('@') != string::npos && word.find('=') == string::npos;
    return is_address ? "give an address, or --all, or --domain" : "";
}

// Without the address the first word is the next argument. If there is none, the address stays, as
// the verb says best that it is one word too many.
void leave_out(CLI::Option& address, CLI::App& app) {
    for (CLI::Option* option : app.get_options()) {
        if (option == &address || !option->get_positional()) continue;
        option->check(against_address);
        app.remove_option(&address);
        return;
    }
}

}  // namespace

Verb& Verb::text(const string& name, string& value, const string& help) {
    last_ = app_->add_option(name, value, help)->transform(unmarked);
    return *this;
}

Verb& Verb::text(const string& name, std::optional<string>& value, const string& help) {
    const auto take = [&value](const string& given) { value = given; };
    last_ = app_->add_option_function<string>(name, take, help)->transform(unmarked);
    return *this;
}

Verb& Verb::texts(const string& name, std::vector<string>& values, const string& help) {
    last_ = app_->add_option(name, values, help)->transform(unmarked);
    return *this;
}

Verb& Verb::repeated(const string& name, std::vector<string>& values, const string& help) {
    texts(name, values, help);
    last_->allow_extra_args(false);
    return *this;
}

Verb& Verb::flag(const string& name, bool& value, const string& help) {
    last_ = app_->add_flag(name, value, help);
    return *this;
}

Verb& Verb::one_of(std::span<const Word> words) {
    std::vector<string> texts;
    for (const Word& word : words) texts.emplace_back(word.word);
    return one_of(std::move(texts));
}

Verb& Verb::one_of(std::vector<string> words) {
    context_->choices[last_] = std::move(words);
    return *this;
}

Verb& Verb::required() {
    last_->required();
    return *this;
}

Verb& Verb::address(string& value) {
    return text("ADDRESS", value, "The mailbox, as ann@site.test").required();
}

Verb& Verb::address(std::optional<string>& value) {
    return text("ADDRESS", value, "The mailbox, as ann@site.test");
}

Verb& Verb::choice(Choice& choice) {
    address(choice.address);
    const auto leave_out_address = [app = app_, address = last_,
                                    words = context_->words](std::size_t left) {
        if (asks_for_many(words.last(left))) leave_out(*address, *app);
    };
    app_->preparse_callback(leave_out_address);
    return flag("--all", choice.all, "All mailboxes")
        .text("--domain", choice.domain, "All mailboxes of this domain");
}

Verb& Verb::jobs(std::optional<string>& value) {
    return text("--jobs", value,
                "How many mailboxes at a time, up to 64 (default: one for each processor)");
}

VerbGroup VerbGroup::group(const string& name, const string& help) const {
    if (!declares(name)) return {nullptr, *context_};
    CLI::App* app = app_->add_subcommand(name, help);
    app->require_subcommand(1);
    return {app, *context_};
}

bool VerbGroup::declares(const string& name) const {
    const auto* names = context_->names;
    return app_ != nullptr && (names == nullptr || std::ranges::find(*names, name) != names->end());
}

Verb VerbGroup::add_to_app(const string& name, const string& help,
                           std::function<int()> work) const {
    CLI::App* app = app_->add_subcommand(name, help);
    app->callback([session = &context_->session, work = std::move(work)] { session->verb = work; });
    return {*app, *context_};
}

int run_reader(const std::function<int()>& work) {
    try {
        const int code = work();
        return code == kExitCannotCreate ? kExitNoInput : code;
    } catch (const Failure& failure) {
        if (failure.code() != kExitCannotCreate) throw;
        throw Failure(kExitNoInput, failure.what(), failure.error(), failure.status());
    }
}

}  // namespace Tessaly::tool
