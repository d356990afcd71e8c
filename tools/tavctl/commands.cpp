// All commands, in the order of the help text, with their options (see Command).
#include "commands.h"

#define DESTINATION "NAME  The endpoint: NAME or NAME@LOCATION\n"
#define OWN_NAME "NAME  The endpoint's name, 1 to 9 characters\n"
#define PAYLOAD                                                                                              \
    "[DATA]  The payload (default: standard input)\n"                                                        \
    "-f, --file FILE  The payload is this file (-: standard input)\n"                                        \
    "--hex  DATA is hexadecimal text\n"                                                                      \
    "--app  An application message with this body\n"                                                         \
    "--priority N:0-255  Priority 0 to 255 (0 counts as 4; 7 or more: urgent)\n"                             \
    "--compress  Its body may travel compressed\n"
#define SHOWN                                                                                                \
    "--hexdump  Payloads as hexadecimal rows, also where they are text\n"                                    \
    "--raw  The bytes of the payload alone\n"
#define COMMAND_CODE "--cmd CODE:0-4294967295  Command code"
#define TIMEOUT "-t, --timeout SECONDS:1-86400="
#define LIST_FILES "--dir DIR  The configuration directory (default: beside the tool's)\n"
#define SIGNED_LIST "--key PEM!  The private key that signs\n" LIST_FILES

