// check-name - says whether a folder's name is valid.
#include <fmt/format.h>
#include <tessaly/mailstore.h>
#include <nlohmann/json.hpp>

#include "tools/cli/text.h"
#include "tools/verbs/verbs.h"

namespace Tessaly::tool {

namespace {

using std::string;

struct NameArguments {
    string name;
    bool path = false;
    bool reserved = false;
};

constexpr unsigned kIsPath = 1, kNoReserved = 2;
constexpr int kIsReserved = 2;

// Why a component is malformed, or "".
string against_component(const string& component) {
    if (component.empty()) return "a name is empty";
    if (component.front() == '.') return "a name begins with '.'";
    const auto at = component.find_first_of("/\\?*:\"<>|");
    return at == string::npos ? "" : fmt::format("a name holds a '{}'", component[at]);
}

string why_malformed(const string& name, bool is_path) {
    for (std::size_t begin = 0, end = 0; end != string::npos; begin = end + 1) {
        end = is_path ? name.find('/', begin) : string::npos;
        string reason = against_component(name.substr(begin, end - begin));
        if (!reason.empty()) return reason;
    }
    return "it is malformed";
}

string reason_of(int answer, const NameArguments& arguments) {
    if (answer == 0) return "";
    if (answer == kIsReserved) return "\"new\", \"cur\" and \"tmp\" are parts of a folder";
    return why_malformed(arguments.name, arguments.path);
}

int run_check_name(Session& session, const NameArguments& arguments) {
    const unsigned flags = (arguments.path ? kIsPath : 0) | (arguments.reserved ? kNoReserved : 0);
    const int answer = tsl_is_valid_mailbox_name(arguments.name.c_str(), flags);
    const string reason = reason_of(answer, arguments);
    if (session.json) {
        session.out.object(
            Json{{"name", arguments.name}, {"valid", answer == 0}, {"reason", reason}});
    } else {
        session.out.line(printable(arguments.name) +
                         (answer == 0 ? ": valid" : ": not valid, " + reason));
    }
    return answer == 0 ? kExitOk : kExitData;
}

void declare_check_name(Verb& verb, NameArguments& arguments) {
    verb.text("NAME", arguments.name, "The name to check").required();
    verb.flag("--path", arguments.path, "Names separated by '/' are allowed, as Work/2024")
        .flag("--reserved", arguments.reserved, "Refuse new, cur and tmp");
}

}  // namespace

void add_check_name_verb(const VerbGroup& top) {
    top.verb("check-name", "Say whether a folder may be named so", declare_check_name,
             run_check_name);
}

}  // namespace Tessaly::tool
