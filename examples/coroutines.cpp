// Requests, a confirmed message, a probe and a cancelled request, as a coroutine.
//
//   coroutines            # opens "clerk" and "asker" in one process; prints each result
#include <chrono>
#include <cstdio>

#include <tavipc/tavipc.hpp>

using namespace std::chrono_literals;
using tavipc::as_bytes;
using tavipc::as_text;

namespace {

void print(const char *what, const tavipc::Reply &reply) {
    const std::string_view text = as_text(reply.payload);
    std::printf("%s: %s %.*s\n", what, reply.error.message().c_str(), static_cast<int>(text.size()),
                text.data());
    std::fflush(stdout);
}

tavipc::Task ask(tavipc::EndpointRef self, tavipc::Address clerk) {
    print("request", co_await self.request(clerk, 1, as_bytes("hello"), 3s));
    print("confirmed", co_await self.confirmed(clerk, 2, as_bytes("to be kept"), 3s));
    print("probe", co_await self.probe("nobody", 1h)); // nobody is there
    print("patient probe", co_await self.probe("nobody", 10ms).wait_for_peer());
    cl_event_loop_stop();
}

tavipc::Task ask_in_vain(tavipc::EndpointRef self, tavipc::Address clerk) {
    print("unanswered", co_await self.request(clerk, 7, {}, 1h)); // its task is destroyed before
}

} // namespace

int main() {
    int kept = 0;
    const tavipc::Endpoint clerk(
        "clerk", tavipc::OnRequest([](tavipc::EndpointRef self, const tavipc::Request &request) {
            if (request.command == 7) return; // it never answers these
            if (const auto error = self.respond(request, request.command, request.payload))
                std::printf("no answer: %s\n", error.message().c_str());
        }),
        tavipc::OnMessage([&kept](tavipc::EndpointRef, const tavipc::Message &) { ++kept; }));
    const tavipc::Endpoint asker("asker");
    if (!clerk || !asker) {
        std::printf("no endpoint: %s\n", (clerk ? asker.error() : clerk.error()).message().c_str());
        return 1;
    }
    const tavipc::Task work = ask(asker, clerk.address());
    { const tavipc::Task cancelled = ask_in_vain(asker, clerk.address()); }
    cl_event_loop_run();
    std::printf("kept %d, done %d\n", kept, work.done());
}
