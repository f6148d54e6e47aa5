// The first line of mbox files.
#include <tessaly/mailstore.h>

#include "fuzz/fuzz.h"
#include "maildir/literal.h"
#include "testing/files.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = fuzz::kDirectory + std::string("/mbox");
    const std::string content = fuzz::Input(data, size).rest();
    testing_files::write(path, content);
    const int model = content.empty() ? 0 : literal::MboxLine(content).check();
    fuzz::expect_equal(tsl_is_mbox(path.c_str()), model, "separator line");
    return 0;
}
