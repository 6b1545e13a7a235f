// A scratch root for a configuration, and what is logged about it.
#pragma once

#include "platform/log/log.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

class conf_fixture : public testing::Test {
protected:
    void SetUp() override
    {
        char name[] = "/tmp/keld-conf-XXXXXX";
        root = mkdtemp(name);
        setenv("KELD_ROOT", root.c_str(), 1);
        std::filesystem::create_directories(root + "/var/etc");
        log.clear();
        logging_register_logfunc(capture);
        logging_set_mode(LOGGING_MODE_DAEMON);
    }
    void TearDown() override
    {
        logging_register_logfunc(nullptr);
        unsetenv("KELD_ROOT");
        std::filesystem::remove_all(root);
    }
    void write(const std::string &path, const std::string &text) { std::ofstream(root + path) << text; }
    std::string content(const std::string &path)
    {
        std::ifstream file(root + path);
        return { std::istreambuf_iterator<char>(file), {} };
    }
    void commit(const std::string &text) { write("/var/etc/keld.conf", text); }

    std::string root;
    static inline std::string log;   // lines at severity 3, each with its line end

private:
    [[gnu::format(printf, 4, 0)]] static void capture(int severity, const char *, const char *const *,
                                                      const char *format, va_list args)
    {
        char line[4096];
        vsnprintf(line, sizeof line, format, args);
        log += (severity == 3 ? "" : std::to_string(severity) + ": ") + line + "\n";
    }
};
