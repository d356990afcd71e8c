// Lets every allocation and every system call of a scenario fail in turn, over the real libraries.
//
//   failures_test SCENARIO
//
// The program runs itself inside an installation. There each case is a child process, forked from one that
// has not used the libraries: it plays the scenario with the failure (what is documented may come of it, each
// callback exactly once), then again without (all must succeed), and must be left with as few allocations and
// descriptors as a child without any failure. Short memory may also end it in good order where that is
// documented. TAVIPC_FAILURE_STRIDE=N tries only every Nth point.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/mman.h>
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
using inject::report;

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr uint32_t kUsualStride = 3; // a process takes several times as long to fork
#else
constexpr uint32_t kUsualStride = 1;
#endif
constexpr int kPlayed = 42, kComplained = 43;
constexpr uint32_t kLarge = 1'200'000, kFileSize = 150'000;

std::string config, sockets; // directories, with a slash
unsigned char content[kLarge];
unsigned char application[4000]; // a message that compresses

[[noreturn, gnu::format(printf, 1, 2)]] void complain(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(report->complaint, sizeof report->complaint, format, arguments);
    va_end(arguments);
    _exit(kComplained);
}

// What was got must be right, or after a failure one of the others.
void expect(const char *what, long got, bool right, std::initializer_list<long> others = {}) {
    if (!right && !(inject::any_failed() && std::find(others.begin(), others.end(), got) != others.end()))
        complain("%s: %ld", what, got);
}

// --- the world of the scenarios: alpha sends to beta, or to nobody

struct Completion {
    int calls = 0;
    int32_t code = 0;
};

struct World {
    inject::Plan plan;
    tav_ipc_st *alpha = nullptr, *beta = nullptr;
    unsigned sent = 0, came = 0, files = 0;
    Completion completions[8];
};
World *world;

tav_addr_st address(const char *name, uint8_t flags = 0) {
    tav_addr_st result{};
    strcpy(result.name, name);
    result.loc = 2;
    result.flags = flags;
    return result;
}
const tav_addr_st kBeta = address("beta"), kNobody = address("nobody"),
                  kBetaCompressed = address("beta", ADDR_FLAG_COMPRESS_OK);

int on_message(tav_ipc_st *, const tav_addr_st *, uint32_t cmd, const void *data, uint32_t size, void *) {
    const void *sent = size == sizeof application ? application : content;
    if (cmd != size || memcmp(data, sent, size) != 0) complain("a message of %u bytes came changed", cmd);
    return ++world->came, 0;
}
int on_request(tav_ipc_st *ipc, const tav_addr_st *src, uint32_t reqid, uint32_t cmd, const void *data,
               uint32_t size, void *) {
    return tav_ipc_response(ipc, src, reqid, cmd, data, size), 0;
}
int on_file(tav_ipc_st *, const char *path, void *) {
    static unsigned char got[kFileSize + 1];
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t size = read(fd, got, sizeof got);
    close(fd);
    const bool unreadable = strcmp(report->function, "fread") == 0; // which ends the file
    if ((size != kFileSize && !unreadable) || size < 0 ||
        memcmp(got, content, static_cast<size_t>(size)) != 0)
        complain("a file came with %zd bytes", size);
    return ++world->files, 0;
}
int on_status(int32_t code, void *completion) {
    auto *entry = static_cast<Completion *>(completion);
    entry->code = code;
    if (++entry->calls > 1) complain("a completion came twice, with %d", code);
    return 0;
}
int on_answer(int32_t code, uint32_t cmd, const void *, uint32_t, void *completion) {
    if (code == 0 && cmd != 7) complain("a wrong answer: %u", cmd);
    return on_status(code, completion);
}

// Lets time pass; the loop never waits.
void pass(uint64_t ms, uint64_t step_ms = 50) {
    for (uint64_t passed = 0; passed < ms; passed += step_ms) {
        for (int turn = 0; turn < 4; ++turn) cl_event_loop_run_once(0);
        inject::move_clock(step_ms);
    }
}

