// tavctl doctor: examines what the modules of an agent need, and says how to fix each fault. It makes and
// changes nothing; the endpoint that it opens at the end is closed again.
#include "agent/doctor.h"

#include <filesystem>
#include <sstream>

#include <unistd.h>

#include "agent/identity.h"
#include "cli/problem.h"
#include "commands.h"
#include "look/sockets.h"
#include "module/module.h"

namespace fs = std::filesystem;

namespace tavctl {
namespace {

constexpr size_t kVerdictWidth = 9, kCheckWidth = 18, kIndent = kVerdictWidth + kCheckWidth; // characters

// The text in lines of at most width characters (0: one line), with an indent before each but the first.
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

// Users paste a remedy, so its lines stay whole.
std::string remedy_lines(const std::string &remedy) {
    std::istringstream lines(remedy);
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        const std::string title = text.empty() ? padded("", kVerdictWidth) + "what to do:" : "";
        text += "\n" + padded(title, kIndent) + line;
    }
    return text;
}

Finding check_endpoint(const AgentState &agent) {
    if (!agent.allowed || !agent.has_id || !agent.directory)
        return skip("not tried, because of the findings above");
    Exchange exchange;
    try {
        const Module module;
        exchange.begin = now_seconds();
        tav_ipc_probe(module, tav_ipc_get_local_addr(module), Exchange::on_status, &exchange);
        run_until([&] { return exchange.ended; }, 10s);
        const std::string took = time_text(now_seconds() - exchange.begin);
        if (exchange.ended && exchange.code == 0)
            return ok(module.text() + " opened, and answered itself in " + took);
        return fail(module.text() + " opened, but did not answer itself in " + took,
                    "tavctl --verbose doctor");
    } catch (const Problem &problem) {
        return fail(problem.what(), problem.remedy());
    }
}

} // namespace

bool Findings::add(const char *check, const Finding &finding) {
    constexpr std::array<const char *, Finding::kVerdicts> kNames = {"ok", "warn", "FAIL", "skipped"};
    const char *verdict = kNames[finding.verdict];
    const std::string seen = one_line(finding.seen), remedy = harmless(finding.remedy);
    ++counts_[finding.verdict];
    Record record("check", check, "verdict", verdict, "seen", seen);
    if (!remedy.empty()) record.add("remedy", remedy);
    out_.say(record, "",
             padded(verdict, kVerdictWidth) + padded(check, kCheckWidth) + folded(seen, out_.width()) +
                 remedy_lines(remedy));
    return finding.verdict == Finding::kOk || finding.verdict == Finding::kWarn;
}

bool Findings::summarize() const {
    const auto &[ok, warn, fail, skipped] = counts_;
    const Record record("check", "summary", "ok", ok, "warn", warn, "fail", fail, "skipped", skipped);
    out_.say(record, "\n",
             counted(ok + warn + fail + skipped, "check") + record.fill(": {ok,} ok") +
                 (warn ? record.fill(", {warn,} to look at") : "") +
                 (fail ? record.fill(", {fail,} FAILED") : "") +
                 (skipped ? record.fill(", {skipped,} skipped") : ""));
    return fail == 0;
}

std::string as_root(const std::string &command) { return (geteuid() == 0 ? "" : "sudo ") + command; }
std::string this_user() { return user_name(geteuid()); }
std::string config_directory() {
    const std::string found = configuration_directory();
    std::error_code error;
    const fs::path plain = fs::weakly_canonical(found, error);
    return error ? found : plain.string();
}

int doctor(Console &out, const Args &) {
    Findings findings(out);
    const AgentState agent = check_agent(findings);
    check_machine(findings);
    findings.add("endpoint", check_endpoint(agent));
    return findings.summarize() ? kSuccess : kFailure;
}

} // namespace tavctl
