#include "ledger.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "process.h"

namespace tavipc::soak {

namespace {

constexpr double kUnderWay = 3, kFragmentIdle = 9;
// A chunk's time-out of 8 s is told this long after it was sent: counted in whole seconds, looked at once a
// second.
constexpr double kChunkTimeOut = 10.2, kChunkTimeOutSpread = 2.2;

uint64_t short_digest(const std::string &text) {
    return text.size() < 16 ? 0 : std::stoull(text.substr(0, 16), nullptr, 16);
}

// What the sender sent or the receiver got, whichever is read first.
void learn(Entry &entry, const std::string &digest) {
    const uint64_t sum = short_digest(digest);
    entry.changed |= entry.digest && entry.digest != sum;
    entry.digest = sum;
    entry.posted = true;
}

double overlap(const Gap &gap, double begin, double end) {
    return std::max(0.0, std::min(gap.end, end) - std::max(gap.begin, begin));
}

std::set<int> fragment_ids(const Entry &entry) {
    std::set<int> ids;
    const auto first = static_cast<uint64_t>(entry.begun * 1000),
               last = static_cast<uint64_t>(entry.ended * 1000);
    for (uint64_t ms = first; ms <= last; ++ms) {
        srand(static_cast<unsigned>(ms));
        ids.insert(rand() & 0xFFFF);
    }
    return ids;
}

} // namespace

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// --- what the modules say

void Ledger::note(size_t index, const std::string &event) {
    const auto w = stage::words(event);
    if (w.empty()) return;
    if (w[0] == "posted")
        note_posted(w);
    else if (w[0] == "exchanging")
        learn(entries.at(std::stoul(w.at(1))), w.at(2));
    else if (w[0] == "msg" || w[0] == "asked")
        note_delivery(index, w);
    else if (w[0] == "exchanged")
        note_completion(entries.at(std::stoul(w.at(1))), std::stoi(w.at(2)), w.at(3));
    else if (w[0] == "log")
        note_log(index, event);
}

void Ledger::note_posted(const std::vector<std::string> &w) {
    Entry &entry = entries.at(std::stoul(w.at(1)));
    learn(entry, w.at(6));
    entry.code = std::stoi(w.at(2));
    entry.begun = std::stod(w.at(4)) / 1e6;
    entry.ended = std::stod(w.at(5)) / 1e6;
}

void Ledger::note_delivery(size_t index, const std::vector<std::string> &w) {
    const size_t id = std::stoul(w.at(2));
    if (id == 0 || id >= entries.size()) return void(++unknown_);
    Entry &entry = entries[id];
    learn(entry, w.back());
    ++entry.delivered;
    entry.changed |= entry.to != index || w.at(1) != "m" + std::to_string(entry.from);
    bytes_ += entry.size;
    entry.took = static_cast<float>((w[0] == "msg" ? std::stod(w.at(4)) / 1e6 : now()) - entry.begun);
}

void Ledger::note_file_began(uint32_t id, const std::string &digest) { learn(entries.at(id), digest); }

void Ledger::note_file_got(size_t index, uint32_t size, const std::string &digest) {
    const auto found = files.find(size);
    if (found == files.end())
        return void(++other_lines_["a file without its beginning: its receiver was started anew meanwhile"]);
    Entry &entry = entries[found->second];
    learn(entry, digest);
    ++entry.delivered;
    entry.changed |= entry.to != index;
}

void Ledger::note_completion(Entry &entry, int32_t code, const std::string &answer) {
    entry.code = code;
    entry.answer = short_digest(answer);
    ++entry.completed;
    if (entry.kind == kFile && code < 0) entry.begun = std::max(entry.begun, now() - kChunkTimeOut);
}

// "... drop it|...|src=[4242:m1:2]|dest=[0:m2:0]|reqid=7|frag_seq=0|frag_id=0|size=100|frag_orig=0"
void Ledger::note_log(size_t index, const std::string &event) {
    const auto number = [&](const char *name) {
        return static_cast<uint32_t>(std::stoul(event.substr(event.find(name) + strlen(name))));
    };
    const std::string why = event.substr(6, event.find('|') - 6);
    const size_t dest = event.find("|dest=["), error = event.find("last_err=");
    if (event.find("drop it|") == std::string::npos || dest == std::string::npos)
        return void(++other_lines_[why.substr(0, why.find_first_of(":,[%"))]);
    const auto to = static_cast<uint8_t>(event[event.find(":m", dest) + 2] - '0');
    constexpr uint32_t kOurs = 0x80000000; // reqids of messages; the library drew the others
    const uint32_t reqid = number("|reqid=");
    if (reqid >= kOurs)
        dropped_.insert(reqid - kOurs);
    else
        drops_.push_back({static_cast<uint8_t>(index), to, number("|size="), now(), false});
    ++reasons_[why + ", " + event.substr(error, event.find(')', error) + 1 - error)];
}

// --- the account

// For how long one of the two sides did not run.
double Ledger::away(const Entry &entry, double until) const {
    double sum = 0;
    for (const uint8_t side : {entry.from, entry.to})
        for (const Gap &gap : gaps[side]) sum += overlap(gap, entry.begun, until);
    return sum;
}

bool Ledger::ran_too_little(const Entry &entry, double limit) const {
    return limit - away(entry, entry.begun + limit) < kUnderWay;
}

// Which end cut the entry off; empty when none.
std::string Ledger::cut_off(const Entry &entry) const {
    const double under_way = kUnderWay + (entry.kind == kFile && entry.code < 0 ? kChunkTimeOutSpread : 0);
    for (const uint8_t side : {entry.from, entry.to})
        for (const Gap &gap : gaps[side]) {
            if (gap.what == Gap::kStopped || gap.gone < entry.begun) continue;
            const double reached = std::max(gap.begin, entry.begun);
            if (reached - entry.begun - away(entry, reached) < under_way)
                return std::string(side == entry.from ? "its sender was " : "its receiver was ") +
                       (gap.what == Gap::kKilled ? "killed" : "closed");
        }
    return {};
}

// Whether its sender was killed or closed while it was outstanding.
bool Ledger::sender_ended(const Entry &entry, Gap::What what) const {
    return std::any_of(gaps[entry.from].begin(), gaps[entry.from].end(), [&](const Gap &gap) {
        return gap.what == what && gap.gone >= entry.begun &&
               gap.begin - away(entry, gap.begin) < entry.begun + entry.patience + 3;
    });
}

// Whether its sender was started after a kill not long ago: its ids count from 1 again, and an answer to the
// one before may come late.
bool Ledger::follows_killed(const Entry &entry) const {
    return std::any_of(gaps[entry.from].begin(), gaps[entry.from].end(), [&](const Gap &gap) {
        return gap.what == Gap::kKilled && gap.end <= entry.begun && gap.end > entry.begun - 30;
    });
}

bool Ledger::shares_id(uint32_t id) {
    if (by_fragment_id_.empty())
        for (uint32_t other = 1; other < entries.size(); ++other)
            if (entries[other].kind == kMessage && entries[other].size > kLargestDatagram)
                for (const int number : fragment_ids(entries[other]))
                    by_fragment_id_[{entries[other].to, number}].push_back(other);
    const Entry &entry = entries[id];
    for (const int number : fragment_ids(entry))
        for (const uint32_t other : by_fragment_id_[{entry.to, number}]) {
            const double apart = std::abs(entries[other].begun - entry.begun);
            // An unfinished set stays for up to 10 s and a walk of 60.
            if (other != id && apart < (entries[other].delivered == 1 ? 15 : 90)) return true;
        }
    return false;
}

// A line about a question or its answer, whose ids are not known: by size and time.
bool Ledger::find_drop(const Entry &entry) {
    const auto asked = [&](uint32_t size) {
        if (entry.kind == kFile)
            return size == kLargestDatagram || size == entry.size % kLargestDatagram || size == 0;
        return size == (entry.kind == kProbe ? 0 : entry.size);
    };
    const uint32_t answer = entry.kind == kRequest ? entry.size : 4;
    for (const bool back : {false, true})
        for (Drop &drop : drops_) {
            if (drop.used || drop.at < entry.begun || drop.at > entry.begun + 30) continue;
            if (drop.from == (back ? entry.to : entry.from) && drop.to == (back ? entry.from : entry.to) &&
                (back ? drop.size == answer : asked(drop.size)))
                return drop.used = true;
        }
    return false;
}

std::string Ledger::judge_message(uint32_t id) {
    const Entry &entry = entries[id];
    const bool fragmented = entry.size > kLargestDatagram;
    if (!entry.posted) return cut_off(entry).empty() ? "FAULT: no result" : "not sent: its sender was killed";
    if (entry.code != 0) return entry.delivered ? "FAULT: refused and delivered" : "refused";
    const bool dropped = dropped_.count(id) > 0;
    if (entry.delivered == 1 && !entry.changed) return dropped ? "FAULT: delivered and dropped" : "delivered";
    if (dropped && entry.delivered == 0) return "dropped";
    if (fragmented && shares_id(id))
        return entry.delivered ? "changed: shared fragment id" : "lost: shared fragment id";
    if (entry.delivered > 1) return "FAULT: delivered twice";
    if (entry.changed) return "FAULT: changed";
    if (const std::string why = cut_off(entry); !why.empty()) return "lost: " + why;
    return fragmented && ran_too_little(entry, kFragmentIdle) ? "lost: fragments expired" : "FAULT: lost";
}

std::string Ledger::judge_exchange(uint32_t id) {
    const Entry &entry = entries[id];
    const bool file = entry.kind == kFile, success = file ? entry.code >= 0 : entry.code == 0;
    const std::string kind = kKindNames[entry.kind], fault = "FAULT: " + kind;
    if (entry.completed > 1) return fault + " completed twice";
    if (entry.completed == 0)
        return sender_ended(entry, Gap::kKilled) ? kind + ": its process was killed"
                                                 : fault + " never completed";
    if (entry.delivered > 1 || entry.changed) return fault + " delivered twice or changed";
    const std::string outcome = kind + ' ' + (success ? "0" : std::to_string(entry.code));
    if (success) {
        const bool wrong = entry.kind == kRequest && entry.answer != entry.digest;
        const bool missing = entry.kind != kProbe && entry.delivered != 1 && cut_off(entry).empty();
        if ((wrong || missing) && follows_killed(entry)) return outcome + ", the answer to its predecessor";
        if (wrong) return fault + ", wrong answer";
        if (missing) return fault + " not delivered";
        return outcome;
    }
    const bool explained =
        entry.code == -102 ? !cut_off(entry).empty() ||
                                 ran_too_little(entry, entry.kind == kProbe ? 4 : 7.5) || find_drop(entry)
        : entry.code == -103
            ? sender_ended(entry, Gap::kClosed)
            : entry.code == -101 || (file && entry.code == -106); // two drew the same file id
    return explained ? outcome : "FAULT: " + outcome;
}

// When its sides did not run, around that time.
void Ledger::show_gaps(const Entry &entry, double begun) const {
    for (const uint8_t side : {entry.from, entry.to})
        for (const Gap &gap : gaps[side])
            if (gap.end > entry.begun - 15 && gap.begin < entry.begun + 30)
                std::printf("    m%u was %s from %.3f s to %.3f s\n", side,
                            gap.what == Gap::kStopped  ? "stopped"
                            : gap.what == Gap::kKilled ? "killed"
                                                       : "closed",
                            gap.begin - begun, gap.end - begun);
}

bool Ledger::report(double begun) {
    std::map<std::string, uint64_t> verdicts;
    uint64_t faults = unknown_;
    const auto show = [&](const std::string &what, uint32_t id) {
        const Entry &entry = entries[id];
        std::printf(
            "%s: %s %u of %u bytes, m%u (life %d) to m%u at %.3f s, delivered %u times, %.1f s later\n",
            what.c_str(), kKindNames[entry.kind], id, entry.size, entry.from, entry.life, entry.to,
            entry.begun - begun, entry.delivered, entry.took);
    };
    uint32_t slowest = 0;
    double longest = 0;
    std::vector<uint32_t> order; // those whose log lines have a size of their own choose first
    for (const Kind kind : {kMessage, kRequest, kConfirm, kProbe, kFile})
        for (uint32_t id = 1; id < entries.size(); ++id)
            if (entries[id].kind == kind) order.push_back(id);
    for (const uint32_t id : order) {
        const Entry &entry = entries[id];
        const bool message = entry.kind == kMessage;
        const std::string verdict = message ? judge_message(id) : judge_exchange(id);
        ++verdicts[(message ? "message: " : "exchange: ") + verdict];
        if (verdict.compare(0, 5, "FAULT") == 0 && ++faults <= 20) {
            show(verdict, id);
            show_gaps(entry, begun);
        }
        const double took = entry.took - away(entry, entry.begun + entry.took);
        if (took > longest) longest = took, slowest = id;
    }
    std::printf("%zu entries, %.1f GB delivered, %" PRIu64 " unknown messages\n", entries.size() - 1,
                static_cast<double>(bytes_) / 1e9, unknown_);
    std::printf("slowest delivery: %.1f s, standing still aside; ", longest);
    show("it was", slowest);
    for (const auto &[title, counts] : {std::pair{"", &verdicts},
                                        {"log lines of drops, one for each datagram:\n", &reasons_},
                                        {"other log lines and notes:\n", &other_lines_}}) {
        std::fputs(title, stdout);
        for (const auto &[what, count] : *counts) std::printf("%10" PRIu64 "  %s\n", count, what.c_str());
    }
    return faults == 0;
}

} // namespace tavipc::soak
