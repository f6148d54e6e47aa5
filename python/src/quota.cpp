#include <pybind11/stl.h>
#include <tessaly/mailstore.h>

#include <optional>

#include "binding.h"

namespace tsmail_python {

namespace {

void add_flags(py::module_& module) {
    const auto getter = [&](const char* name, const char* summary, CName from, auto call) {
        module.def(
            name,
            [call](const Text& user) { return without_gil([&] { return call(user.c_str()); }); },
            documented(summary, {from}).c_str(), "user"_a);
    };
    const auto setter = [&](const char* name, const char* summary, CName from, auto call) {
        module.def(
            name,
            [call](const Text& user, int value) {
                without_gil([&] { call(user.c_str(), value); });
            },
            documented(summary, {from}).c_str(), "user"_a, "value"_a);
    };
    getter("quota_exceeded", "The value of the exceeded flag.", "tsl_get_quota_exceeded",
           tsl_get_quota_exceeded);
    getter("quota_warning", "The value of the warning flag.", "tsl_get_quota_warning",
           tsl_get_quota_warning);
    getter("archive_exceeded", "1 if the archive account's flag is set.",
           "tsl_get_arch_quota_exceeded", tsl_get_arch_quota_exceeded);
    setter("set_quota_exceeded", "Sets the exceeded flag.", "tsl_set_quota_exceeded",
           tsl_set_quota_exceeded);
    setter("set_quota_warning", "Sets the warning flag.", "tsl_set_quota_warning",
           tsl_set_quota_warning);
    getter("set_archive_exceeded", "Sets the archive account's flag.",
           "tsl_set_arch_quota_exceeded", tsl_set_arch_quota_exceeded);
    getter("unset_archive_exceeded", "Removes the archive account's flag.",
           "tsl_unset_arch_quota_exceeded", tsl_unset_arch_quota_exceeded);
}

using OptionalText = std::optional<Text>;

const char* or_null(const OptionalText& text) { return text ? text->c_str() : nullptr; }

// The wait status; -1 is a failure.
int send_notice(const OptionalText& from, const OptionalText& to, const OptionalText& subject,
                const OptionalText& body) {
    const auto sent = outcome_of([&] {
        return tsl_send_quota_msg(or_null(from), or_null(to), or_null(subject), or_null(body));
    });
    if (sent.result == -1) throw_os_error(sent.error, Text{"/bin/sendmail"}, ECHILD);
    return sent.result;
}

}  // namespace

void add_quota(py::module_& module) {
    add_flags(module);
    module.def("send_quota_notice", send_notice,
               documented("Mails a quota notice; the wait status of the submission program.",
                          {"tsl_send_quota_msg"})
                   .c_str(),
               "from_"_a = py::none(), "to"_a = py::none(), "subject"_a = py::none(),
               "body"_a = py::none());
    module.def(
        "archive_gibibytes_left",
        [](const OptionalText& exclude) {
            return without_gil([&] { return tsm_archive_avail_quota(or_null(exclude)); });
        },
        documented("The gibibytes that may still be given to archive accounts.",
                   {"tsm_archive_avail_quota"})
            .c_str(),
        "exclude"_a = py::none());
}

}  // namespace tsmail_python
