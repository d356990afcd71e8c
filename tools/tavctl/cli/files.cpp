#include <climits>

#include "cli/cli.h"
#include "common/regular_file.h"

namespace tavctl {
namespace {

constexpr int kMostLinks = 40; // that lead to one file: as many as the kernel follows

void write_all(int fd, std::string_view content, const std::string &path) {
    while (!content.empty()) {
        const ssize_t n = ::write(fd, content.data(), content.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw system_problem("cannot write " + path);
        content.remove_prefix(static_cast<size_t>(n));
    }
}

// The file that links lead to: the links stay, the file is replaced. The owner of the directory may have made
// a link to any file, so only links of root and of this user are followed.
std::string real_path(std::string path) {
    for (int links = 0; links < kMostLinks; ++links) {
        const UniqueFd link(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat status {};
        if (!link || ::fstat(link.get(), &status) != 0 || !S_ISLNK(status.st_mode)) return path;
        if (status.st_uid != 0 && status.st_uid != ::geteuid())
            throw Problem(path + " is a link of another user, to a file that would be replaced",
                          "give the path of the file itself, or make the link anew");
        char target[PATH_MAX];
        const ssize_t size = ::readlinkat(link.get(), "", target, sizeof target);
        if (size <= 0) throw system_problem("cannot read the link " + path);
        path = fs::path(path).parent_path() / std::string_view(target, static_cast<size_t>(size));
    }
    throw Problem(path + ": too many links lead there");
}

} // namespace

std::string read_descriptor(int fd, const std::string &name, size_t limit) {
    std::string content;
    char chunk[65536];
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw system_problem("cannot read " + name);
        if (n == 0) return content;
        content.append(chunk, static_cast<size_t>(n));
        if (content.size() > limit)
            throw Problem(name + " is larger than " + std::to_string(limit) + " bytes");
    }
}

std::string read_file(const std::string &path, size_t limit) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) throw system_problem("cannot open " + path);
    return read_descriptor(file.get(), path, limit);
}

UniqueFd open_regular_file(const std::string &path) {
    UniqueFd file = tavipc::open_regular(path.c_str(), O_RDONLY);
    if (!file && (errno == EISDIR || errno == EINVAL))
        throw Problem(path + " is not a regular file", "give a regular file, or move it away");
    if (!file) throw system_problem("cannot open " + path);
    return file;
}

std::string read_regular_file(const std::string &path, size_t limit) {
    return read_descriptor(open_regular_file(path).get(), path, limit);
}

std::vector<fs::path> files_in(const std::string &directory) {
    std::vector<fs::path> paths;
    std::error_code error;
    for (auto entry = fs::directory_iterator(directory, error); !error && entry != fs::directory_iterator();
         entry.increment(error))
        paths.push_back(entry->path());
    return paths;
}

NewFile::NewFile(const std::string &path)
    : path_(real_path(path)), temporary_(path_ + ".tmp" + std::to_string(::getpid())) {
    ::unlink(temporary_.c_str()); // of a killed process with the same id
}
NewFile::~NewFile() { ::unlink(temporary_.c_str()); }

NewFile::NewFile(const std::string &path, std::string_view content, unsigned mode) : NewFile(path) {
    const UniqueFd file(::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file) throw system_problem("cannot create " + temporary_, "may this user write there?");
    struct stat before {};
    if (::stat(path_.c_str(), &before) == 0) {
        static_cast<void>(open_regular_file(path_)); // throws for other kinds
        mode = before.st_mode & 0777;
        if (::fchown(file.get(), before.st_uid, before.st_gid) != 0) errno = 0; // this user owns it then
    }
    if (::fchmod(file.get(), mode) != 0) throw system_problem("cannot set the mode of " + temporary_);
    write_all(file.get(), content, temporary_);
    if (::fsync(file.get()) != 0) throw system_problem("cannot write " + temporary_);
}

void NewFile::put() {
    if (::rename(temporary_.c_str(), path_.c_str()) != 0) throw system_problem("cannot replace " + path_);
}

} // namespace tavctl
