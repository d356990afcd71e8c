#include "command_line.h"

#include <functional>
#include <memory>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "commands.h"
#include "completion.h"
#include "help.h"
#include "module.h"

namespace tavctl {
namespace {

constexpr const char *kFooter = "\nAn endpoint is given as NAME or NAME@LOCATION.\n"
                                "Exit status: 0 done; 1 failed, refused; 2 wrong usage; 3 nobody answered; 4 "
                                "the tool itself may not open an\n"
                                "endpoint. tavctl COMMAND --help tells more, tavctl(1) all.";

// "-1" would be read as a very large number, "010" as 8, and no comparison holds for "nan".
const CLI::Validator kDecimal(
    [](std::string &text) {
        const bool fine = !text.empty() && text.size() < 19 &&
                          text.find_first_not_of("0123456789") == text.npos &&
                          (text == "0" || text[0] != '0');
        return fine ? std::string() : "\"" + text + "\" is no number";
    },
    "");
const CLI::Validator kFinite(
    [](std::string &text) {
        const bool fine = !text.empty() && text.find_first_not_of("0123456789.") == text.npos;
        return fine ? std::string() : "\"" + text + "\" is no time in seconds";
    },
    "");

class CommandLine {
  public:
    CommandLine() {
        app_.require_subcommand(1);
        app_.formatter(std::make_shared<HelpFormat>());
        app_.get_formatter()->label("SUBCOMMAND", "COMMAND");
        app_.set_version_flag("--version", TAVIPC_VERSION);
        app_.add_flag("--json", json_, "One JSON object a line, for programs");
        app_.add_flag("-v,--verbose", verbose_, "The library's log on standard error");
        app_.add_option("--agent", agent_, "Run the tavctl of another agent, DIR/bin/tavctl")
            ->type_name("DIR");
        app_.fallthrough();
        add_looking();
        add_talking();
        add_files();
        add_allowlist();
        add_machine();
        app_.footer(kFooter); // now, so that the commands have none
    }

    int run(int argc, char **argv) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::ParseError &error) {
            return app_.exit(error) == 0 ? kSuccess : kMisuse;
        }
        if (app_.get_option("--agent")->count() > 0) become_other(argc, argv);
        Console out;
        if (json_) out.use_json();
        keep_log(verbose_);
        const int status = command_(out);
        out.finish();
        return status;
    }

  private:
    // A subcommand, and the record that its options fill.
    template <class Options> struct Entry {
        CLI::App *app;
        std::shared_ptr<Options> options;
        CLI::App *operator->() const { return app; }
    };
    static CLI::App *add_command(CLI::App &parent, const char *name, const char *help) {
        return parent.add_subcommand(name, help)->group("Commands");
    }
    template <class Options>
    Entry<Options> add(CLI::App &parent, const char *name, const char *help,
                       int (*function)(Console &, const Options &)) {
        Entry<Options> entry{add_command(parent, name, help), std::make_shared<Options>()};
        entry->callback([this, function, options = entry.options] {
            command_ = [function, options](Console &out) { return function(out, *options); };
        });
        return entry;
    }
    static void count(CLI::App *app, uint64_t &value, const char *help) {
        app->add_option("-c,--count", value, help)->type_name("N")->check(kDecimal)->capture_default_str();
    }
    static void destination(CLI::App *app, std::string &value) {
        app->add_option("NAME", value, "The endpoint: NAME or NAME@LOCATION")->required();
    }
    static void timeout(CLI::App *app, int &value) {
        app->add_option("-t,--timeout", value, "Wait so long for an answer")
            ->type_name("SECONDS")
            ->check(CLI::Range(1, 86400))
            ->capture_default_str();
    }
    static void payload(CLI::App *app, PayloadOptions &options) {
        auto *data = app->add_option("DATA", options.data, "The payload (default: standard input)");
        auto *file =
            app->add_option("-f,--file", options.file, "The payload is this file (-: standard input)");
        file->type_name("FILE")->excludes(data);
        app->add_flag("--hex", options.hex, "DATA is hexadecimal text");
        app->add_flag("--app", options.app, "An application message with this body");
        app->add_option("--priority", options.priority,
                        "Its priority, 0 to 255 (0 counts as 4; 7 and more are urgent)")
            ->type_name("N")
            ->check(CLI::Range(0, 255));
        app->add_flag("--compress", options.compress, "Its body may travel compressed");
    }
    template <class Number> static void command_code(CLI::App *app, Number &value, const char *help) {
        app->add_option("--cmd", value, help)->type_name("CODE");
    }
    static void shown(CLI::App *app, bool &hex, bool &raw, size_t &max_bytes) {
        app->add_flag("--hexdump", hex, "Payloads as hexadecimal rows, also where they are text");
        app->add_flag("--raw", raw, "The payload bytes alone, as they are");
        app->add_option("--max-bytes", max_bytes, "Show so much of a payload")
            ->type_name("N")
            ->capture_default_str();
    }

