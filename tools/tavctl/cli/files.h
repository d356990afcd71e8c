// Small files, read and replaced whole.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/unique_fd.h"

namespace tavctl {

inline constexpr size_t kMaxFileSize = 10'485'760; // bytes: what the library reads of a list or a signature

// Throw Problem, also when the file is longer than limit bytes. read_regular_file refuses a pipe or device in
// the place of a configuration file instead of waiting for it.
std::string read_file(const std::string &path, size_t limit = kMaxFileSize);
std::string read_regular_file(const std::string &path, size_t limit = kMaxFileSize);
std::string read_descriptor(int fd, const std::string &name, size_t limit);
tavipc::UniqueFd open_regular_file(const std::string &path);

// The paths in a directory, in no order; none of one that cannot be read.
std::vector<std::filesystem::path> files_in(const std::string &directory);

// A new file that replaces path in one step: a reader sees the old file or the whole new one. The old file's
// mode and owner are kept; mode is for a file that did not exist.
class NewFile {
  public:
    NewFile(const std::string &path, std::string_view content, unsigned mode = 0644);
    void put();

  private:
    struct Temporary {
        explicit Temporary(std::string name) : path(std::move(name)) {}
        ~Temporary(); // removes it, if put has not renamed it
        Temporary(const Temporary &) = delete;
        const std::string path;
    };
    const std::string path_;
    const Temporary temporary_;
};
void write_file(const std::string &path, std::string_view content, unsigned mode = 0644);

} // namespace tavctl
