// tavctl recvfile: moves each file that arrives into a directory, under the name that its sender gave it. One
// without a name, and one whose name would hide it, is named after the time of its arrival.
#include <deque>
#include <future>

#include "agent/agent.h"
#include "commands.h"
#include "module/module.h"
#include "tavipc/tav_ipc_file_ext.h"

namespace tavctl {
namespace {

constexpr int kMostNames = 10'000; // with a number after them, for files of one second

struct Received {
    std::string temporary;  // path that the library gave it
    std::string from, name; // of the sender; name: empty when it gave none
    Stamp time;
    std::string path; // where it is now; empty: still at the temporary path
    FileDigest digest;
    std::string error, remedy; // empty: it was stored
};

Problem cannot_move(const std::string &what, const std::string &directory) {
    const bool full = errno == ENOSPC || errno == EDQUOT;
    return system_problem(what + " to " + harmless(directory),
                          full ? "make room there" : "may this user write there? Is it mounted read-only?");
}

// Gives a file the wanted name, or the first free one with a number after it, and returns its path; empty
// when the file must be copied, because it lies in another file system or is gone. Throws Problem.
std::string give_name(const std::string &from, const std::string &wanted) {
    for (int number = 0; number < kMostNames; ++number) {
        std::string path = number == 0 ? wanted : wanted + "." + std::to_string(number);
        if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) return path;
        if (errno == EINVAL && link(from.c_str(), path.c_str()) == 0) { // a file system without that flag
            unlink(from.c_str());
            return path;
        }
        if (errno == EXDEV || errno == ENOENT) return {};
        if (errno != EEXIST) throw cannot_move("cannot move it", wanted.substr(0, wanted.rfind('/')));
    }
    throw Problem(wanted + " and all names with a number after it are taken", "clear the directory");
}

// Copies the file into another file system, under a temporary name first.
std::string copy(const std::string &from, const std::string &directory, const std::string &wanted) {
    std::string temporary = directory + "/.recvfile-XXXXXX";
    const UniqueFd target(mkostemp(temporary.data(), O_CLOEXEC));
    const struct Remover { // of what has not got its own name
        const std::string &path;
        ~Remover() { unlink(path.c_str()); }
    } remover{temporary};
    std::error_code error;
    if (target) fs::copy_file(from, temporary, fs::copy_options::overwrite_existing, error);
    if (error) errno = error.value();
    if (!target || error || fsync(target.get()) != 0) throw cannot_move("cannot copy it", directory);
    std::string path = give_name(temporary, wanted);
    if (path.empty()) throw Problem("the copy " + temporary + " is gone");
    unlink(from.c_str());
    const UniqueFd place(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fsync(place.get());
    return path;
}

Received store(const std::string &directory, Received received) {
    try {
        const bool named = !received.name.empty() && received.name[0] != '.';
        const std::string wanted =
            directory + "/" + (named ? received.name : received.time.format("file-%Y%m%d-%H%M%S"));
        received.path = give_name(received.temporary, wanted);
        if (received.path.empty()) received.path = copy(received.temporary, directory, wanted);
        const UniqueFd file(open(received.path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file) throw system_problem("cannot open it", "see ulimit -n");
        received.digest = digest_of(file.get());
        errno = received.digest.error;
        if (errno != 0) throw system_problem("cannot read it");
    } catch (const Problem &problem) {
        received.error = problem.what();
        received.remedy = problem.remedy();
    } catch (const std::exception &error) {
        received.error = error.what();
    }
    return received;
}

// A thread of its own stores each file, so that no sender waits for a disk.
class Receiver {
  public:
    Receiver(Console &out, std::string directory) : out_(out), directory_(std::move(directory)) {}
    uint64_t arrived = 0, stored = 0, failed = 0;

    static void on_file(tav_ipc_st *, const tav_ipc_file_st *file, void *user) {
        auto &self = *static_cast<Receiver *>(user);
        ++self.arrived;
        Received received{file->path, address_text(file->src), file->name, Stamp(), {}, {}, {}, {}};
        self.storing_.push_back(std::async(store, self.directory_, std::move(received)));
    }
    // Reports the files that are stored. With all: waits for the others.
    void report(bool all) {
        for (; !storing_.empty(); storing_.pop_front()) {
            if (!all && storing_.front().wait_for(std::chrono::seconds(0)) == std::future_status::timeout)
                return;
            const Received file = storing_.front().get();
            file.error.empty() ? say(file) : say_failed(file);
        }
    }

  private:
    void say(const Received &file) {
        ++stored;
        Record record("type", "file", "time", file.time, "path", file.path, "from", file.from);
        record.add("name", file.name, "bytes", file.digest.size, "sha256", file.digest.sha256);
        out_.say(record, "{time}  {path}, {bytes,} bytes from {from}\n  sha256 {sha256}");
    }
    void say_failed(const Received &file) {
        ++failed;
        constexpr char kStays[] =
            "\n  It stays in /tmp; a running tavctl removes it after 5 minutes: copy it before.";
        Record record("type", "failed", "time", file.time, "path",
                      file.path.empty() ? file.temporary : file.path);
        out_.say(record.add("error", file.error, "remedy", file.remedy), "{time}  {path}: {error}",
                 (file.remedy.empty() ? "" : "\n  what to do: " + file.remedy) +
                     (file.path.empty() ? kStays : ""));
    }
    Console &out_;
    const std::string directory_;
    std::deque<std::future<Received>> storing_; // in the order of arrival
};

// Throws Problem when no file could be stored there.
std::string usable_directory(const std::string &given) {
    const std::string name = harmless(given);
    struct stat info {};
    if (stat(given.c_str(), &info) != 0)
        throw system_problem("there is no directory " + name, "make it: mkdir -p " + quoted(name));
    if (!S_ISDIR(info.st_mode)) throw Problem(name + " is not a directory");
    for (const std::string &directory : {given, std::string("/tmp")}) { // the library receives in /tmp
        std::string path = directory + "/.recvfile-XXXXXX";
        const UniqueFd trial(mkostemp(path.data(), O_CLOEXEC));
        if (!trial) throw cannot_move("cannot write", directory);
        unlink(path.c_str());
        std::error_code error;
        if (const fs::space_info space = fs::space(directory, error);
            space.capacity > 0 && space.available == 0)
            throw Problem("no space is left in " + harmless(directory), "make room there");
    }
    return given.size() > 1 && given.ends_with('/') ? given.substr(0, given.size() - 1) : given;
}

} // namespace

int receive_files(Console &out, const Args &args) {
    const std::string directory = usable_directory(args.text("DIR"));
    catch_interrupts();
    Receiver receiver(out, directory);
    {
        const Module module(args.text("as"), true);
        tav_ipc_on_file(module, Receiver::on_file, nullptr, &receiver);
        out.say(Record("type", "ready", "as", module.text(), "directory", directory),
                "receiving files as {as} into {directory}; Ctrl-C ends it");
        run_until([&] {
            receiver.report(false);
            return args.count_reached(receiver.arrived);
        });
        tav_ipc_flush(module, kLastFlush_ms, nullptr);
    }
    const unsigned unfinished = tav_ipc_file_drop_unfinished();
    receiver.report(true);
    Record record("type", "end", "files", receiver.stored, "failed", receiver.failed);
    record.add("unfinished", unfinished);
    out.say(record, "{files,file} received",
            (receiver.failed > 0 ? record.fill(", {failed,} not stored") : "") +
                (unfinished > 0 ? record.fill(", {unfinished,file} unfinished and removed") : ""));
    return receiver.failed > 0 ? kFailure : kSuccess;
}

} // namespace tavctl
