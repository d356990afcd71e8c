// Lets every allocation and every system call of a scenario fail in turn, over the real libraries.
//
//   failures_test SCENARIO
//
// A copy of the program runs inside an installation. There each case is a child process. It plays the
// scenario with the failure, where only documented results are right, then without, where everything must
// succeed. It may leave no more allocations and descriptors than a child without a failure. Lack of memory
// may end it where that is documented. TAVIPC_FAILURE_STRIDE=N tries only every Nth point.
#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <openssl/crypto.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "inject.h"
#include "installation.h"
#include "tavaux.h"
#include "tavbase.h"
#include "tavcl_ev.h"
#include "tavipc/tav_agentid.h"
#include "tavipc/tav_compress.h"
#include "tavipc/tav_ipc_ext.h"
#include "tavipc/tav_ipc_file_ext.h"
#include "tavipc/tav_ipc_watch.h"

namespace fs = std::filesystem;
using inject::Kind, inject::Plan, inject::report, inject::Report;

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr uint32_t kUsualStride = 3; // a process takes several times as long to fork
#else
constexpr uint32_t kUsualStride = 1;
#endif
constexpr int kPlayed = 42, kComplained = 43;
constexpr uint32_t kLarge = 1'200'000, kFileSize = 150'000;

std::string config, sockets;                               // directories, each with a slash at its end
unsigned char content[kLarge], application[4000] = "3200"; // the second is a message that compresses

struct Completion {
    int calls, code;
};
struct World { // alpha sends to beta, or to nobody
    Plan plan;
    tav_ipc_st *alpha, *beta;
    long sent, came, files;
    Completion completions[7];
} world;

bool has_failed() { return world.plan.at > 0 && report->failed > 0; }
// The result must be right. After a failure it can also be one of the others.
void expect(const char *what, long result, bool right, std::initializer_list<long> others = {}) {
    if (right || (has_failed() && std::ranges::find(others, result) != others.end())) return;
    snprintf(report->complaint, sizeof report->complaint, "%s: %ld", what, result);
    _exit(kComplained);
}

tav_addr_st address(const char *name, uint8_t flags = 0) {
    tav_addr_st result{0, {}, 2, flags};
    return strcpy(result.name, name), result;
}
const tav_addr_st kBeta = address("beta"), kPacked = address("beta", ADDR_FLAG_COMPRESS_OK),
                  kNobody = address("nobody");

int on_message(tav_ipc_st *, const tav_addr_st *, uint32_t cmd, const void *data, uint32_t size, void *) {
    expect("size of a message", size, size == cmd);
    const auto *sent = size == sizeof application ? application : content;
    expect("bytes of a message", size, memcmp(data, sent, size) == 0);
    return ++world.came, 0;
}
int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
               uint32_t size, void *) {
    return tav_ipc_response(ipc, src, reqid, cmd, data, size), 0;
}
int on_file(tav_ipc_st *, const char *path, void *) {
    struct stat file {};
    stat(path, &file);
    const bool cut = has_failed() && strcmp(report->function, "fread") == 0; // a failed read ends the file
    expect("size of a file", file.st_size, file.st_size == kFileSize || cut);
    return ++world.files, 0;
}
int on_status(int32_t code, void *user) {
    auto *completion = static_cast<Completion *>(user);
    completion->code = std::min(code, 0); // the code of a file is its id
    return ++completion->calls, 0;
}
int on_answer(int32_t code, uint32_t, const void *, uint32_t, void *user) { return on_status(code, user); }
void expect_completion(int index, int32_t right, std::initializer_list<long> others = {}) {
    const auto [calls, code] = world.completions[index];
    expect("calls of a completion", calls, calls == 1);
    expect("code of a completion", code, code == right, others);
}

