// Scratch directories and file reading for the log file tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/process.h"

namespace tolven_test {

// A fresh directory named after the running test and the process; removed at the end.
struct ScratchDir {
    std::filesystem::path path;
    ScratchDir() {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        path = std::filesystem::temp_directory_path() /
               ("tolven_" + std::string(info->test_suite_name()) + "_" + info->name() + "_" +
                std::to_string(TOLVEN::platform::CurrentProcessId()));
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string operator/(const std::string& name) const { return (path / name).string(); }
    std::string str() const { return path.string(); }
};

// The whole file, byte for byte; empty when it cannot be read.
inline std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The lines of `text` without their CRLF; a last piece without CRLF is left out.
inline std::vector<std::string> CrlfLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t at = 0;
    for (size_t end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

}  // namespace tolven_test