    void add_looking();
    void add_talking();
    void add_files();
    void add_allowlist();
    void add_machine();
    [[noreturn]] void become_other(int argc, char **argv) const;

    CLI::App app_{
        "Looks at the endpoints of an agent's modules, talks to them, and keeps the signed allow-list.",
        "tavctl"};
    bool json_ = false, verbose_ = false;
    std::string agent_;
    std::function<int(Console &)> command_;
};

void CommandLine::add_looking() {
    const auto list =
        add(app_, "list", "Endpoint sockets: live or stale, their process and user", list_sockets);
    list->add_option("--deploy-type", list.options->deploy_types,
                     "Look below /var/TYPE too (may be repeated)")
        ->type_name("TYPE");
    list->add_flag("--clean", list.options->clean, "Remove stale files, never a live one");
    list->add_flag("--pool", list.options->pool, "Show each sending socket instead of their number");
    list->add_flag("--names", list.options->names, "The names of live endpoints alone");

    const auto probing =
        add(app_, "probe", "Asks whether an endpoint receives, and tells the round-trip times", probe);
    destination(probing.app, probing.options->destination);
    count(probing.app, probing.options->count, "Probes; 0: until interrupted");
    probing->add_option("-i,--interval", probing.options->interval_s, "Time between two")
        ->type_name("SECONDS")
        ->check(kFinite)
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();

    const auto tracing =
        add(app_, "trace", "The switch of the message trace, and what its lines mean", trace);
    tracing->add_option("ACTION", tracing.options->action, "on, off or show")
        ->required()
        ->check(CLI::IsMember({"on", "off", "show"}));

    const auto explaining =
        add(app_, "explain", "Decodes the header of a datagram and verifies its check value", explain);
    auto *hex = explaining->add_option("HEX", explaining.options->hex,
                                       "The datagram in hexadecimal (default: standard input)");
    explaining->add_option("-f,--file", explaining.options->file, "The datagram's bytes are in this file")
        ->type_name("FILE")
        ->excludes(hex);
}

void CommandLine::add_talking() {
    const auto sending = add(app_, "send", "Sends a message and waits until it is delivered", send);
    destination(sending.app, sending.options->destination);
    payload(sending.app, sending.options->payload);
    command_code(sending.app, sending.options->command, "Command code (default 0)");
    sending->add_flag("!--no-confirm", sending.options->confirm,
                      "Do not ask the receiving library for a confirmation");
    timeout(sending.app, sending.options->timeout_s);
    count(sending.app, sending.options->count, "Send it so often");
    sending->add_option("-i,--interval", sending.options->interval_s, "Time between two")
        ->type_name("SECONDS")
        ->check(kFinite)
        ->check(CLI::Range(0.0, 86400.0));

    const auto listening = add(app_, "listen", "Opens an endpoint and prints the messages that come", listen);
    listening->add_option("NAME", listening.options->name, "The endpoint's name, 1 to 9 characters")
        ->required();
    count(listening.app, listening.options->count, "End after so many; 0: when interrupted");
    shown(listening.app, listening.options->hex, listening.options->raw, listening.options->max_bytes);

    const auto asking = add(app_, "request", "Sends a request and prints the answer", request);
    destination(asking.app, asking.options->destination);
    payload(asking.app, asking.options->payload);
    command_code(asking.app, asking.options->command, "Command code (default 0)");
    timeout(asking.app, asking.options->timeout_s);
    shown(asking.app, asking.options->hex, asking.options->raw, asking.options->max_bytes);

    const auto replying = add(app_, "reply", "Opens an endpoint and answers the requests that come", reply);
    replying->add_option("NAME", replying.options->name, "The endpoint's name, 1 to 9 characters")
        ->required();
    payload(replying.app, replying.options->payload);
    replying->add_flag("--echo", replying.options->echo, "Answer with the request's own bytes");
    command_code(replying.app, replying.options->command,
                 "Command code of the answers (default: the request's plus 1)");
    count(replying.app, replying.options->count, "End after so many; 0: when interrupted");
    replying->add_flag("-q,--quiet", replying.options->quiet, "Do not print the requests");
}

