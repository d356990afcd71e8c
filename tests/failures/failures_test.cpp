// Lets every allocation and every system call of a scenario fail in turn, over the real libraries.
//
//   failures_test SCENARIO
//
// The program runs itself inside an installation. There each case is a child process: it plays the scenario
// with the failure (only documented results are right, and each callback runs exactly once), then again
// without (everything must succeed), and must end with as few allocations and descriptors as a child without
// any failure. Lack of memory may also end it where that is documented. TAVIPC_FAILURE_STRIDE=N tries only
// every Nth point.
#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/mman.h>
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
#include "tavipc/tav_ipc.h"

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

std::string config, sockets, machineid, marker, source;    // directories with a slash, and files
unsigned char content[kLarge], application[4000] = "3200"; // the second is a message that compresses

[[noreturn, gnu::format(printf, 1, 2)]] void complain(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(report->complaint, sizeof report->complaint, format, arguments);
    va_end(arguments);
    _exit(kComplained);
}
// The result must be right. After a failure it can also be one of the others.
void expect(const char *what, long result, bool right, std::initializer_list<long> others = {}) {
    if (!right && !(report->failed > 0 && std::find(others.begin(), others.end(), result) != others.end()))
        complain("%s: %ld", what, result);
}

struct Completion {
    int calls, code;
};
struct World { // alpha sends to beta, or to nobody
    Plan plan;
    tav_ipc_st *alpha, *beta;
    unsigned sent, came, files;
    Completion completions[7];
} world;

tav_addr_st address(const char *name, uint8_t flags = 0) {
    tav_addr_st result{0, {}, 2, flags};
    strcpy(result.name, name);
    return result;
}
const tav_addr_st kBeta = address("beta"), kPacked = address("beta", ADDR_FLAG_COMPRESS_OK),
                  kNobody = address("nobody");

int on_message(tav_ipc_st *, const tav_addr_st *, uint32_t cmd, const void *data, uint32_t size, void *) {
    const bool same = memcmp(data, size == sizeof application ? application : content, size) == 0;
    expect("a message", size, size == cmd && same);
    return ++world.came, 0;
}
int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
               uint32_t size, void *) {
    return tav_ipc_response(ipc, src, reqid, cmd, data, size), 0;
}
int on_file(tav_ipc_st *, const char *path, void *) {
    struct stat file {};
    stat(path, &file);
    const bool ended = strcmp(report->function, "fread") == 0; // a failed read ends the file
    expect("a file", file.st_size, file.st_size == kFileSize || ended);
    return ++world.files, 0;
}
int on_answer(int32_t code, uint32_t, const void *, uint32_t, void *completion) {
    static_cast<Completion *>(completion)->code = code;
    return ++static_cast<Completion *>(completion)->calls, 0;
}
int on_status(int32_t code, void *completion) { return on_answer(code, 0, nullptr, 0, completion); }
void expect_completion(int index, int32_t right, std::initializer_list<long> others = {}) {
    expect("calls of a completion", world.completions[index].calls, world.completions[index].calls == 1);
    expect("a completion", world.completions[index].code, std::min(world.completions[index].code, 0) == right,
           others);
}

