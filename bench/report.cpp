#include "report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

#include <sys/utsname.h>

namespace bench {
namespace {

const char *unit_text(Unit unit) {
    switch (unit) {
    case Unit::kMicrosecondsEach:
        return "us each";
    case Unit::kMillisecondsEach:
        return "ms each";
    case Unit::kThousandsPerSecond:
        return "1,000 a second";
    case Unit::kMilliseconds:
        return "ms";
    case Unit::kSeconds:
        return "s";
    }
    return "";
}

struct Summary {
    double median, least, most;
};

Summary summarize(std::vector<double> values) {
    std::erase_if(values, [](double value) { return std::isnan(value); });
    if (values.empty()) return {NAN, NAN, NAN};
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    const double median = values.size() % 2 ? values[half] : (values[half - 1] + values[half]) / 2;
    return {median, values.front(), values.back()};
}

Summary summarize(const Series &series, double Run::*field) {
    std::vector<double> values;
    for (const Run &run : series.runs) values.push_back(run.*field);
    return summarize(std::move(values));
}

// How many times as fast as the other the first series is, run by run of the same round.
Summary ratio(const WorkResults &results, const Series &other) {
    const Series &own = results.series.front();
    std::vector<double> values;
    for (size_t i = 0; i < own.runs.size() && i < other.runs.size(); ++i)
        values.push_back(results.work->more_is_better() ? own.runs[i].value / other.runs[i].value
                                                        : other.runs[i].value / own.runs[i].value);
    return summarize(std::move(values));
}

bool has_ratios(const WorkResults &results) {
    return std::strcmp(results.series.front().system->name, "tavipc") == 0;
}

std::string number(double value) {
    if (std::isnan(value)) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", value < 10 ? 2 : value < 100 ? 1 : 0, value);
    return text;
}

std::string first_line(const char *path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

std::string json_number(double value) { return std::isnan(value) ? "null" : std::to_string(value); }

std::string json_summary(const char *name, const Summary &summary) {
    return std::string("\"") + name + "\": {\"median\": " + json_number(summary.median) +
           ", \"least\": " + json_number(summary.least) + ", \"most\": " + json_number(summary.most) + "}";
}

} // namespace

std::string machine() {
    utsname system{};
    uname(&system);
    return std::to_string(std::thread::hardware_concurrency()) + " cores, Linux " + system.release +
           ", net.unix.max_dgram_qlen " + first_line("/proc/sys/net/unix/max_dgram_qlen") + ", load " +
           first_line("/proc/loadavg");
}

void print_table(const WorkResults &results) {
    const bool one_way = results.work->kind == Kind::kOneWay;
    std::printf("\n%s: %s (%s, %s is better)\n", results.work->name, results.work->title,
                unit_text(results.work->unit), results.work->more_is_better() ? "more" : "less");
    std::printf("  %-9s %9s  %-17s %-20s%s\n", "", "median", "range", "tavipc is as fast",
                one_way ? "   lost  CPU us/msg  waits/msg" : "");
    for (const Series &series : results.series) {
        const Summary value = summarize(series, &Run::value);
        const std::string range = number(value.least) + " - " + number(value.most);
        std::string compared;
        if (&series != &results.series.front() && has_ratios(results)) {
            const Summary times = ratio(results, series);
            compared = number(times.median) + " x (" + number(times.least) + " - " + number(times.most) + ")";
        }
        std::printf("  %-9s %9s  %-17s %-20s", series.system->name, number(value.median).c_str(),
                    range.c_str(), compared.c_str());
        if (one_way)
            std::printf(" %6.0f  %10.2f  %9.4f", summarize(series, &Run::lost).most,
                        summarize(series, &Run::cpu_us).median, summarize(series, &Run::waits).median);
        std::puts("");
    }
    std::fflush(stdout);
}

void write_json(const std::string &path, const std::vector<WorkResults> &all, unsigned rounds) {
    std::ofstream out(path);
    out << "{\"machine\": \"" << machine() << "\", \"rounds\": " << rounds << ", \"works\": [";
    const char *between = "\n";
    for (const WorkResults &results : all) {
        out << between << " {\"name\": \"" << results.work->name << "\", \"title\": \"" << results.work->title
            << "\", \"unit\": \"" << unit_text(results.work->unit)
            << "\", \"more_is_better\": " << (results.work->more_is_better() ? "true" : "false")
            << ", \"systems\": [";
        between = ",\n";
        const char *inner = "\n";
        for (const Series &series : results.series) {
            out << inner << "  {\"name\": \"" << series.system->name << "\", "
                << json_summary("value", summarize(series, &Run::value));
            if (has_ratios(results)) out << ", " << json_summary("tavipc_is_as_fast", ratio(results, series));
            if (results.work->kind == Kind::kOneWay)
                out << ", " << json_summary("lost", summarize(series, &Run::lost)) << ", "
                    << json_summary("sender_cpu_us", summarize(series, &Run::cpu_us)) << ", "
                    << json_summary("sender_waits", summarize(series, &Run::waits));
            out << "}";
            inner = ",\n";
        }
        out << "]}";
    }
    out << "\n]}\n";
    check(static_cast<bool>(out.flush()), path.c_str());
}

namespace {

// What the picture's bars and the names in its legend mean.
constexpr const char *kNotes[] = {
    "how many times as fast tavipc is",
    "raw-pair: two plain datagram sockets, connected to each other. raw-open: any process may send to the "
    "receiver.",
    "mmsg, mmsg-open: the same two with sendmmsg and recvmmsg, which transfer many datagrams in one call.",
    "busy-poll, batching: tavipc with these settings of its event library.",
    "A white slit marks a bar that is longer than the axis; its ratio is on the other side of the line."};

std::string svg_text(double x, int y, const char *anchor, const std::string &text) {
    char begin[80];
    std::snprintf(begin, sizeof begin, "<text x='%.1f' y='%d' text-anchor='%s'", x, y, anchor);
    return begin + (">" + text) + "</text>\n";
}

// A bar that the axis cuts off at x: the slit, and the ratio beyond the line at x_one.
std::string cut_mark(double x, double x_one, int y, double times) {
    const bool left = x < x_one;
    char slit[96];
    std::snprintf(slit, sizeof slit, "<path d='M%.1f %dl-4 8' stroke='#fff' stroke-width='2'/>\n",
                  left ? x + 8 : x - 4, y - 1);
    return slit + svg_text(left ? x_one + 3 : x_one - 3, y + 6, left ? "start" : "end",
                           "<tspan font-size='8'>" + number(times) + " x</tspan>");
}

constexpr int kLeft = 360, kWidth = 520, kBar = 7; // pixels
constexpr double kFrom = -2, kTo = 4;              // powers of two on the axis
constexpr const char *kColours[] = {"",        "#4269d0", "#97bbf5", "#6cc5b0", "#efb118", "#ff725c",
                                    "#a463f2", "#9c6b4e", "#ff8ab7", "#9498a0", "#2f8f7f"}; // of systems()

double x_of(double times) {
    return kLeft + (std::clamp(std::log2(times), kFrom, kTo) - kFrom) / (kTo - kFrom) * kWidth;
}

// The bars of a work, with its title, from y on, which is then below them.
std::string svg_bars(const WorkResults &results, int &y) {
    const int top = y;
    std::string rows;
    for (size_t i = 1; i < results.series.size(); ++i, y += kBar) {
        const double times = ratio(results, results.series[i]).median;
        if (std::isnan(times)) continue;
        const auto colour = static_cast<size_t>(results.series[i].system - systems().data());
        char bar[160];
        std::snprintf(bar, sizeof bar, "<rect x='%.1f' y='%d' width='%.1f' height='%d' fill='%s'/>\n",
                      std::min(x_of(1), x_of(times)), y, std::abs(x_of(times) - x_of(1)), kBar - 1,
                      kColours[colour]);
        rows += bar;
        if (times < std::exp2(kFrom) || times > std::exp2(kTo))
            rows += cut_mark(x_of(times), x_of(1), y, times);
    }
    return rows + "<text x='" + std::to_string(kLeft - 8) + "' y='" + std::to_string((top + y) / 2 + 4) +
           "' text-anchor='end'>" + results.work->title + "</text>\n";
}

// The names of the systems above the bars, and the axis down to y.
std::string svg_legend(int y) {
    std::string legend;
    for (size_t i = 1, x = 10; i < systems().size(); ++i, x += 90)
        legend += "<rect x='" + std::to_string(x) + "' y='8' width='10' height='10' fill='" + kColours[i] +
                  "'/><text x='" + std::to_string(x + 14) + "' y='17'>" + systems()[i].name + "</text>\n";
    for (double power = kFrom; power <= kTo; ++power) {
        const std::string x = std::to_string(x_of(std::exp2(power)));
        legend += "<path d='M" + x + " 30V" + std::to_string(y) + "' stroke='" +
                  (power == 0 ? "#000" : "#ddd") + "'/><text x='" + x + "' y='" + std::to_string(y + 14) +
                  "' text-anchor='middle'>" + number(std::exp2(power)) + " x</text>\n";
    }
    return legend;
}

} // namespace

// For each work a bar a system, from the line 1 (as fast) to the ratio, on a logarithmic axis.
void write_svg(const std::string &path, const std::vector<WorkResults> &all) {
    std::string rows;
    int y = 40;
    for (const WorkResults &results : all) {
        if (!has_ratios(results)) continue;
        rows += svg_bars(results, y);
        y += 10;
    }
    std::string legend = svg_legend(y);
    int note_y = y + 34;
    for (const char *note : kNotes) {
        legend += svg_text(kLeft + kWidth, note_y, "end", note);
        note_y += 18;
    }
    std::ofstream out(path);
    out << "<svg xmlns='http://www.w3.org/2000/svg' width='910' height='" << note_y
        << "' font-family='sans-serif' font-size='12'>\n<title>How many times as fast as others tavipc "
           "is</title>\n"
        << "<rect width='100%' height='100%' fill='#fff'/>\n"
        << legend << rows << "</svg>\n";
    check(static_cast<bool>(out.flush()), path.c_str());
}

} // namespace bench
