// Throws the exception of the support library and prints its parts.
#include <tessaly/Exception.h>

#include <iostream>

int main() {
    try {
        throw Tessaly::Exception("nothing there", 4, "example", __LINE__);
    } catch (const Tessaly::Exception& e) {
        std::cout << e.file() << ':' << e.line() << ": " << e.what() << ", code " << e.code()
                  << '\n';
        return e.message() == e.what() ? 0 : 1;
    }
}
