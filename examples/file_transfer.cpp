// Sends a file with its name and shows the progress; receives files under the names that they are sent with.
//
//   file_transfer receive DIRECTORY      # opens "store", keeps each file in the directory
//   file_transfer send FILE              # sends the file to "store"
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include <tavipc/tavipc.hpp>

using namespace std::chrono_literals;

namespace {

tavipc::Task send(tavipc::EndpointRef self, std::string path, std::error_code &result) {
    const std::string name = std::filesystem::path(path).filename();
    const auto show = [](uint64_t confirmed, uint64_t size) {
        std::printf("%llu of %llu bytes\n", static_cast<unsigned long long>(confirmed),
                    static_cast<unsigned long long>(size));
    };
    result = co_await self.send_file("store", path.c_str(), name.c_str(), 5s, show);
    cl_event_loop_stop();
}

int send(const char *path) {
    const tavipc::Endpoint sender("sender");
    std::error_code result = sender.error();
    if (sender) {
        const tavipc::Task work = send(sender, path, result);
        if (!work.done()) cl_event_loop_run();
    }
    std::puts(result ? result.message().c_str() : "sent");
    return result ? 1 : 0;
}

int receive(const std::string &directory) {
    const tavipc::Endpoint store(
        "store", tavipc::OnFile([&directory](tavipc::EndpointRef, const tav_ipc_file_st &file) {
            // The name is the sender's choice: it has no "/", but may be empty or that of another file.
            const std::string name = file.name[0] ? file.name : "unnamed";
            std::error_code failed;
            std::filesystem::copy(file.path, directory + "/" + name, failed); // replaces nothing
            std::remove(file.path);                                           // or let the library do it
            std::printf("%s %s/%s\n", failed ? failed.message().c_str() : "kept", directory.c_str(),
                        name.c_str());
            std::fflush(stdout);
        }));
    if (!store) return std::printf("no endpoint: %s\n", store.error().message().c_str()), 1;
    std::puts("ready");
    std::fflush(stdout);
    cl_event_loop_run(); // until the process is killed
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    const std::string what = argc == 3 ? argv[1] : "";
    if (what == "send") return send(argv[2]);
    if (what == "receive") return receive(argv[2]);
    std::puts("usage: file_transfer receive DIRECTORY | send FILE");
    return 2;
}
