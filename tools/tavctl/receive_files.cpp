// tavctl recvfile: each file that arrives goes into a directory, under the time of its arrival.
//
// The library names a received file by its temporary path alone: neither its sender nor its name there is
// known. The loop only notes the path and opens the file; a thread moves and reads it, so that no sender
// waits for a disk, and the open descriptor keeps the content should the library remove the file meanwhile.
#include <condition_variable>
#include <ctime>
#include <deque>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "commands.h"
#include "files.h"
#include "module.h"
#include "transfers.h"

namespace tavctl {
namespace {

constexpr int kMostNames = 10'000;

struct Received {
    Descriptor file;
    int open_error = 0;
    std::string temporary, name, time; // name: in the directory, before a number is added
    std::string path, sha256;          // where it is now
    uint64_t size = 0;
    std::string error, remedy; // empty: it was moved
};

std::string free_text(const std::string &directory) {
    struct statvfs info {};
    if (statvfs(directory.c_str(), &info) != 0) return "";
    return bytes_text(static_cast<double>(info.f_bavail) * static_cast<double>(info.f_frsize)) + " free in " +
           harmless(directory);
}

Problem cannot_move(const std::string &what, const std::string &directory) {
    const int error = errno;
    const bool full = error == ENOSPC || error == EDQUOT;
    const std::string remedy =
        full ? "make room: " + free_text(directory) : "may this user write there? Is it mounted read-only?";
    errno = error;
    return system_problem(what + " to " + harmless(directory), remedy);
}

// Gives a file its final name, or one with a number behind it, and never replaces one. Throws; but false
// when the file has to be copied, because it lies in another file system or is gone.
bool give_name(const std::string &from, const std::string &wanted, std::string &path) {
    for (int number = 0; number < kMostNames; ++number) {
        path = number == 0 ? wanted : wanted + "." + std::to_string(number);
        if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) return true;
        if (errno == EINVAL && link(from.c_str(), path.c_str()) == 0) { // a file system without that flag
            unlink(from.c_str());
            return true;
        }
        if (errno == EXDEV || errno == ENOENT) return false;
        if (errno != EEXIST) throw cannot_move("cannot move it", path.substr(0, path.rfind('/')));
    }
    throw Problem(wanted + " and all names with a number behind it are taken", "clear the directory");
}

// A copy under a temporary name, removed unless it gets its own.
class Copy {
  public:
    explicit Copy(const std::string &directory) : path_(directory + "/.recvfile-XXXXXX") {
        file_ = Descriptor(mkostemp(path_.data(), O_CLOEXEC));
        if (!file_) throw cannot_move("cannot copy it", directory);
    }
    ~Copy() {
        if (!named_) unlink(path_.c_str());
    }
    Copy(const Copy &) = delete;
    bool fill(int from) {
        if (copy(from) && fsync(file_.get()) == 0) return true;
        const int error = errno;
        static_cast<void>(ftruncate(file_.get(), 0)); // so that what is told of free room does not count it
        errno = error;
        return false;
    }
    std::string name(const std::string &wanted) {
        std::string path;
        named_ = give_name(path_, wanted, path);
        if (!named_) throw Problem("the copy " + path_ + " is gone");
        return path;
    }