// Moves the clock. The loop never waits.
void pass(uint64_t ms, uint64_t step_ms = 50) {
    for (uint64_t passed = 0; passed < ms; passed += step_ms) {
        for (int turn = 0; turn < 4; ++turn) cl_event_loop_run_once(0);
        inject::clock_offset_ms += step_ms;
    }
}
void open_both(bool beta_receives = true) {
    world.alpha = tav_ipc_create("alpha");
    world.beta = beta_receives ? tav_ipc_create_temp("beta", 1) : tav_ipc_create_non_recv("beta", 0);
    for (const auto &[ipc, name] : {std::pair(world.alpha, "alpha"), {world.beta, "beta"}}) {
        const int location = tav_addr_get_loc(tav_ipc_get_local_addr(ipc));
        expect("a location", location, location == 2, {0, 1}); // 1 if agent.ini cannot be read
        expect("a socket that was left", 1, ipc || access((sockets + name).c_str(), F_OK) != 0);
    }
    tav_ipc_msg_recv(world.beta, on_message, nullptr);
    tav_ipc_file_recv(world.beta, on_file, nullptr);
    tav_ipc_on_request(world.beta, on_request, nullptr);
    inject::plan = world.plan;
}
void close_both() {
    expect("messages that came", world.came,
           world.came == world.sent || (has_failed() && world.came < world.sent));
    tav_ipc_destroy(world.alpha);
    tav_ipc_destroy(world.beta);
    pass(100);
}
void send(const tav_addr_st &dest, const void *data, uint32_t size) { // the command repeats the size
    const int result = tav_ipc_send(world.alpha, &dest, size, data, size);
    expect("a send", result, result == 0, {IPC_ERR_SENDTO});
    world.sent += result == 0 && &dest != &kNobody;
}

// --- scenarios

