// tavctl doctor: examines what the modules of an agent stand on, and tells for each fault what mends it. It
// makes and changes nothing; the endpoint that it opens at the end is gone with it.
#include "doctor.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <sstream>

#include <unistd.h>

#include "commands.h"
#include "identity.h"
#include "module.h"
#include "problem.h"
#include "processes.h"

namespace fs = std::filesystem;

namespace tavctl {
namespace {

constexpr size_t kVerdictWidth = 9, kCheckWidth = 18, kIndent = kVerdictWidth + kCheckWidth;

// The text in lines of so many columns (0: one line), each but the first behind the indent.
std::string folded(const std::string &text, size_t width) {
    std::istringstream words(text);
    std::string lines;
    size_t column = 0;
    for (std::string word; words >> word; column += word.size()) {
        if (column > 0 && width > kIndent && kIndent + column + 1 + word.size() > width) {
            lines += "\n" + std::string(kIndent, ' ');
            column = 0;
        } else if (column > 0) {
            lines += ' ';
            ++column;
        }
        lines += word;
    }
    return lines;
}

// A remedy is there to be pasted: its lines stay whole.
std::string remedy_lines(const std::string &remedy) {
    std::istringstream lines(remedy);
    std::string text;
    for (std::string line; std::getline(lines, line);)
        text += "\n" +
                (text.empty() ? padded(padded("", kVerdictWidth) + "what to do:", kIndent)
                              : std::string(kIndent, ' ')) +
                line;
    return text;
}

int on_probed(int32_t code, void *user) {
    *static_cast<int *>(user) = code;
    return 0;
}

void check_endpoint(Findings &findings, const AgentState &agent) {
    if (!agent.allowed || !agent.has_id || !agent.directory)
        return findings.skip("endpoint", "not tried, because of what stands above");
    constexpr int kUnknown = -1;
    int code = kUnknown; // before the endpoint: its end completes what is outstanding
    try {
        const Module module(Module::kReceiving);
        const double begin = now_seconds();
        tav_ipc_probe(module, tav_ipc_get_local_addr(module), on_probed, &code);
        run_until([&] { return code != kUnknown; }, 10s);
        const std::string took = time_text(now_seconds() - begin);
        if (code == 0)
            findings.ok("endpoint", module.text() + " opened, and answered itself in " + took);
        else
            findings.fail("endpoint", module.text() + " opened, but did not answer itself in " + took,
                          "tavctl --verbose doctor");
    } catch (const Problem &problem) {
        findings.fail("endpoint", problem.what(), problem.remedy());
    }
}

} // namespace

void Findings::add(Verdict verdict, const char *check, const std::string &seen, const std::string &remedy) {
    constexpr std::array<const char *, kVerdicts> kNames = {"ok", "warn", "FAIL", "skipped"};
    ++counts_[verdict];
    Record record;
    record.add("check", check).add("verdict", kNames[verdict]).add("seen", one_line(seen));
    if (!remedy.empty()) record.add("remedy", harmless(remedy));
    out_.say(record, padded(kNames[verdict], kVerdictWidth) + padded(check, kCheckWidth) +
                         folded(one_line(seen), out_.width()) + remedy_lines(harmless(remedy)));
}

bool Findings::tell_summary() {
    size_t checks = 0;
    for (const size_t count : counts_) checks += count;
    Record record;
    record.add("check", "summary").add("ok", counts_[kOk]).add("warn", counts_[kWarn]);
    record.add("fail", counts_[kFail]).add("skipped", counts_[kSkipped]);
    const auto part = [&](Verdict verdict, const char *name) {
        return counts_[verdict] ? ", " + grouped(counts_[verdict]) + " " + name : "";
    };
    out_.say(record, "\n" + grouped(checks) + " checks: " + grouped(counts_[kOk]) + " ok" +
                         part(kWarn, "to look at") + part(kFail, "FAILED") + part(kSkipped, "skipped"));
    return counts_[kFail] == 0;
}

std::string as_root(const std::string &command) { return (geteuid() == 0 ? "" : "sudo ") + command; }

std::string this_user() { return user_name(geteuid()); }
std::string executable() { return fs::read_symlink("/proc/self/exe"); }
std::string config_directory() {
    const std::string found = configuration_directory();
    std::error_code error;
    const fs::path plain = fs::weakly_canonical(found, error); // without "bin/.."
    return error ? found : plain.string();
}

int doctor(Console &out, const DoctorOptions &) {
    Findings findings(out);
    const AgentState agent = check_agent(findings);
    check_machine(findings);
    check_endpoint(findings, agent);
    return findings.tell_summary() ? kSuccess : kFailure;
}

} // namespace tavctl