  private:
    bool copy(int from) {
        std::vector<char> buffer(1u << 20);
        for (off_t at = 0;;) {
            const ssize_t got = pread(from, buffer.data(), buffer.size(), at);
            if (got <= 0) return got == 0;
            for (ssize_t put = 0, some; put < got; put += some, at += some) {
                some = write(file_.get(), &buffer[static_cast<size_t>(put)], static_cast<size_t>(got - put));
                if (some < 0) return false;
            }
        }
    }
    std::string path_;
    Descriptor file_;
    bool named_ = false;
};

void store(const std::string &directory, Received &received) {
    const std::string wanted = directory + "/" + received.name;
    if (!received.file) {
        errno = received.open_error;
        throw system_problem("cannot open it", "see ulimit -n");
    }
    if (!give_name(received.temporary, wanted, received.path)) {
        Copy copy(directory);
        if (!copy.fill(received.file.get())) throw cannot_move("cannot copy it", directory);
        received.path = copy.name(wanted);
        unlink(received.temporary.c_str());
        const Descriptor place(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        fsync(place.get());
    }
    Sha256 digest;
    std::vector<char> buffer(1u << 20);
    for (ssize_t got; (got = pread(received.file.get(), buffer.data(), buffer.size(),
                                   static_cast<off_t>(received.size))) != 0;) {
        if (got < 0) throw system_problem("cannot read " + received.path);
        digest.update(buffer.data(), static_cast<size_t>(got));
        received.size += static_cast<uint64_t>(got);
    }
    received.sha256 = digest.hex();
}

// The thread that moves files, one after the other.
class Storer {
  public:
    explicit Storer(std::string directory) : directory_(std::move(directory)), thread_([this] { run(); }) {}
    ~Storer() { finish(); }
    Storer(const Storer &) = delete;
    void put(Received &&received) {
        const std::lock_guard lock(mutex_);
        waiting_.push_back(std::move(received));
        changed_.notify_one();
    }
    std::deque<Received> take_stored() {
        const std::lock_guard lock(mutex_);
        return std::exchange(stored_, {});
    }
    // Waits until all are stored.
    void finish() {
        {
            const std::lock_guard lock(mutex_);
            last_ = true;
            changed_.notify_one();
        }
        if (thread_.joinable()) thread_.join();
    }

  private:
    void run() {
        for (std::unique_lock lock(mutex_);;) {
            changed_.wait(lock, [this] { return last_ || !waiting_.empty(); });
            if (waiting_.empty()) return;
            Received received = std::move(waiting_.front());
            waiting_.pop_front();
            lock.unlock();
            try {
                store(directory_, received);
            } catch (const Problem &problem) {
                received.error = problem.what();
                received.remedy = problem.remedy();
            } catch (const std::exception &error) {
                received.error = error.what();
            }
            received.file = Descriptor();
            lock.lock();
            stored_.push_back(std::move(received));
        }
    }

    const std::string directory_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Received> waiting_, stored_;
    bool last_ = false;
    std::thread thread_; // the last: it uses the others
};

struct Receiver {
    Console &out;
    Storer storer;
    uint64_t arrived = 0, stored = 0, failed = 0;

    void note(const char *path) {
        ++arrived;
        Received received;
        received.file = Descriptor(open(path, O_RDONLY | O_CLOEXEC));
        received.open_error = errno;
        received.temporary = path;
        received.time = clock_text();
        const time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        char name[64];
        strftime(name, sizeof name, "file-%Y%m%d-%H%M%S", &local);
        received.name = name;
        storer.put(std::move(received));
    }
    void tell() {
        for (const Received &file : storer.take_stored()) file.error.empty() ? tell(file) : tell_failed(file);
    }

  private:
    void tell(const Received &file) {
        ++stored;
        Record record;
        record.add("type", "file").add("time", file.time).add("path", harmless(file.path));
        record.add("bytes", file.size).add("sha256", file.sha256);
        out.say(record, file.time + "  " + harmless(file.path) + ", " + grouped(file.size) +
                            " bytes\n  sha256 " + file.sha256);
    }
    void tell_failed(const Received &file) {
        ++failed;
        // The path of a file that has its name already, but could not be read there.
        const bool moved = access(file.temporary.c_str(), F_OK) != 0 && !file.path.empty();
        const std::string &where = moved ? file.path : file.temporary;
        Record record;
        record.add("type", "failed").add("time", file.time).add("path", harmless(where));
        record.add("error", file.error).add("remedy", file.remedy);
        out.say(record, file.time + "  " + harmless(where) + ": " + file.error +
                            (file.remedy.empty() ? "" : "\n  what to do: " + file.remedy) +
                            (moved ? ""
                                   : "\n  It stays in /tmp; while tavctl runs, the library removes it after "
                                     "5 minutes: copy it until then."));
    }
};

int on_file(tav_ipc_st *, const char *path, void *user) {
    static_cast<Receiver *>(user)->note(path);
    return 0;
}

// Throws when nothing could be stored there anyway.
std::string usable_directory(const std::string &given) {
    const std::string name = harmless(given);
    struct stat info {};
    if (stat(given.c_str(), &info) != 0)
        throw system_problem("there is no directory " + name, "make it: mkdir -p " + quoted(name));
    if (!S_ISDIR(info.st_mode)) throw Problem(name + " is no directory");
    for (const std::string &directory : {given, std::string("/tmp")}) { // the library receives in /tmp
        std::string path = directory + "/.recvfile-XXXXXX";
        const Descriptor trial(mkostemp(path.data(), O_CLOEXEC));
        if (!trial) throw cannot_move("cannot write", directory);
        unlink(path.c_str());
        struct statvfs space {};
        if (fstatvfs(trial.get(), &space) == 0 && space.f_blocks > 0 && space.f_bavail == 0)
            throw Problem("no space is left in " + harmless(directory), "make room there");
    }
    return given.size() > 1 && given.ends_with('/') ? given.substr(0, given.size() - 1) : given;
}

std::string files_text(uint64_t count) { return grouped(count) + (count == 1 ? " file" : " files"); }

} // namespace

int receive_files(Console &out, const ReceiveFilesOptions &options) {
    const std::string directory = usable_directory(options.directory);
    catch_interrupts();
    Receiver receiver{out, Storer(directory)};
    {
        const Module module(Module::kReceivingFiles, options.name);
        tav_ipc_file_recv(module, on_file, &receiver);
        out.say(Record().add("type", "ready").add("as", module.text()).add("directory", harmless(directory)),
                "receiving files as " + module.text() + " into " + harmless(directory) + "; Ctrl-C ends it");
        run_until([&] {
            receiver.tell();
            return options.count > 0 && receiver.arrived >= options.count;
        });
        if (!interrupted()) run_until([] { return false; }, 50ms); // the last confirmation leaves
    }
    const unsigned unfinished = drop_unfinished_files();
    receiver.storer.finish();
    receiver.tell();
    Record record;
    record.add("type", "end").add("files", receiver.stored).add("failed", receiver.failed);
    out.say(record.add("unfinished", unfinished),
            files_text(receiver.stored) + " received" +
                (receiver.failed > 0 ? ", " + grouped(receiver.failed) + " not stored" : "") +
                (unfinished > 0 ? ", " + files_text(unfinished) + " unfinished and removed" : ""));
    return receiver.failed > 0 ? kFailure : kSuccess;
}

} // namespace tavctl