void creation() {
    inject::plan = world.plan; // before the endpoints are open
    open_both();
    close_both();
}
void messages() {
    setenv("IPC_TEST", "1", 1); // traces all messages
    open_both();
    load_ipc_proxy_conf((config + "server.ini").c_str());
    send(kPacked, application, sizeof application);
    send(kNobody, content, 100);
    for (const uint32_t size : {64'000u, 0u, kLarge, kLarge, 64'001u})
        send(kBeta, content, size), pass(2'000);
    pass(15'000);
    close_both();
}
// Whether beta's queue, which can be of any length, takes one more datagram, of one byte.
bool takes_more() {
    const tavipc::UniqueFd from(socket(AF_UNIX, SOCK_DGRAM, 0)); // its own buffer is soon full
    cl_sockaddr_t to;
    cl_sockaddr_un_init(&to, (sockets + "beta").c_str());
    return sendto(from.get(), "", 1, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&to.addr), to.len) == 1;
}
void busy_receiver() {
    open_both(false);
    while (takes_more()) continue;
    for (int i = 0; i < 60; ++i) send(kBeta, content, 1000);
    pass(2'500, 100); // they wait, are tried again after a second, and wait again
    const auto count = [](cl_dunix_t, const void *, uint32_t len, const cl_sockaddr_t *, int status, void *) {
        world.came += status == 0 && len > 1;
    };
    const bool receives = tav_ipc_recv_start(world.beta, count) != nullptr;
    if (!receives) world.beta = nullptr;
    expect("reception", receives, receives, {false});
    pass(20'000, 100);
    close_both();
}
void exchanges() {
    open_both();
    static int presence;
    presence = -1;
    const auto on_peer = [](uint64_t, int event, const char *, void *) { presence = event; };
    const uint64_t watch = tav_ipc_watch(world.alpha, "beta", on_peer, nullptr);
    expect("a watch", static_cast<long>(watch), watch != 0, {0});
    Completion *c = world.completions;
    tav_ipc_make_request(world.alpha, &kBeta, 7, content, 100, on_answer, &c[0], 5);
    tav_ipc_send2(world.alpha, &kBeta, 100, content, 100, on_status, &c[1], 5);
    tav_ipc_probe(world.alpha, &kBeta, on_status, &c[2]);
    tav_ipc_make_request(world.alpha, &kNobody, 7, content, 100, on_answer, &c[3], 1);
    tav_ipc_make_request(world.alpha, nullptr, 7, content, 100, on_answer, &c[4], 1);
    world.sent = 1;
    pass(9'000);
    expect("the presence of beta", presence, presence == TAV_IPC_WATCH_APPEARED, {-1, 0});
    for (const int i : {0, 1, 2}) expect_completion(i, 0, {IPC_ERR_TIMEOUT, IPC_ERR_SENDTO});
    expect_completion(3, IPC_ERR_TIMEOUT, {IPC_ERR_SENDTO});
    expect_completion(4, IPC_ERR_SENDTO);
    tav_ipc_make_request(world.alpha, &kNobody, 7, nullptr, 0, on_answer, &c[5], 100);
    tav_ipc_probe(world.alpha, &kBeta, on_status, &c[6]);
    close_both();
    for (const int i : {5, 6}) expect_completion(i, IPC_ERR_CLOSED, {IPC_ERR_SENDTO});
}
void files() {
    const std::string source = config + "content";
    open_both();
    tav_ipc_send_file(world.alpha, &kBeta, source.c_str(), on_status, &world.completions[0], 2);
    const auto on_done = [](uint64_t, int32_t code, void *user) { on_status(code, user); };
    if (tav_ipc_file_start(world.alpha, &kBeta, source.c_str(), "name", 2000, 0, nullptr, on_done,
                           &world.completions[1]) == 0)
        on_status(IPC_ERR_NOMEM, &world.completions[1]);
    pass(20'000, 200);
    for (const int i : {0, 1})
        expect_completion(
            i, 0,
            {IPC_ERR_OPEN_FILE, IPC_ERR_NOMEM, IPC_ERR_SENDTO, IPC_ERR_TIMEOUT, IPC_ERR_IO, IPC_ERR_NO_PEER});
    const int sent = (world.completions[0].code == 0) + (world.completions[1].code == 0);
    expect("files that came", world.files, world.files == sent, {0, 1, 2});
    pass(400'000, 5'000); // received files are removed
    close_both();
}
void identity() {
    static bool again = false; // the second time, the agent has an id
    if (!std::exchange(again, true)) unlink((config + "machineid").c_str());
    std::ofstream{config + "clone_mac"};
    inject::plan = world.plan;
    const unsigned id = CreateAgentId(), hostid = tav_get_hostid(), stored = StoreAgentIdByRuvo(4711);
    expect("an agent id", id, id != 0, {0});
    expect("a host id", hostid, hostid != 0 && (!id || hostid == id), {0});
    expect("a stored id", stored, stored == 4711, {0});
    const unsigned cloned = GetAgentIdFromFileWhileClone();
    expect("a cloned id", cloned, cloned == 4711, {0, static_cast<long>(id)});
    char text[16];
    const int shell = shell_execute("echo yes", text, sizeof text);
    expect("the shell", shell, shell == 0 && strcmp(text, "yes\n") == 0, {-1});
}

struct Scenario {
    const char *name;
    void (*play)();
    bool may_lack_memory, may_lack_identity; // what may end the process
};
constexpr Scenario kScenarios[] = {
    {"creation", creation, true, true},
    {"messages", messages, true, false},
    {"busy_receiver", busy_receiver, false, false},
    {"exchanges", exchanges, true, false},
    {"files", files, true, false},
    {"identity", identity, true, true},
};

// --- cases

// libuv ends the process, or loses the descriptors of a loop that it could not create; the C library ends it
// if it cannot register a thread's destructor.
bool in_libuv() { return strncmp(report->caller, "libuv", 5) == 0; }

void play(const Scenario &scenario, const Plan &plan) {
    world = World{};
    world.plan = plan;
    scenario.play();
    inject::plan = {};
}
[[noreturn]] void run_child(const Scenario &scenario, const Plan &plan, const Report &usual) {
    alarm(60); // seconds
    const long before = inject::live_allocations;
    error_output_set_sink([](int, const char *, int, const char *, void *) {}, nullptr);
    error_output_set_level(4);
    play(scenario, plan);
    play(scenario, {});
    cl_event_loop_release();
    OPENSSL_thread_stop(); // keeps the texts of errors
    // A slow case keeps an inotify descriptor, with one allocation, to the end of the thread.
    const fs::directory_iterator end;
    const auto is_inotify = [](const auto &file) {
        std::error_code gone;
        return fs::read_symlink(file.path(), gone) == "anon_inode:inotify";
    };
    const long kept = std::count_if(fs::directory_iterator("/proc/self/fd"), end, is_inotify);
    report->allocations = inject::live_allocations - before - kept;
    report->descriptors = std::distance(fs::directory_iterator("/proc/self/fd"), end) - kept;
    const long allocations = report->allocations, descriptors = report->descriptors;
    expect("allocations left", allocations, allocations <= usual.allocations);
    expect("descriptors left", descriptors, descriptors <= usual.descriptors || in_libuv());
    _exit(kPlayed);
}
// Returns whether the code can be that of a child whose failure ended the process.
bool may_end(int code, const Scenario &scenario, Kind kind) {
    if (code == 128 + SIGABRT && strcmp(report->function, "epoll_ctl") == 0)
        return true; // libuv's call is later
    if (code == 128 + SIGABRT) return in_libuv() || strstr(report->caller, "__cxa_thread_atexit_impl");
    if (report->failed == 0) return false;
    return code == 0 ? scenario.may_lack_memory && kind == Kind::kAllocations
                     : code == 1 && scenario.may_lack_identity;
}
// Removes the files that a child has left, and returns one that it had to remove.
std::string files_left(int code) {
    std::string found;
    for (const std::string &directory : {sockets, config + "received"})
        for (std::error_code none; const auto &left : fs::directory_iterator(directory, none)) {
            const bool received = left.path().filename().string().starts_with("ipc_file");
            if (code < 128 && !(code == 0 && received)) found = left.path();
            fs::remove(left);
        }
    // A socket's file that cannot be examined might be another's.
    return strcmp(report->function, "fstatat") != 0 ? found : "";
}
// Runs a case in a child process. Returns whether nothing was wrong.
bool run_case(const Scenario &scenario, const Plan &plan, const Report &usual) {
    *report = {};
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) run_child(scenario, plan, usual);
    int status = 0;
    waitpid(pid, &status, 0);
    const int code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    const std::string left = files_left(code);
    if (left.empty() && (code == kPlayed || may_end(code, scenario, plan.kind))) return true;
    printf("FAULT: point %u%s, error %u: %s for %s: status %d %s; left: %s\n", plan.at,
           plan.for_good ? " and later" : "", plan.error, report->function, report->caller, code,
           report->complaint, left.c_str());
    return false;
}
int run_inside(const Scenario &scenario) {
    const char *given = getenv("TAVIPC_FAILURE_STRIDE");
    const uint32_t stride = given ? static_cast<uint32_t>(std::max(1, atoi(given))) : kUsualStride;
    void *shared = mmap(nullptr, sizeof *report, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    report = new (shared) Report{};
    c_get_process(); // the set-up of libcrypto does not survive lack of memory
    unsigned cases = 0, faults = 0;
    const auto count = [&](const Plan &plan, const Report &usual) {
        ++cases, faults += !run_case(scenario, plan, usual);
    };
    for (const Kind kind : {Kind::kAllocations, Kind::kCalls}) {
        count({kind}, {.allocations = LONG_MAX, .descriptors = LONG_MAX});
        const Report usual = *report;
        for (uint32_t at = 1; at <= usual.points && faults < 20; at += stride) {
            count({kind, at, true}, usual);
            unsigned error = 0;
            do count({kind, at, false, error}, usual);
            while (++error < report->errors);
        }
        printf("%u %s, ", usual.points, kind == Kind::kCalls ? "system calls" : "allocations");
    }
    printf("%u cases, %u faults\n", cases, faults);
    return faults ? EXIT_FAILURE : EXIT_SUCCESS;
}

// Runs a copy of the program as a module of an installation of its own.
int run_installed(const Scenario &scenario) {
    tavipc::stage::Installation::Setup setup;
    setup.agent_id = scenario.play == identity;
    const tavipc::stage::Installation installation(setup);
    installation.allow({"failures"});
    const fs::path program = installation.put("failures", fs::canonical("/proc/self/exe"));
    fs::create_directory(installation.config() / "received");
    std::ofstream(installation.config() / "content") << std::string(kFileSize, 'f');
    const std::string command = program.string() + ' ' + scenario.name + ' ' +
                                installation.config().string() + "/ " + installation.sockets().string() + '/';
    return std::system(command.c_str()) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

// Leaks are counted here. A library that ends the process may leave memory.
extern "C" [[gnu::visibility("default")]] const char *__asan_default_options() {
    return "detect_leaks=0:exitcode=99:allocator_may_return_null=1";
}

int main(int count, char **arguments) {
    const auto *scenario = std::ranges::find(kScenarios, count > 1 ? std::string(arguments[1]) : "",
                                             [](const Scenario &s) { return s.name; });
    if (scenario == std::end(kScenarios)) return fprintf(stderr, "no such scenario\n"), EXIT_FAILURE;
    if (count == 2) return run_installed(*scenario);
    config = arguments[2], sockets = arguments[3];
    uint32_t state = 1;
    for (auto &byte : content)
        byte = static_cast<unsigned char>((state = state * 1664525 + 1013904223) >> 24);
    application[18] = (sizeof application - TAV_APP_HEADER_SIZE) >> 8;
    application[19] = (sizeof application - TAV_APP_HEADER_SIZE) & 0xFF;
    return chdir((config + "received").c_str()) == 0 ? run_inside(*scenario) : EXIT_FAILURE;
}
