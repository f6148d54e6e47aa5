// A conversation over LMTP, whole and in pieces.
#include "fuzz/fuzz.h"
#include "tools/lmtp/conversation.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const auto length = static_cast<std::size_t>(std::clamp<long long>(input.number(), 1, 4096));
    const std::string bytes = input.rest();
    const std::string model = shown(conversation::literal(bytes));
    fuzz::expect_equal(shown(conversation::played(bytes)), model, "whole");
    fuzz::expect_equal(shown(conversation::played_in_pieces(bytes, length)), model, "in pieces");
    return 0;
}
