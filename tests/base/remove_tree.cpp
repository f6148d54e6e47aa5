// remove_tree DIR - empties a directory; remove_tree -r NAME - removes a file, link or tree. Prints
// the result.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "base/fd.h"
#include "base/io.h"
#include "base/tree.h"

using namespace Tessaly::base;

namespace {

int say(int answer) { return write_all(STDOUT_FILENO, std::to_string(answer) + '\n') ? 0 : 74; }

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "-r") == 0) return say(remove_tree_at(AT_FDCWD, argv[2]));
    if (argc != 2) return 64;
    const Fd dir(retry([&] { return ::open(argv[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    return dir ? say(empty_directory(dir.get())) : 66;
}
