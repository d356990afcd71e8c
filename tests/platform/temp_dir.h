// A directory of a test's own, removed with all that is in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

class TempDir {
  public:
    TempDir() {
        if (!mkdtemp(path_.data())) abort();
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
    std::string path_ = (std::filesystem::temp_directory_path() / "tavipc-XXXXXX").string();
};
