// Many requests at the same time, and the first answers win: the tasks that still wait are destroyed, which
// cancels their requests.
//
//   request_pool            # opens "worker" and "boss" in one process; prints what became of 100 requests
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include <tavipc/tavipc.hpp>

using namespace std::chrono_literals;

namespace {

constexpr int kRequests = 100, kWanted = 10;

struct Results {
    int answered = 0;
    uint64_t sum = 0;
};

tavipc::Task ask(tavipc::EndpointRef self, tavipc::Address worker, uint32_t number, Results &results) {
    const auto question = std::as_bytes(std::span(&number, 1));
    const tavipc::Reply reply = co_await self.request(worker, 1, question, 1h);
    if (!reply || reply.payload.size() != sizeof number) co_return;
    std::memcpy(&number, reply.payload.data(), sizeof number);
    results.sum += number;
    if (++results.answered == kWanted) cl_event_loop_stop();
}

} // namespace

int main() {
    const tavipc::Endpoint worker(
        "worker", tavipc::OnRequest([](tavipc::EndpointRef self, const tavipc::Request &request) {
            uint32_t number = 0;
            if (request.payload.size() != sizeof number) return;
            std::memcpy(&number, request.payload.data(), sizeof number);
            if (number % 10 != 0) return; // it never answers these
            number *= number;
            self.respond(request, 0, std::as_bytes(std::span(&number, 1)));
        }));
    const tavipc::Endpoint boss("boss");
    if (!worker || !boss) return std::puts("no endpoint"), 1;

    Results results;
    std::vector<tavipc::Task> pool;
    for (uint32_t number = 0; number < kRequests; ++number)
        pool.push_back(ask(boss, worker.address(), number, results));
    cl_event_loop_run();

    int cancelled = 0;
    for (const tavipc::Task &task : pool) cancelled += !task.done();
    pool.clear();
    std::printf("answered %d, sum of the squares %llu, cancelled %d\n", results.answered,
                static_cast<unsigned long long>(results.sum), cancelled);
}
