#include "tools/cli/failure.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace Tessaly::tool;

TEST(ExitCodes, ByError) {
    const struct {
        int error, code;
    } rows[] = {{ENOSPC, 75}, {EDQUOT, 75}, {EFBIG, 75},   {ENOMEM, 75},       {EMFILE, 75},
                {ENFILE, 75}, {ENOLCK, 75}, {EAGAIN, 75},  {EINTR, 75},        {EEXIST, 75},
                {ENOENT, 75}, {ESTALE, 75}, {EACCES, 73},  {EPERM, 73},        {EROFS, 73},
                {ELOOP, 73},  {EXDEV, 73},  {ENOTDIR, 73}, {ENAMETOOLONG, 73}, {EINVAL, 73},
                {EIO, 74},    {ENXIO, 74},  {0, 74}};
    for (const auto& [error, code] : rows) EXPECT_EQ(exit_code_of(error), code) << error;
    const Failure failure = system_failure("a file", EACCES);
    EXPECT_STREQ(failure.what(), "a file: Permission denied");
    EXPECT_EQ(failure.code(), 73);
}
