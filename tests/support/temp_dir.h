// A directory of a test's own, removed with all that is in it.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

class TempDir {
  public:
    explicit TempDir(std::string path = std::filesystem::temp_directory_path() / "tavipc-XXXXXX")
        : path_(std::move(path)) {
        if (!mkdtemp(path_.data())) throw std::system_error(errno, std::generic_category(), path_);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    ~TempDir() { std::filesystem::remove_all(path_); }

    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }
    std::string write(std::string_view name, std::string_view text) const {
        std::ofstream(*this / name, std::ios::binary) << text;
        return *this / name;
    }

  private:
    std::string path_;
};