tav_ipc_st *opened(tav_ipc_st *ipc, const char *name) {
    const unsigned location = tav_addr_get_loc(tav_ipc_get_local_addr(ipc));
    expect("an endpoint's location", location, location == 2, {0, 1}); // 1 where agent.ini cannot be read
    if (!ipc && access((sockets + name).c_str(), F_OK) == 0) complain("%s was left", name);
    return ipc;
}
void open_both(World &w, bool beta_receives = true) {
    w.alpha = opened(tav_ipc_create("alpha"), "alpha");
    w.beta =
        opened(beta_receives ? tav_ipc_create_temp("beta", 1) : tav_ipc_create_non_recv("beta", 0), "beta");
    tav_ipc_msg_recv(w.beta, on_message, nullptr);
    tav_ipc_file_recv(w.beta, on_file, nullptr);
    tav_ipc_on_request(w.beta, on_request, nullptr);
    inject::begin(w.plan);
}
void close_both(World &w) {
    expect("messages that came", w.came, w.came == w.sent || (inject::any_failed() && w.came < w.sent));
    tav_ipc_destroy(w.alpha);
    tav_ipc_destroy(w.beta);
    pass(100);
}

void send(World &w, const tav_addr_st &dest, const void *data, uint32_t size, uint32_t cmd) {
    const int result = tav_ipc_send(w.alpha, &dest, cmd, data, size);
    expect("a send", result, result == 0, {IPC_ERR_SENDTO});
    w.sent += result == 0 && &dest != &kNobody;
}
void expect_completion(const World &w, int index, int32_t right, std::initializer_list<long> others) {
    const Completion &entry = w.completions[index];
    if (entry.calls != 1) complain("completion %d came %d times", index, entry.calls);
    expect("a completion's code", entry.code, std::min(entry.code, 0) == right, others);
}

// --- scenarios

void creation(World &w) {
    inject::begin(w.plan);
    open_both(w);
    close_both(w);
}

