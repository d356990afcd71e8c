// tavipc-growth - what single operations cost when 100 to 1,000,000 of their kind are there, and compression
// of 1 KB to 16 MB. The "BigO" lines show the slope.
//
// It makes an installation of its own and runs itself there, because what it measures opens sockets.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include "installation.h"
#include "ipc/endpoint.h"
#include "ipc/reassembly.h"
#include "ipc/wire.h"
#include "tavaux.h"
#include "tavipc/tav_compress.h"

using benchmark::State;

namespace {

constexpr int64_t kFar_ms = 1'000'000'000'000;

uint32_t live(const State &state) { return static_cast<uint32_t>(state.range(0)); }

// A request comes and is answered while others are outstanding.
void requests(State &state) {
    ipc_req_manager_st manager;
    ipc_req_manager_init(&manager, nullptr, nullptr, nullptr);
    char record = 0;
    uint32_t id = 0;
    const auto insert = [&] {
        ++id;
        ipc_req_manager_insert(&manager, id, &record, kFar_ms + id);
    };
    while (id < live(state)) insert();
    for (auto _ : state) {
        void *found = nullptr;
        insert();
        benchmark::DoNotOptimize(ipc_req_manager_find(&manager, id - live(state), &found));
        ipc_req_manager_remove(&manager, id - live(state));
    }
    ipc_req_manager_uninit(&manager);
    state.SetComplexityN(state.range(0));
}

ipc_queue_st make_queue() {
    ipc_queue_st queue;
    const cl_dunix_t socket = create_unix_socket(tav_get_location(), "growth");
    if (init_ipc_queue(
            &queue, tav_get_location(), [](uint64_t, ipc_queue_msg_st *) { return 0; }, &socket)) {
        std::fprintf(stderr, "tavipc-growth: no queue\n");
        std::exit(EXIT_FAILURE);
    }
    return queue;
}

ipc_queue_msg_st *make_record(uint64_t due_ms, uint32_t priority) {
    ipc_queue_msg_st *msg = create_ipc_queue_msg(0);
    std::memset(msg, 0, sizeof *msg);
    msg->retry_later = due_ms;
    msg->priority = priority;
    return msg;
}

// The first of the waiting records is taken and put back.
void queued_records(State &state) {
    ipc_queue_st queue = make_queue();
    const uint64_t now_ms = cl_event_loop_now();
    for (uint32_t i = 0; i < live(state); ++i) {
        ipc_queue_msg_st *msg = make_record(now_ms + i * 7919u % 100'000, i % 8);
        ipc_queue_push(&queue, &msg, now_ms);
    }
    for (auto _ : state) {
        ipc_queue_msg_st *msg = ipc_queue_pop(&queue);
        msg->retry_later += 50'000;
        ipc_queue_push(&queue, &msg, now_ms);
    }
    destroy_ipc_queue(&queue);
    state.SetComplexityN(state.range(0));
}

// The look-up that every message makes.
void module_infos(State &state) {
    ipc_queue_st queue = make_queue();
    std::vector<std::string> names(live(state));
    for (size_t i = 0; i < names.size(); ++i)
        ipc_queue_find_mod(&queue, (names[i] = "m" + std::to_string(i)).c_str());
    size_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ipc_queue_find_mod(&queue, names[at].c_str()));
        at = (at + 7919) % names.size();
    }
    destroy_ipc_queue(&queue);
    state.SetComplexityN(state.range(0));
}

// A piece comes for one of the incomplete messages.
void reassembly_sets(State &state) {
    auto ipc = std::make_unique<tav_ipc_st>();
    const unsigned char payload[1] = {};
    tav_ipc_hdr_st header{};
    header.size = sizeof payload;
    header.frag_orig = tavipc::kFragmentPayload + sizeof payload;
    tavipc::set_fragment(header, 1);
    const auto piece = [&](uint32_t id) {
        header.src.hostid = id >> 16;
        header.frag_id = static_cast<uint16_t>(id);
        return tavipc::add_fragment(ipc.get(), header, payload);
    };
    for (uint32_t id = 0; id < live(state); ++id) (void)piece(id);
    uint32_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(piece(at));
        at = (at + 7919) % live(state);
    }
    tavipc::release_fragments(ipc.get());
    state.SetComplexityN(state.range(0));
}

void timers(State &state) {
    std::vector<cl_timer_t> running(live(state));
    for (size_t i = 0; i < running.size(); ++i)
        running[i] = cl_timer_start(
            3'600'000 + i * 7919 % 100'000, [](void *) {}, nullptr);
    size_t at = 0;
    for (auto _ : state) {
        cl_timer_stop(running[at]);
        running[at] = cl_timer_start(
            3'600'000 + at, [](void *) {}, nullptr);
        at = (at + 7919) % running.size();
    }
    for (const cl_timer_t timer : running) cl_timer_stop(timer);
    state.SetComplexityN(state.range(0));
}

std::string event_text(size_t size) {
    std::string text;
    for (unsigned i = 0; text.size() < size; ++i)
        text += "event " + std::to_string(i * 2654435761u) + ": file opened, nothing found\n";
    text.resize(size);
    return text;
}

void compress(State &state) {
    const std::string text = event_text(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        void *out = nullptr;
        uint32_t size = 0;
        tav_compress(text.data(), static_cast<uint32_t>(text.size()), &out, &size, 0);
        std::free(out);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}

void uncompress(State &state) {
    const std::string text = event_text(static_cast<size_t>(state.range(0)));
    void *packed = nullptr;
    uint32_t packed_size = 0;
    tav_compress(text.data(), static_cast<uint32_t>(text.size()), &packed, &packed_size, 0);
    for (auto _ : state) {
        void *out = nullptr;
        uint32_t size = 0;
        tav_uncompress(packed, packed_size, &out, &size, 0);
        std::free(out);
    }
    std::free(packed);
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}

void table_sizes(benchmark::internal::Benchmark *b) {
    b->RangeMultiplier(10)->Range(100, 1'000'000)->Complexity(benchmark::oLogN);
}
void byte_sizes(benchmark::internal::Benchmark *b) {
    b->RangeMultiplier(8)->Range(1 << 10, 16 << 20)->Complexity(benchmark::oN);
}

BENCHMARK(requests)->Apply(table_sizes);
BENCHMARK(queued_records)->Apply(table_sizes);
BENCHMARK(module_infos)->Apply(table_sizes);
BENCHMARK(timers)->Apply(table_sizes);
// Each holds two pages at least: a million would be 8 GB.
BENCHMARK(reassembly_sets)->RangeMultiplier(10)->Range(100, 100'000)->Complexity(benchmark::oLogN);
BENCHMARK(compress)->Apply(byte_sizes);
BENCHMARK(uncompress)->Apply(byte_sizes);

// Runs this program again from an installation.
int run_installed(char **argv) {
    const tavipc::stage::Installation installation({{}, 2, false});
    const std::filesystem::path program = installation.config() / "../bin/tavipc-growth";
    std::filesystem::copy_file("/proc/self/exe", program);
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("TAVIPC_GROWTH_INSTALLED", "1", 1);
        execv(program.c_str(), argv);
        _exit(EXIT_FAILURE);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv) {
    if (!std::getenv("TAVIPC_GROWTH_INSTALLED")) return run_installed(argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return EXIT_FAILURE;
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
