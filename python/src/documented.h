// documented - docstrings from the comments of the library's headers.
#ifndef TSMAIL_PYTHON_DOCUMENTED_H
#define TSMAIL_PYTHON_DOCUMENTED_H

#include <initializer_list>
#include <string>
#include <string_view>

namespace tsmail_python {

#include "header_comments.inc"

// A name of the library. One that the headers do not have does not compile.
struct CName {
    const Comment* comment = nullptr;
    consteval CName(const char* name) {
        for (const Comment& each : kComments) {
            if (each.name == name) comment = &each;
        }
        if (comment == nullptr) throw "the headers do not declare this name";
    }
};

// One sentence for Python, then for each name "From NAME:" and the header's comment.
inline std::string documented(const char* summary, std::initializer_list<CName> names) {
    std::string text = summary;
    for (const CName& name : names) {
        text.append("\n\nFrom ")
            .append(name.comment->name)
            .append(":\n\n")
            .append(name.comment->text);
    }
    return text;
}

}  // namespace tsmail_python

#endif
