#include <gtest/gtest.h>

#include "testing/files.h"

extern "C" int list_face_from_c(void);

TEST(ListFace, ServesACProgram) {
    testing_files::make_dirs("/var/spool/etc/mail");
    EXPECT_EQ(list_face_from_c(), 0);
}
