// What the linker puts in place of the C library for the tests of this folder, and a fresh root for each case.
#pragma once

#include <gtest/gtest.h>

#include <string>

extern std::string log_socket_path;    // where a connect to /dev/log goes
extern std::string rename_refused;     // renaming this path fails; empty: none

/* The wall clock stands at 2024-02-29 23:59:58.007654 UTC, and UTC is local time. */
class log_fixture : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string content(const std::string &path);
    std::string root;
};