namespace tavctl {
namespace {

constexpr Command kCommands[] = {
    {"list", "Show endpoint sockets: live or stale, their process and user",
     "--deploy-type TYPE  Look below /var/TYPE too (may be repeated)\n"
     "--clean  Remove stale files, never a live one\n"
     "--pool  Show each sending socket instead of their number\n"
     "--names  Print only the names of live endpoints\n"
     "--all  Also endpoints of other locations that the bridge has heard\n",
     list},
    {"stats", "Show the counters of running, stopped and killed modules",
     "[NAME]  The endpoint: NAME or NAME@LOCATION (default: all)\n"
     "--deploy-type TYPE  Look below /var/TYPE too (may be repeated)\n"
     "--prometheus  In the text format that Prometheus scrapes\n",
     stats},
    {"top", "Show rates, what waits and what is dropped, as a live table",
     "-c, --count N=0  End after N tables; 0: until q or an interrupt\n"
     "-i, --interval SECONDS:0-3600=1  Time between two tables\n"
     "--sort COLUMN=waiting  The column to sort by\n"
     "--deploy-type TYPE  Look below /var/TYPE too (may be repeated)\n",
     top},
    {"probe", "Ask whether an endpoint receives, and measure the round-trip time",
     DESTINATION "-c, --count N=4  Number of probes; 0: until interrupted\n"
                 "-i, --interval SECONDS:0-86400=1  Time between two probes\n",
     probe},
    {"monitor", "Show the messages of running modules as they are sent and received",
     "[NAME...]  Only those from or to these endpoints\n"
     "--deploy-type TYPE  Monitor below /var/TYPE too (may be repeated)\n"
     "--cmd CODE:0-4294967295  Only this command code\n"
     "--kind KIND  Only message, request, answer, ack, probe or file (may be repeated)\n"
     "--outcome WORD  Only sent, waiting, dropped, received, refused or incomplete (may be repeated)\n"
     "--payload N:0-64000  Show at most N bytes of each payload\n"
     "--hexdump  Payloads as hexadecimal rows, also where they are text\n"
     "--pcap FILE  Write the datagrams to a pcapng file instead (-: standard output)\n"
     "-c, --count N=0  End after N messages or, in a file, datagrams; 0: when interrupted\n",
     monitor},
    {"log", "Set the log level of a running module",
     DESTINATION "LEVEL  0 to 4: as TAV_LOG_LEVEL\n" TIMEOUT "2  Wait this long for the module\n", log_level},
    {"trace", "Switch the message trace, or show whether it is on", "ACTION  on, off or show\n", trace},
    {"explain", "Decode the header of a datagram and verify its check value",
     "[HEX]  The datagram in hexadecimal (default: standard input)\n"
     "-f, --file FILE  The datagram's bytes are in this file\n",
     explain},
    {"send", "Send a message and wait until it is delivered",
     DESTINATION PAYLOAD COMMAND_CODE
     " (default 0)\n"
     "--no-confirm  Do not ask the receiving library for a confirmation\n" TIMEOUT
     "5  Wait this long for an answer\n"
     "-c, --count N=1  Send it N times\n"
     "-i, --interval SECONDS:0-86400  Time between two messages\n",
     send},
    {"listen", "Open an endpoint and print the messages that come",
     OWN_NAME "-c, --count N=0  End after N messages; 0: when interrupted\n" SHOWN
              "--max-bytes N=256  Show at most N bytes of a payload\n",
     listen},
    {"request", "Send a request and print the answer",
     DESTINATION PAYLOAD COMMAND_CODE " (default 0)\n" TIMEOUT "5  Wait this long for an answer\n" SHOWN
                                      "--max-bytes N=4096  Show at most N bytes of a payload\n",
     request},
    {"reply", "Open an endpoint and answer the requests that come",
     OWN_NAME PAYLOAD "--echo  Answer with the request's own bytes\n" COMMAND_CODE
                      " of the answers (default: the request's plus 1)\n"
                      "-c, --count N=0  End after N requests; 0: when interrupted\n"
                      "-q, --quiet  Do not print the requests\n",
     reply},
    {"sendfile", "Send a whole file",
     DESTINATION "FILE  The file\n" TIMEOUT "10  Wait this long for the confirmation of each chunk\n",
     send_file},
    {"recvfile", "Receive files into a directory and print their digests",
     "DIR  The directory\n"
     "--as NAME  The endpoint's name (default: one of its own)\n"
     "-c, --count N=0  End after N files; 0: when interrupted\n",
     receive_files},
    {"allowlist keygen", "Make a key pair; a private key is never replaced",
     "--private FILE!  File for the private half\n--public FILE!  File for the public half\n", keygen},
    {"allowlist add", "Add executables by name, and sign the list",
     SIGNED_LIST "NAME...  Names of executables, without directory\n", allowlist_add},
    {"allowlist remove", "Remove executables, and sign the list",
     SIGNED_LIST "NAME...  Names of executables, without directory\n", allowlist_remove},
    {"allowlist sign", "Sign the list as it is", SIGNED_LIST, allowlist_sign},
    {"allowlist verify", "Verify the signature, and that each NAME is in the list",
     "--key PEM  The public key (default: the library's)\n" LIST_FILES "[NAME...]  Names of executables\n",
     allowlist_verify},
    {"allowlist why", "Explain why an executable is refused, or that it is not",
     "PROCESS  A path, a process id, or the name of an executable beside tavctl\n", allowlist_why},
    {"id", "Show the agent id, where it comes from, and the configuration",
     "--create  Determine an id and store it when there is none\n", show_identity},
    {"doctor", "Examine this machine and agent, and say how to fix what is wrong", "", doctor},
    {"completion", "Print the completion script for bash",
     "[WORD...]  Complete the last of these words instead\n", completion},
};

constexpr char kScript[] = R"SCRIPT(# bash completion for tavctl; made by "tavctl completion".
_tavctl() {
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" completion -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o default -F _tavctl tavctl
)SCRIPT";

// Bash completes file names where this is empty.
std::set<std::string> candidates(const std::vector<std::string> &words) {
    std::vector<Option> options = options_of(kGlobalOptions);
    std::string path; // of the command or group, with a blank behind it
    const Command *command = nullptr;
    for (const std::string &word : words)
        for (const Command &each : commands()) {
            const std::string name = std::string(each.name) + " ";
            if (command || !name.starts_with(path + word + " ")) continue;
            path += word + " ";
            if (name != path) break; // a group
            for (Option &own : options_of(each.usage)) options.push_back(std::move(own));
            command = &each;
        }
    std::set<std::string> found;
    const Option *last = words.empty() ? nullptr : find_option(options, words.back());
    if (last && !last->value.empty()) return found;
    for (const Option &option : options)
        if (!option.argument) found.insert(option.names.begin(), option.names.end());
    for (const Command &each : commands())
        if (const std::string name = each.name; !command && name.starts_with(path))
            found.insert(name.substr(path.size(), name.find(' ', path.size()) - path.size()));
    if (path == "trace ") found.insert({"on", "off", "show"});
    for (const char *asking : {"probe ", "send ", "request ", "sendfile ", "stats ", "monitor ", "log "})
        if (path == asking) found.merge(live_names());
    return found;
}

} // namespace

std::span<const Command> commands() { return kCommands; }

int completion(Console &, const Args &args) {
    std::vector<std::string> words = args.all("WORD");
    if (words.empty()) return std::cout << kScript, kSuccess;
    const std::string begun = words.back();
    words.pop_back();
    for (const std::string &candidate : candidates(words))
        if (candidate.starts_with(begun) && (candidate[0] != '-' || begun[0] == '-'))
            std::cout << candidate << '\n';
    return kSuccess;
}

} // namespace tavctl
