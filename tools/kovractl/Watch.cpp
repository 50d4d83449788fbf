#include "Watch.h"

#include <signal.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <kovrasandbox/Clock.h>

#include "Columns.h"

namespace kovra::tool {

namespace {

volatile sig_atomic_t gStop = 0;

void onInterrupt(int) {
    gStop = 1;
}

// Ctrl-C ends the watch after the current listing instead of killing the process mid-call.
void stopOnInterrupt() {
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// Sleeps `seconds`, or less when interrupted.
void sleepUnlessStopped(double seconds) {
    timespec left = {static_cast<time_t>(seconds),
                     static_cast<long>((seconds - static_cast<time_t>(seconds)) * 1e9)};
    while (!gStop && nanosleep(&left, &left) != 0) {
    }
}

std::vector<std::string> allColumns(std::vector<std::string> columns,
                                    const std::vector<std::string>& rated, bool watching) {
    if (watching) {
        for (const std::string& counter : rated) columns.push_back(counter + "PerSec");
    }
    return columns;
}

// Reads one listing, with rates when watching, sorted and cut; `total` is its row count before
// the cut.
Listing take(const View& view, const ListOptions& options, Rates* rates, size_t& total) {
    Listing listing = view.list();
    if (listing.rows.columns.empty()) listing.rows.columns = view.columns;
    if (rates != nullptr)
        rates->add(view, listing.rows, static_cast<double>(sandbox::monotonicNowNs()) / 1e9);
    total = listing.rows.rows.size();
    sortAndCut(listing.rows, options);
    return listing;
}

Json listingJson(const Listing& listing) {
    Json out = {{"rows", listing.rows.toJson()}};
    out.update(listing.changes);
    return out;
}

void printListing(const Context& ctx, const Listing& listing, size_t total, const View& view) {
    Output out{listing.changes.empty() ? listing.rows.toJson() : listingJson(listing)};
    std::string count = countOf(total, view.noun);
    if (listing.rows.rows.size() < total) {
        count = "top " + std::to_string(listing.rows.rows.size()) + " of " + count;
    }
    out.table(listing.rows).line(count);
    for (const std::string& line : listing.lines) out.line(line);
    render(ctx.format(), out);
}

// Plain decimal seconds from 0.1 to 3600, in the spirit of the other numbers: no sign, blank
// or exponent.
std::string checkSeconds(const std::string& text) {
    const size_t dot = text.find('.');
    const std::string whole = text.substr(0, dot);
    const std::string fraction = dot == std::string::npos ? "0" : text.substr(dot + 1);
    const bool plain = !whole.empty() && !fraction.empty() &&
                       whole.find_first_not_of("0123456789") == std::string::npos &&
                       fraction.find_first_not_of("0123456789") == std::string::npos;
    const double value = plain ? strtod(text.c_str(), nullptr) : 0;
    if (plain && value >= 0.1 && value <= 3600) return "";
    return "'" + text + "' is not a number of seconds from 0.1 to 3600";
}

}  // namespace

void addListOptions(CLI::App* command, ListOptions& options, bool watchable,
                    const std::vector<std::string>& columns,
                    const std::vector<std::string>& rated) {
    offerValues(command->add_option("--sort", options.sort, "Sort by this column, largest first"),
                allColumns(columns, rated, watchable));
    // 0 rows or 0 listings would mean nothing or, read as "no limit", a watch without end:
    // neither is what a user typing 0 expects, so both start at 1.
    command->add_option("--top", options.top, "Show only the first N rows (N from 1)")
            ->check(unsignedNumber(UINT32_MAX) & CLI::Range(uint64_t{1}, uint64_t{UINT32_MAX}));
    if (!watchable) return;
    CLI::Option* interval =
            command->add_option("--interval", options.interval,
                                "List again every SECONDS (0.1 to 3600), each listing stamped with "
                                "its time (stats: with per-second rates of the counters); Ctrl-C "
                                "ends it")
                    ->check(CLI::Validator(checkSeconds, "SECONDS"));
    command->add_option("--count", options.count,
                        "With --interval: stop after N listings (N from 1; without it, until "
                        "Ctrl-C)")
            ->check(unsignedNumber(UINT32_MAX) & CLI::Range(uint64_t{1}, uint64_t{UINT32_MAX}))
            ->needs(interval);
}

int present(const Context& ctx, const ListOptions& options, const View& view) {
    const bool watching = options.interval > 0;
    if (!options.sort.empty())
        columnIndex(allColumns(view.columns, view.rated, watching), options.sort);
    size_t total = 0;
    if (!watching) {
        const Listing listing = take(view, options, nullptr, total);
        printListing(ctx, listing, total, view);
        return kExitOk;
    }
    stopOnInterrupt();
    const bool terminal = isatty(STDOUT_FILENO) && !ctx.jsonOutput();
    Rates rates;
    for (size_t n = 0; !gStop && (options.count == 0 || n < options.count); ++n) {
        if (n > 0) sleepUnlessStopped(options.interval);
        if (gStop) break;
        const Listing listing = take(view, options, &rates, total);
        timespec stamp{};
        clock_gettime(CLOCK_REALTIME, &stamp);
        const time_t now = stamp.tv_sec;
        if (ctx.jsonOutput()) {
            // Listings may be a tenth of a second apart: whole seconds would not tell them apart.
            Json line = {{"time", now}, {"timeMs", int64_t{now} * 1000 + stamp.tv_nsec / 1000000}};
            line.update(listingJson(listing));
            printf("%s\n", line.dump().c_str());
        } else {
            char clock[16];
            strftime(clock, sizeof(clock), "%H:%M:%S", localtime(&now));
            // On a terminal each listing replaces the last; in a file they follow each other.
            printf("%s%s, every %gs (Ctrl-C ends)\n",
                   terminal ? "\033[H\033[2J" : (n > 0 ? "\n" : ""), clock, options.interval);
            printListing(ctx, listing, total, view);
        }
        if (fflush(stdout) != 0) break;
    }
    return kExitOk;
}

}  // namespace kovra::tool