// Lets time pass; the loop never waits.
void pass(uint64_t ms, uint64_t step_ms = 50) {
    for (uint64_t passed = 0; passed < ms; passed += step_ms) {
        for (int turn = 0; turn < 4; ++turn) cl_event_loop_run_once(0);
        inject::clock_offset_ms += step_ms;
    }
}
void open_both(bool beta_receives = true) {
    world.alpha = tav_ipc_create("alpha");
    world.beta = beta_receives ? tav_ipc_create_temp("beta", 1) : tav_ipc_create_non_recv("beta", 0);
    for (const char *name : {"alpha", "beta"}) {
        tav_ipc_st *ipc = *name == 'a' ? world.alpha : world.beta;
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
           world.came == world.sent || (report->failed && world.came < world.sent));
    tav_ipc_destroy(world.alpha);
    tav_ipc_destroy(world.beta);
    pass(100);
}
void send(const tav_addr_st &dest, const void *data, uint32_t size, uint32_t cmd) {
    const int result = tav_ipc_send(world.alpha, &dest, cmd, data, size);
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
    expect("retries", 0, get_ipc_proxy_conf()->eagain_max_retry_times == 10);
    send(kBeta, content, 64000, 64000);
    send(kBeta, nullptr, 0, 0);
    send(kPacked, application, sizeof application, sizeof application);
    send(kNobody, content, 100, 100);
    for (const uint32_t size : {kLarge, kLarge, 64001u}) send(kBeta, content, size, size), pass(2'000);
    pass(15'000);
    close_both();
}
void busy_receiver() {
    open_both(false);
    for (uint32_t i = 0; i < 60; ++i) send(kBeta, content, 1000, i);
    pass(2'500, 100); // they wait, are tried again after a second, and wait again
    const auto count = [](cl_dunix_t, const void *, uint32_t, const cl_sockaddr_t *, int status, void *) {
        world.came += status == 0;
    };
    const bool receives = tav_ipc_recv_start(world.beta, count) != nullptr;
    if (!receives) world.beta = nullptr;
    expect("reception", receives, receives, {false});
    pass(20'000, 100);
    close_both();
}
void exchanges() {
    open_both();
    Completion *c = world.completions;
    tav_ipc_make_request(world.alpha, &kBeta, 7, content, 100, on_answer, &c[0], 5);
    tav_ipc_send2(world.alpha, &kBeta, 100, content, 100, on_status, &c[1], 5);
    tav_ipc_probe(world.alpha, &kBeta, on_status, &c[2]);
    tav_ipc_make_request(world.alpha, &kNobody, 7, content, 100, on_answer, &c[3], 1);
    tav_ipc_make_request(world.alpha, nullptr, 7, content, 100, on_answer, &c[4], 1);
    world.sent = 1;
    pass(9'000);
    for (const int i : {0, 1, 2}) expect_completion(i, 0, {IPC_ERR_TIMEOUT, IPC_ERR_SENDTO});
    expect_completion(3, IPC_ERR_TIMEOUT, {IPC_ERR_SENDTO});
    expect_completion(4, IPC_ERR_SENDTO);
    tav_ipc_make_request(world.alpha, &kNobody, 7, nullptr, 0, on_answer, &c[5], 100);
    tav_ipc_probe(world.alpha, &kBeta, on_status, &c[6]);
    close_both();
    for (const int i : {5, 6}) expect_completion(i, IPC_ERR_CLOSED, {IPC_ERR_SENDTO});
}
void files() {
    open_both();
    tav_ipc_send_file(world.alpha, &kBeta, source.c_str(), on_status, &world.completions[0], 2);
    tav_ipc_send_file(world.alpha, &kBeta, "/nonexistent", on_status, &world.completions[1], 2);
    pass(20'000, 200);
    expect_completion(0, 0, {IPC_ERR_OPEN_FILE, IPC_ERR_NOMEM, IPC_ERR_SENDTO, IPC_ERR_TIMEOUT, IPC_ERR_IO});
    expect_completion(1, IPC_ERR_OPEN_FILE);
    expect("files that came", world.files, world.files == (world.completions[0].code >= 0), {0, 1});
    pass(400'000, 5'000); // received files are removed
    close_both();
}
void identity() {
    if (access(marker.c_str(), F_OK) != 0) unlink(machineid.c_str()); // the second time it exists
    inject::plan = world.plan;
    const unsigned id = CreateAgentId(), hostid = tav_get_hostid(), stored = StoreAgentIdByRuvo(4711);
    expect("an agent id", id, id != 0, {0});
    expect("a host id", hostid, hostid != 0 && (!id || hostid == id), {0});
    expect("a stored id", stored, stored == 4711, {0});
    close(open(marker.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    const unsigned cloned = GetAgentIdFromFileWhileClone();
    expect("a cloned id", cloned, cloned == 4711, {0, static_cast<long>(id)});
    char text[16];
    unsigned short port = 0;
    const int error = GetMgrAddr(text, sizeof text, &port);
    expect("the manager's port", port, error == 0 ? port == 8083 : report->failed > 0);
    const int shell = shell_execute("echo yes", text, sizeof text);
    expect("the shell", shell, shell == 0 && strcmp(text, "yes\n") == 0, {-1});
    void *packed = nullptr;
    const int32_t result = tav_msg_compress(application, &packed, 0);
    free(packed);
    expect("compressing", result, result == 0, {TAV_COMPRESS_NO_MEMORY, -4}); // -4: zlib lacks memory
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
    alarm(60);
    const long before = inject::live_allocations;
    error_output_set_sink([](int, const char *, int, const char *, void *) {}, nullptr);
    error_output_set_level(4);
    play(scenario, plan);
    const Report first = *report;
    *report = {};
    play(scenario, {});
    cl_event_loop_release();
    OPENSSL_thread_stop(); // keeps the texts of errors
    *report = first;
    report->allocations = inject::live_allocations - before;
    report->descriptors = std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    const bool lost = plan.at > 0 && report->descriptors > usual.descriptors && !in_libuv();
    if (plan.at > 0)
        expect("allocations left", report->allocations, report->allocations <= usual.allocations);
    expect("descriptors left", report->descriptors, !lost);
    _exit(kPlayed);
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
    const bool gave_up =
        code == 128 + SIGABRT && (in_libuv() || strstr(report->caller, "__cxa_thread_atexit_impl"));
    const bool lacks_memory = code == 0 && scenario.may_lack_memory && plan.kind == Kind::kAllocations;
    const bool lacks_identity = code == 1 && scenario.may_lack_identity;
    bool right = code == kPlayed || gave_up || (report->failed > 0 && (lacks_memory || lacks_identity));
    for (const std::string &directory : {sockets, config + "received"})
        for (std::error_code none; const auto &left : fs::directory_iterator(directory, none)) {
            // A socket's file that cannot be examined might be another's.
            const bool received = left.path().filename().string().starts_with("ipc_file");
            if (code < 128 && !(code == 0 && received) && strcmp(report->function, "fstatat") != 0) {
                snprintf(report->complaint, sizeof report->complaint, "left %s", left.path().c_str());
                right = false;
            }
            fs::remove(left);
        }
    if (!right)
        printf("FAULT: %s %u%s, error %u: %s for %s: status %d %s\n",
               plan.kind == Kind::kCalls ? "call" : "allocation", plan.at,
               plan.for_good ? " and all later" : "", plan.error, report->function, report->caller, code,
               report->complaint);
    return right;
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
        count({kind}, {});
        const Report usual = *report;
        for (uint32_t at = 1; at <= usual.points && faults < 20; at += stride) {
            count({kind, at, true}, usual);
            unsigned error = 0;
            do count({kind, at, false, error}, usual);
            while (++error < report->errors);
        }
        printf("%u %s\n", usual.points, kind == Kind::kCalls ? "system calls" : "allocations");
    }
    printf("%u cases, %u faults\n", cases, faults);
    return faults ? EXIT_FAILURE : EXIT_SUCCESS;
}

// Runs the same program as a module of an installation of its own.
int run_installed(const Scenario &scenario) {
    tavipc::stage::Installation::Setup setup;
    setup.agent_id = scenario.play == identity;
    const tavipc::stage::Installation installation(setup);
    installation.allow({"failures"});
    const fs::path program = installation.config().parent_path() / "bin/failures";
    fs::copy_file("/proc/self/exe", program);
    fs::create_directory(installation.config() / "received");
    const std::string command = program.string() + " --inside " + scenario.name + ' ' +
                                installation.config().string() + "/ " + installation.sockets().string() + '/';
    return std::system(command.c_str()) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

// Leaks are counted here. A library that ends the process may leave memory.
extern "C" [[gnu::visibility("default")]] const char *__asan_default_options() {
    return "detect_leaks=0:exitcode=99:allocator_may_return_null=1";
}

int main(int count, char **arguments) {
    const bool inside = count == 5;
    const std::string name = inside ? arguments[2] : count > 1 ? arguments[1] : "";
    const auto scenario = std::find_if(std::begin(kScenarios), std::end(kScenarios),
                                       [&](const Scenario &s) { return s.name == name; });
    if (scenario == std::end(kScenarios))
        return fprintf(stderr, "no scenario %s\n", name.c_str()), EXIT_FAILURE;
    if (!inside) return run_installed(*scenario);
    config = arguments[3], sockets = arguments[4];
    machineid = config + "machineid", marker = config + "clone_mac", source = config + "content";
    uint32_t state = 1;
    for (auto &byte : content)
        byte = static_cast<unsigned char>((state = state * 1664525 + 1013904223) >> 24);
    application[18] = (sizeof application - TAV_APP_HEADER_SIZE) >> 8;
    application[19] = (sizeof application - TAV_APP_HEADER_SIZE) & 0xFF;
    std::ofstream(source, std::ios::binary).write(reinterpret_cast<char *>(content), kFileSize);
    return chdir((config + "received").c_str()) == 0 ? run_inside(*scenario) : EXIT_FAILURE;
}
