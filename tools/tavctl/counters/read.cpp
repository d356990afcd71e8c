#include <cstddef>
#include <fstream>
#include <sstream>
#include <tuple>

#include <csignal>

#include "common/regular_file.h"
#include "counters/counters.h"
#include "module/module.h"

namespace tavctl {
namespace {

constexpr size_t kNumbers = offsetof(tav_ipc_stats_record_st, values); // bytes of a record before its values
constexpr size_t kLargestRecord = 65'536, kLargestFile = 64u << 20; // bytes: far beyond what a library makes
constexpr uint32_t kMostRecords = 4096; // a library makes 512; each takes some 600 bytes of memory here
constexpr int kTries = 4;               // to read a record that is taken or freed meanwhile

// A process id may be given again, so the start time must agree, too.
ProcessState state_of(pid_t process, uint64_t started) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    if (!std::getline(file, line))
        return kill(process, 0) == 0 || errno == EPERM ? ProcessState::kHidden : ProcessState::kEnded;
    std::istringstream fields(line.substr(std::min(line.rfind(')'), line.size() - 1) + 1));
    std::string state, field; // fields 3 and 22
    fields >> state;
    for (int i = 4; i <= 22; ++i) fields >> field;
    if (field != std::to_string(started) || state == "Z" || state == "X") return ProcessState::kEnded;
    return state == "T" || state == "t" ? ProcessState::kStopped : ProcessState::kRunning;
}

// Reads up to size bytes, fewer at the end of the file.
std::string read_at(int fd, size_t size, uint64_t offset) {
    std::string bytes(size, '\0');
    size_t got = 0;
    while (got < size) {
        const ssize_t n = pread(fd, &bytes[got], size - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    bytes.resize(got);
    return bytes;
}

// One counter file while it is read.
class Reader {
  public:
    Reader(int fd, CounterFile &file) : fd_(fd), file_(file) {}
    void read() {
        if (file_.error = check_header(); !file_.error.empty()) return;
        file_.state = state_of(file_.process, header_.started);
        file_.hidden = header_.hidden;
        read_records();
        std::error_code ended;
        if (file_.state == ProcessState::kRunning || file_.state == ProcessState::kStopped)
            file_.executable =
                one_line(fs::read_symlink("/proc/" + std::to_string(file_.process) + "/exe", ended)
                             .filename()
                             .native());
    }

  private:
    // Returns what is wrong.
    std::string check_header() {
        const std::string bytes = read_at(fd_, sizeof header_, 0);
        if (bytes.size() < sizeof header_) return "too short for counters";
        std::memcpy(&header_, bytes.data(), sizeof header_);
        if (header_.magic[0] == '\0') return "not complete yet";
        if (std::memcmp(header_.magic, "TAVSTAT", sizeof header_.magic) != 0) return "not a file of counters";
        if (header_.version != 1) return "its layout has version " + std::to_string(header_.version);
        if (header_.pid != static_cast<uint32_t>(file_.process))
            return "of another process than its name says";
        if (header_.header_size < sizeof header_ || header_.record_size < kNumbers ||
            header_.record_size % 8 != 0 || header_.record_size > kLargestRecord ||
            header_.record_count > kMostRecords)
            return "its header is damaged";
        return {};
    }

    void read_records() {
        const size_t size = header_.record_size;
        struct stat info {};
        fstat(fd_, &info); // the header may claim more records than the file has
        const size_t there = std::min(static_cast<size_t>(info.st_size), kLargestFile);
        const size_t most = there > header_.header_size ? (there - header_.header_size) / size : 0;
        const std::string all =
            read_at(fd_, size * std::min<size_t>(header_.record_count, most), header_.header_size);
        std::map<uint32_t, EndpointCounters> endpoints; // by number
        std::vector<std::pair<uint32_t, Counters>> destinations;
        for (uint32_t number = 0; number < all.size() / size; ++number) {
            tav_ipc_stats_record_st record{};
            std::memcpy(&record, &all[number * size], kNumbers);
            if (!read_record(number, record)) continue;
            if (record.kind == TAV_IPC_STATS_ENDPOINT)
                static_cast<Counters &>(endpoints[number]) = counters_of(number, record);
            else if (record.kind == TAV_IPC_STATS_DESTINATION)
                destinations.emplace_back(record.owner, counters_of(number, record));
        }
        // An endpoint that is younger than the destination's record has taken the record of another one.
        for (auto &[owner, each] : destinations)
            if (const auto found = endpoints.find(owner);
                found != endpoints.end() && found->second.since_ms <= each.since_ms)
                found->second.destinations.push_back(std::move(each));
        for (auto &[number, each] : endpoints) {
            std::ranges::sort(each.destinations, {}, &Counters::name);
            file_.endpoints.push_back(std::move(each));
        }
    }

    // Completes a record whose first bytes are known. False when it is not in use.
    bool read_record(uint32_t number, tav_ipc_stats_record_st &record) const {
        const uint64_t at = header_.header_size + uint64_t{number} * header_.record_size;
        const size_t known = std::min<size_t>((header_.record_size - kNumbers) / 8, header_.value_count);
        const size_t size = kNumbers + 8 * std::min<size_t>(known, TAV_IPC_STATS_COUNT);
        for (int tries = 0; tries < kTries && record.kind != TAV_IPC_STATS_FREE; ++tries) {
            const auto before = std::pair(record.kind, record.generation);
            const std::string bytes = read_at(fd_, size, at), after = read_at(fd_, kNumbers, at);
            if (bytes.size() < size || after.size() < kNumbers) return false;
            std::memcpy(&record, after.data(), kNumbers);
            if (before != std::pair(record.kind, record.generation)) continue;
            std::memcpy(&record, bytes.data(), size);
            if (before == std::pair(record.kind, record.generation)) return true;
        }
        return false;
    }

    static Counters counters_of(uint32_t number, const tav_ipc_stats_record_st &record) {
        Counters counters;
        counters.number = number;
        counters.generation = record.generation;
        counters.name = one_line({record.name, strnlen(record.name, sizeof record.name)});
        counters.location = record.location;
        counters.since_ms = record.since_ms;
        std::copy_n(record.values, TAV_IPC_STATS_COUNT, counters.values.begin());
        return counters;
    }

    const int fd_;
    CounterFile &file_;
    tav_ipc_stats_file_st header_{};
};

double seconds_since(uint64_t begin_ms) {
    return std::max(0.0, now_seconds() - static_cast<double>(begin_ms) / 1000);
}

bool is_trusted(uid_t user) { return user == 0 || user == geteuid(); }

// Whether only root and this user can have made the directory: no other one may write to those above it.
bool is_trusted_place(const fs::path &directory) {
    for (fs::path above = directory.parent_path(); above != above.root_path(); above = above.parent_path()) {
        struct stat found {};
        if (stat(above.c_str(), &found) != 0 || !is_trusted(found.st_uid) ||
            (found.st_mode & (S_IWGRP | S_IWOTH)))
            return false;
    }
    return true;
}

// Why the file is not read; empty when it is. Any user can make directories with files of counters somewhere
// below /var.
std::string objection(bool trusted_directory, int fd) {
    struct stat info {};
    if (trusted_directory || (fstat(fd, &info) == 0 && is_trusted(info.st_uid))) return {};
    return "of user " + user_name(info.st_uid) + ", not read without --deploy-type";
}

} // namespace

pid_t counting_process(std::string_view name) {
    if (!name.starts_with("ipc") || !name.ends_with(".stats")) return 0;
    return static_cast<pid_t>(std::max(0L, number_of(name.substr(3, name.size() - 9))));
}

#define VALUE_INFO(name, text, kind, meaning) {text, meaning, #kind[0] == 'G'},
const std::array<ValueInfo, TAV_IPC_STATS_COUNT> kValues = {{TAV_IPC_STATS_VALUES(VALUE_INFO)}};
#undef VALUE_INFO

uint64_t Counters::dropped() const {
    uint64_t sum = 0;
    for (size_t i = TAV_IPC_STATS_DROPPED_NO_PEER; i < TAV_IPC_STATS_DROPPED_BYTES; ++i) sum += values[i];
    return sum;
}
double Counters::oldest_s() const {
    const uint64_t since = values[TAV_IPC_STATS_WAITING_SINCE_MS];
    return since == 0 ? 0 : seconds_since(since);
}
double Counters::age_s() const { return seconds_since(since_ms); }

std::vector<CounterFile> read_counters(const std::vector<SocketDirectory> &directories) {
    std::vector<CounterFile> files;
    for (const SocketDirectory &directory : directories) {
        const bool trusted = directory.named || is_trusted_place(directory.path);
        for (const fs::path &path : files_in(directory.path)) {
            CounterFile file;
            file.path = path;
            file.process = counting_process(path.filename().native());
            if (file.process == 0) continue;
            const UniqueFd fd(tavipc::open_regular(path.c_str(), O_RDONLY | O_NOFOLLOW));
            if (!fd && errno == ENOENT) continue; // gone meanwhile
            file.time = now_seconds();
            file.error = fd ? objection(trusted, fd.get()) : std::strerror(errno);
            if (file.error.empty()) Reader(fd.get(), file).read();
            files.push_back(std::move(file));
        }
    }
    std::ranges::sort(files, {}, [](const CounterFile &file) {
        return std::tuple(file.state == ProcessState::kEnded, file.process, file.path);
    });
    return files;
}

std::optional<uint64_t> waiting_of(const std::vector<CounterFile> &files, const SocketDirectory &directory,
                                   const SocketFile &socket) {
    const fs::path base = fs::path(directory.path).parent_path();
    for (const CounterFile &file : files) {
        if (file.state == ProcessState::kEnded || (socket.process != 0 && socket.process != file.process) ||
            fs::path(file.path).parent_path().parent_path() != base)
            continue;
        for (const EndpointCounters &endpoint : file.endpoints)
            if (endpoint.location == directory.location && endpoint.name == one_line(socket.name))
                return endpoint.waiting();
    }
    return {};
}

} // namespace tavctl