void small_messages(World &w) {
    open_both(w);
    send(w, kBeta, content, 100, 100);
    send(w, kBeta, content, 64000, 64000);
    send(w, kBeta, nullptr, 0, 0);
    send(w, kBetaCompressed, application, sizeof application, sizeof application);
    send(w, kNobody, content, 100, 100);
    tav_ipc_hdr_st raw{};
    raw.dest = kBeta;
    const int result = tav_ipc_send_raw(w.alpha, "beta", &raw);
    expect("a raw send", result, result == 0, {IPC_ERR_SENDTO});
    w.sent += result == 0;
    pass(15'000);
    close_both(w);
}

void large_messages(World &w) {
    open_both(w);
    for (const uint32_t size : {kLarge, kLarge, 64001u}) {
        send(w, kBeta, content, size, size);
        pass(2'000);
    }
    pass(15'000);
    close_both(w);
}

void busy_receiver(World &w) {
    open_both(w, false);
    for (uint32_t i = 0; i < 60; ++i) send(w, kBeta, content, 1000, i);
    pass(2'500, 100); // they wait, come back after a second and wait again
    const auto count = [](cl_dunix_t, const void *, uint32_t, const cl_sockaddr_t *, int status, void *) {
        world->came += status == 0;
    };
    const bool receives = tav_ipc_recv_start(w.beta, count) != nullptr;
    if (!receives) w.beta = nullptr;
    expect("reception", receives, receives, {false});
    pass(20'000, 100);
    close_both(w);
}

void exchanges(World &w) {
    open_both(w);
    Completion *c = w.completions;
    tav_ipc_make_request(w.alpha, &kBeta, 7, content, 100, on_answer, &c[0], 5);
    tav_ipc_send2(w.alpha, &kBeta, 100, content, 100, on_status, &c[1], 5);
    w.sent = 1;
    tav_ipc_probe(w.alpha, &kBeta, on_status, &c[2]);
    tav_ipc_make_request(w.alpha, &kNobody, 7, content, 100, on_answer, &c[3], 1);
    tav_ipc_make_request(w.alpha, nullptr, 7, content, 100, on_answer, &c[4], 1);
    pass(9'000);
    for (int i = 0; i < 3; ++i) expect_completion(w, i, 0, {IPC_ERR_TIMEOUT, IPC_ERR_SENDTO});
    expect_completion(w, 3, IPC_ERR_TIMEOUT, {IPC_ERR_SENDTO});
    expect_completion(w, 4, IPC_ERR_SENDTO, {});
    tav_ipc_make_request(w.alpha, &kNobody, 7, nullptr, 0, on_answer, &c[5], 100);
    tav_ipc_probe(w.alpha, &kBeta, on_status, &c[6]);
    close_both(w);
    for (int i = 5; i < 7; ++i) expect_completion(w, i, IPC_ERR_CLOSED, {IPC_ERR_SENDTO});
}

void files(World &w) {
    open_both(w);
    const std::string path = config + "content";
    tav_ipc_send_file(w.alpha, &kBeta, path.c_str(), on_status, &w.completions[0], 2);
    tav_ipc_send_file(w.alpha, &kBeta, "/nonexistent", on_status, &w.completions[1], 2);
    pass(20'000, 200);
    expect_completion(w, 0, 0,
                      {IPC_ERR_OPEN_FILE, IPC_ERR_NOMEM, IPC_ERR_SENDTO, IPC_ERR_TIMEOUT, IPC_ERR_IO});
    expect_completion(w, 1, IPC_ERR_OPEN_FILE, {});
    expect("files that came", w.files, w.files == (w.completions[0].code >= 0), {0, 1});
    pass(400'000, 5'000); // received files are removed
    close_both(w);
}

void trace_and_configuration(World &w) {
    setenv("IPC_TEST", "1", 1);
    const std::string path = config + "server.ini";
    open_both(w);
    load_ipc_proxy_conf(path.c_str());
    const uint32_t retries = get_ipc_proxy_conf()->eagain_max_retry_times;
    expect("retries", retries, retries == 10);
    for (const int location : {2, 3})
        expect("a location's name", location, *tav_location_name(location) != 0);
    pass(11'000, 500);
    send(w, kBeta, content, 100, 100);
    pass(2'000);
    close_both(w);
}

void identity(World &w) {
    const std::string machineid = config + "machineid", marker = config + "clone_mac";
    if (access(marker.c_str(), F_OK) != 0) unlink(machineid.c_str()); // there is one the second time
    inject::begin(w.plan);
    const unsigned id = CreateAgentId(), hostid = tav_get_hostid(), stored = StoreAgentIdByRuvo(4711);
    expect("an agent id", id, id != 0, {0});
    expect("a host id", hostid, hostid != 0 && (!id || hostid == id), {0});
    expect("a stored id", stored, stored == 4711, {0});
    close(open(marker.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    const unsigned cloned = GetAgentIdFromFileWhileClone();
    expect("a cloned id", cloned, cloned == 4711, {0, static_cast<long>(id)});
    char ip[16];
    unsigned short port = 0;
    const int error = GetMgrAddr(ip, sizeof ip, &port);
    expect("the manager's port", port, error == 0 ? port == 8083 : inject::any_failed());
    open_both(w);
    close_both(w);
}

void records(World &w) {
    inject::begin(w.plan);
    tav_addr_st *first = tav_addr_create("alpha", 2, 0), *copy = tav_addr_dup(first);
    tav_addr_destroy(first);
    tav_addr_destroy(copy);
    void *packed = nullptr, *plain = nullptr;
    int32_t result = tav_msg_compress2(application, &packed, 60, 0);
    expect("compressing", result, result == 0, {TAV_COMPRESS_NO_MEMORY, -4}); // zlib's own lack of memory
    if (result == 0) result = tav_msg_uncompress(static_cast<char *>(packed) + 60, &plain, 0);
    expect("opening", result, result == 0 && memcmp(plain, application, sizeof application) == 0,
           {TAV_COMPRESS_NO_MEMORY, -4});
    free(packed);
    free(plain);
    char text[16];
    const int shell = shell_execute("echo yes", text, sizeof text);
    expect("the shell", shell, shell == 0 && strcmp(text, "yes\n") == 0, {-1});
}

struct Scenario {
    const char *name;
    void (*play)(World &);
    // What may end the process: short memory for a record that the library cannot work without, and the want
    // of an identity.
    bool may_lack_memory, may_lack_identity;
    bool agent_id = false; // an identity of its own is determined
};
constexpr Scenario kScenarios[] = {
    {"creation", creation, true, true},
    {"small_messages", small_messages, false, false},
    {"large_messages", large_messages, true, false},
    {"busy_receiver", busy_receiver, false, false},
    {"exchanges", exchanges, true, false},
    {"files", files, true, false},
    {"trace", trace_and_configuration, false, false},
    {"identity", identity, true, true, true},
    {"records", records, true, false},
};

// --- cases

struct Counts {
    unsigned cases = 0, faults = 0, ended = 0;
    std::map<std::string, unsigned> gave_up; // by function that failed
};

// What the libraries beneath do not take: libuv ends the process, or loses the descriptors of a loop that it
// could not make; the C library ends it when it cannot note a thread's destructor.
bool in_libuv() { return strncmp(report->caller, "libuv", 5) == 0; }
bool gives_up() { return in_libuv() || strstr(report->caller, "__cxa_thread_atexit_impl"); }

void play(const Scenario &scenario, const inject::Plan &plan) {
    World w;
    w.plan = plan;
    world = &w;
    scenario.play(w);
    inject::end();
}

void run_child(const Scenario &scenario, const inject::Plan &plan, const inject::Report &usual) {
    alarm(60);
    const long before = inject::live_allocations();
    const auto keep_fatal = [](int level, const char *, int, const char *text, void *) {
        if (level == 0) snprintf(report->fatal, sizeof report->fatal, "%s", text);
    };
    error_output_set_sink(keep_fatal, nullptr);
    error_output_set_level(4);
    play(scenario, plan);
    const inject::Report first = *report;
    report->failed = 0;
    *report->function = '\0';
    play(scenario, {});
    cl_event_loop_release();
    OPENSSL_thread_stop(); // keeps the texts of errors
    *report = first;
    report->allocations = inject::live_allocations() - before;
    report->descriptors = std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    if (plan.at == 0) return;
    if (report->allocations > usual.allocations)
        complain("%ld allocations are left, usually %ld", report->allocations, usual.allocations);
    if (report->descriptors > usual.descriptors && !in_libuv())
        complain("%ld descriptors are left, usually %ld", report->descriptors, usual.descriptors);
}

// What is wrong with the end of a case; empty when nothing is.
std::string judge(const Scenario &scenario, const inject::Plan &plan, int status, Counts &counts) {
    if (WIFSIGNALED(status)) {
        if (WTERMSIG(status) == SIGABRT && gives_up()) return ++counts.gave_up[report->function], "";
        return std::string("ended by ") + strsignal(WTERMSIG(status));
    }
    const int code = WEXITSTATUS(status);
    if (code == kPlayed) return "";
    if (code == kComplained) return report->complaint;
    const bool said = strstr(report->fatal, "Out of memory") || strstr(report->fatal, "memory not enough");
    const bool lacks_memory = scenario.may_lack_memory && plan.kind == inject::Kind::kAllocations && said;
    if (report->failed > 0 && ((code == 0 && lacks_memory) || (code == 1 && scenario.may_lack_identity)))
        return ++counts.ended, "";
    return "ended with status " + std::to_string(code);
}

// Removes the files of sockets and received files, and tells of one.
std::string remove_left_files() {
    std::string left;
    for (const std::string &directory : {sockets, config + "received"}) {
        if (!fs::exists(directory)) continue;
        for (const auto &entry : fs::directory_iterator(directory)) {
            left = "left " + entry.path().filename().string();
            fs::remove(entry);
        }
    }
    return left;
}

void run_case(const Scenario &scenario, const inject::Plan &plan, const inject::Report &usual,
              Counts &counts) {
    *report = {};
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        run_child(scenario, plan, usual);
        _exit(kPlayed);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    ++counts.cases;
    std::string fault = judge(scenario, plan, status, counts);
    const std::string left = remove_left_files();
    // A socket's file of which nothing can be learnt might be another's; who is ended has no time to tidy up.
    const bool may_leave = strcmp(report->function, "fstatat") == 0 || !WIFEXITED(status) ||
                           (WEXITSTATUS(status) == 0 && left.find("ipc_file") != left.npos);
    if (fault.empty() && !may_leave) fault = left;
    if (fault.empty()) return;
    ++counts.faults;
    printf("FAULT: %s %u%s, error %u: %s (%s) for %s: %s\n",
           plan.kind == inject::Kind::kAllocations ? "allocation" : "call", plan.at,
           plan.for_good ? " and all later" : "", plan.error, report->function, strerror(report->error),
           report->caller, fault.c_str());
}

int run_inside(const Scenario &scenario) {
    const char *given = getenv("TAVIPC_FAILURE_STRIDE");
    const uint32_t stride = given ? static_cast<uint32_t>(std::max(1, atoi(given))) : kUsualStride;
    void *shared = mmap(nullptr, sizeof *report, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    report = new (shared) inject::Report{};
    c_get_process(); // libcrypto sets itself up, and does not survive lack of memory meanwhile
    Counts counts;
    for (const auto kind : {inject::Kind::kAllocations, inject::Kind::kCalls}) {
        run_case(scenario, {kind}, {}, counts);
        const inject::Report usual = *report;
        if (counts.cases == 1 && counts.faults) return EXIT_FAILURE;
        for (uint32_t at = 1; at <= usual.points; at += stride) {
            run_case(scenario, {kind, at, true}, usual, counts);
            unsigned error = 0;
            do run_case(scenario, {kind, at, false, error}, usual, counts);
            while (++error < report->errors);
        }
        printf("%u %s\n", usual.points, kind == inject::Kind::kCalls ? "system calls" : "allocations");
    }
    printf("%u cases, %u faults, %u ended in good order\n", counts.cases, counts.faults, counts.ended);
    for (const auto &[function, number] : counts.gave_up)
        printf("a library beneath gave up %u times for want of %s\n", number, function.c_str());
    return counts.faults ? EXIT_FAILURE : EXIT_SUCCESS;
}

// The same program as a module of an installation of its own.
int run_installed(const Scenario &scenario) {
    tavipc::stage::Installation::Setup setup;
    setup.agent_id = scenario.agent_id;
    const tavipc::stage::Installation installation(setup);
    installation.allow({"failures"});
    const fs::path program = installation.config().parent_path() / "bin/failures";
    fs::copy_file("/proc/self/exe", program);
    fs::create_directory(installation.config() / "received");
    const std::string command = program.string() + " --inside " + scenario.name + ' ' +
                                installation.config().string() + "/ " + installation.sockets().string() + '/';
    return std::system(command.c_str()) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

void prepare_content() {
    uint32_t state = 1;
    for (auto &byte : content)
        byte = static_cast<unsigned char>((state = state * 1664525 + 1013904223) >> 24);
    memcpy(application, "3200", 4);
    application[18] = (sizeof application - TAV_APP_HEADER_SIZE) >> 8;
    application[19] = (sizeof application - TAV_APP_HEADER_SIZE) & 0xFF;
    FILE *file = fopen((config + "content").c_str(), "wb");
    fwrite(content, 1, kFileSize, file);
    fclose(file);
}

} // namespace

// Leaks are counted here; and a library that ends the process may leave what it likes.
extern "C" [[gnu::visibility("default")]] const char *__asan_default_options() {
    return "detect_leaks=0:exitcode=99:allocator_may_return_null=1";
}

int main(int count, char **arguments) {
    const bool inside = count == 5 && strcmp(arguments[1], "--inside") == 0;
    const char *name = inside ? arguments[2] : count > 1 ? arguments[1] : "";
    const auto scenario = std::find_if(std::begin(kScenarios), std::end(kScenarios),
                                       [&](const Scenario &s) { return strcmp(s.name, name) == 0; });
    if (scenario == std::end(kScenarios)) return fprintf(stderr, "no scenario %s\n", name), EXIT_FAILURE;
    if (!inside) return run_installed(*scenario);
    config = arguments[3];
    sockets = arguments[4];
    prepare_content();
    if (chdir((config + "received").c_str()) != 0) return EXIT_FAILURE;
    return run_inside(*scenario);
}