void CommandLine::add_files() {
    const auto sending = add(app_, "sendfile", "Sends a whole file", send_file);
    destination(sending.app, sending.options->destination);
    sending->add_option("FILE", sending.options->path, "The file")->required();
    sending
        ->add_option("-t,--timeout", sending.options->timeout_s, "Wait so long for each chunk's confirmation")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();

    const auto receiving =
        add(app_, "recvfile", "Receives files into a directory and prints their digests", receive_files);
    receiving->add_option("DIR", receiving.options->directory, "The directory")->required();
    receiving->add_option("--as", receiving.options->name, "The endpoint's name (default: one of its own)")
        ->type_name("NAME");
    count(receiving.app, receiving.options->count, "End after so many; 0: when interrupted");
}

void CommandLine::add_allowlist() {
    CLI::App &group =
        *add_command(app_, "allowlist", "The signed list of executables that may open endpoints");
    group.require_subcommand(1);
    const auto keygen =
        add(group, "keygen", "Makes a key pair; never replaces a private key", allowlist_keygen);
    keygen->add_option("--private", keygen.options->private_path, "Gets the private half")
        ->type_name("FILE")
        ->required();
    keygen->add_option("--public", keygen.options->public_path, "Gets the public half")
        ->type_name("FILE")
        ->required();

    const auto list = [&](const char *name, const char *help, int (*function)(Console &, const ListOptions &),
                          bool signs) {
        auto entry = add(group, name, help, function);
        const char *which = signs ? "The private key that signs" : "The public key (default: the library's)";
        auto *key = entry->add_option("--key", entry.options->key, which)->type_name("PEM");
        if (signs) key->required();
        entry
            ->add_option("--dir", entry.options->directory,
                         "The configuration directory (default: beside the tool's)")
            ->type_name("DIR");
        return entry;
    };
    for (const auto &entry : {list("add", "Adds executables by name, and signs", allowlist_add, true),
                              list("remove", "Removes executables, and signs", allowlist_remove, true)})
        entry->add_option("NAME", entry.options->names, "Names of executables, without directory")
            ->required();
    list("sign", "Signs the list as it is", allowlist_sign, true);
    const auto verify =
        list("verify", "Verifies the signature, and that each NAME is in the list", allowlist_verify, false);
    verify->add_option("NAME", verify.options->names, "Names of executables");

    const auto why =
        add(group, "why", "Tells in a line why an executable is refused, or that it is not", allowlist_why);
    why->add_option("PROCESS", why.options->process,
                    "A path, a process id, or the name of an executable beside tavctl")
        ->required();
}

void CommandLine::add_machine() {
    const auto id =
        add(app_, "id", "The agent id, where it comes from, and the configuration", show_identity);
    id->add_flag("--create", id.options->create, "Determine an id and store it when there is none");
    add(app_, "doctor", "Examines this machine and agent; tells what to mend", doctor);
    const auto measuring = add(app_, "bench", "Measures this machine, beside a plain socket", bench);
    measuring->add_option("--seconds", measuring.options->seconds, "Time for each work")
        ->type_name("SECONDS")
        ->check(kFinite)
        ->check(CLI::Range(0.05, 60.0))
        ->capture_default_str();
    CLI::App *completion = add_command(app_, "completion", "Prints the completion script for bash");
    completion->callback([this] { command_ = [this](Console &) { return print_bash_completion(app_); }; });
}

// Everything but --agent goes on to the other tool.
void CommandLine::become_other(int argc, char **argv) const {
    const std::string tool = agent_ + "/bin/tavctl";
    std::vector<char *> words{argv[0]};
    if (agent_.empty()) throw misuse("--agent names no directory");
    bool plain = false; // behind "--"
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        plain = plain || word == "--";
        if (!plain && word == "--agent")
            ++i;
        else if (plain || !word.starts_with("--agent="))
            words.push_back(argv[i]);
    }
    words.push_back(nullptr);
    execv(tool.c_str(), words.data());
    throw system_problem(
        "cannot run " + tool,
        "an agent has its own tavctl, because the allow-list goes by the executable: copy this one there "
        "and add it, tavctl allowlist add --key PRIVATE.pem --dir " +
            quoted(agent_ + "/config") + " tavctl");
}

} // namespace

int run_command_line(int argc, char **argv) { return CommandLine().run(argc, argv); }

} // namespace tavctl
