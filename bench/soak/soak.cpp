// tarn_soak: a host that runs for a long time against `tarn serve`, to show that the library's CPU
// use and memory stay flat while it works.
//
// The program is the host: it starts `tarn serve` as a child process (faults and held answers on
// the event endpoint, a short queue delay in the in-app configuration block), initialises the
// library against it and sends custom events from several threads at a fixed rate. Every interval
// it prints one row: events sent, delivered, failed (each failure counted by the status or error
// the library logged), the host's CPU time and anonymous memory, the server's anonymous memory and
// the repeating timers alive in the host. Delivered and failed are counted from the library's own log records ("Sent event" and
// "An error occurred"), observed through the log notification as any host may.
//
// At the end it waits for the queue to drain and checks the run as a whole: every event sent was
// either delivered or failed as the library specifies (the server refused it), the server accepted
// exactly the delivered ones and saw no request id twice. With --check it also fits a line through
// the rows after the warm-up and fails when the CPU time per interval or the anonymous memory of
// the host or the server grows with time; the test is on the slope, not on an absolute figure.
//
// The library's log lines go to standard output and cannot be switched off, so the program keeps a
// copy of standard output for its report and points descriptor 1 at /dev/null.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include "tarn/config/ConfigManager.h"
#include "tarn/core/Log.h"
#include "tarn/core/Tarn.h"
#include "tarn/events/EventQueueManager.h"
#include "tarn/events/TarnEvent.h"
#include "tarn/platform/Bundle.h"
#include "tarn/platform/DataDirectory.h"
#include "tarn/platform/MainQueue.h"
#include "tarn/platform/NotificationCenter.h"
#include "tarn/platform/PropertyList.h"

namespace fs = std::filesystem;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

namespace {

struct Options {
    double seconds = 3600;
    double interval = 60;
    double rate = 100;
    int threads = 2;
    double queueDelay = 0.005;
    double faultShare = 0.02;
    int faultStatus = 429;
    double delayShare = 0.01;
    int delayMs = 200;
    int warmup = 1;
    std::size_t serverKeep = 1000;
    int floorPosts = 2000;
    double drainTimeout = 60;
    bool check = false;
    std::string tarn = TARN_CLI_PATH;
    std::string csv;
};

FILE* report = stderr;

void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(report, format, args);
    va_end(args);
    std::fflush(report);
}

/// Anonymous resident memory of a process in KiB ("RssAnon" of /proc/<pid>/status), -1 if unknown.
long rssAnonKiB(const std::string& pid) {
    std::ifstream status("/proc/" + pid + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("RssAnon:", 0) == 0) {
            return std::strtol(line.c_str() + 8, nullptr, 10);
        }
    }
    return -1;
}

/// CPU time (user and system) this process has used, in seconds.
double ownCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// CPU time (user and system) the calling thread has used, in seconds.
double threadCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

std::size_t appendText(char* data, std::size_t size, std::size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

/// The floor the host's cost per event is measured against: the CPU time one keep-alive POST of
/// `body` costs this thread with plain libcurl against the same server, in microseconds (-1 when a
/// request fails). The POSTs go to the in-app endpoint, which no fault touches and which records
/// nothing, so they change none of the run's counts.
double floorMicroseconds(const std::string& url, const std::string& body, int posts) {
    CURL* easy = curl_easy_init();
    std::string answer;
    std::string credentials = R"({"clientId":"soak-host","clientSecret":"soak-secret"})";
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    headers = curl_slist_append(headers, "Expect:");
    curl_easy_setopt(easy, CURLOPT_URL, (url + "/core/auth/token").c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, credentials.c_str());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &appendText);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &answer);
    double result = -1;
    auto token = json::parse(curl_easy_perform(easy) == CURLE_OK ? answer : "", nullptr, false);
    if (token.is_object() && token.contains("access_token")) {
        headers = curl_slist_append(
            headers, ("Authorization: Bearer " + token["access_token"].get<std::string>()).c_str());
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(easy, CURLOPT_URL,
                         (url + "/orbital-harbor/sdk-public/inapp-communication-wrapper").c_str());
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.c_str());
        double begin = threadCpuSeconds();
        bool ok = true;
        for (int i = 0; i < posts && ok; ++i) {
            answer.clear();
            long status = 0;
            ok = curl_easy_perform(easy) == CURLE_OK &&
                 curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK &&
                 status == 200;
        }
        if (ok) {
            result = 1e6 * (threadCpuSeconds() - begin) / posts;
        }
    }
    curl_slist_free_all(headers);
    curl_easy_cleanup(easy);
    return result;
}

/// The library's verdict on each event it sent, read from its log records.
struct Outcomes {
    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::uint64_t> failed{0};
    std::mutex mutex;
    std::map<std::string, std::uint64_t> failures;  // by the error text the library logged

    void observe(const tarn::TarnLog& record) {
        const std::string& message = record.logMessage;
        if (message.rfind("Sent event, request id :", 0) == 0) {
            delivered.fetch_add(1);
        } else if (message.rfind("An error occurred when the ", 0) == 0) {
            failed.fetch_add(1);
            auto at = message.find(" event was called. ");
            std::string why = at == std::string::npos ? message : message.substr(at + 19);
            std::lock_guard lock(mutex);
            ++failures[why];
        }
    }
};

/// `tarn serve` as a child process, its output in a file.
class Server {
  public:
    Server(const Options& options, const fs::path& root) {
        fs::path answer = root / "inapp.json";
        std::ofstream(answer) << json{{"inAppCommunicationCommands", json::array()},
                                      {"configuration", {{"eventQueueDelay", options.queueDelay}}}}
                                     .dump();
        eventsFile_ = root / "events.jsonl";
        logFile_ = root / "serve.log";
        std::vector<std::string> args = {options.tarn,
                                         "serve",
                                         "--port",
                                         "0",
                                         "--inapp",
                                         answer.string(),
                                         "--events-file",
                                         eventsFile_.string(),
                                         "--client-id",
                                         "soak-host",
                                         "--client-secret",
                                         "soak-secret",
                                         "--expires-in",
                                         "86400",
                                         "--fault-path",
                                         "/orbital-harbor/sdk-public/event/mobile",
                                         "--fault-share",
                                         std::to_string(options.faultShare),
                                         "--fault-status",
                                         std::to_string(options.faultStatus),
                                         "--delay",
                                         std::to_string(options.delayMs),
                                         "--delay-share",
                                         std::to_string(options.delayShare),
                                         "--keep",
                                         std::to_string(options.serverKeep)};
        pid_ = fork();
        if (pid_ == 0) {
            int out = open(logFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            std::vector<char*> argv;
            for (auto& arg : args) {
                argv.push_back(arg.data());
            }
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    ~Server() { stop(); }

    /// Waits for the "listening on" line and returns the base URL, or empty text.
    std::string waitForAddress() {
        const std::string prefix = "tarn serve: listening on ";
        for (int i = 0; i < 200; ++i) {
            std::ifstream in(logFile_);
            std::string line;
            if (std::getline(in, line) && line.rfind(prefix, 0) == 0) {
                return line.substr(prefix.size());
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return {};
    }
    std::string pid() const { return std::to_string(pid_); }

    void stop() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int status = 0;
            waitpid(pid_, &status, 0);
            pid_ = -1;
        }
    }

    /// Events the server accepted (its events file) and request ids seen more than once.
    std::pair<std::uint64_t, std::uint64_t> accepted() const {
        std::ifstream in(eventsFile_);
        std::set<std::string> ids;
        std::uint64_t count = 0, twice = 0;
        for (std::string line; std::getline(in, line);) {
            ++count;
            auto event = json::parse(line, nullptr, false);
            std::string id = event.is_object() ? event.value("requestId", std::string()) : "";
            if (!ids.insert(id).second) {
                ++twice;
            }
        }
        return {count, twice};
    }
    /// The first event the server accepted, as it arrived (empty text when there is none yet).
    std::string firstEvent() const {
        std::ifstream in(eventsFile_);
        std::string line;
        std::getline(in, line);
        return line;
    }
    /// Event requests the server refused with `status`.
    std::uint64_t refused(int status) const {
        std::ifstream in(logFile_);
        std::string needle = "/orbital-harbor/sdk-public/event/mobile -> " + std::to_string(status);
        std::uint64_t count = 0;
        for (std::string line; std::getline(in, line);) {
            count += line.find(needle) != std::string::npos;
        }
        return count;
    }

  private:
    fs::path eventsFile_;
    fs::path logFile_;
    pid_t pid_ = -1;
};

struct Row {
    double at = 0;  // seconds since the start of sending, at the end of the interval
    std::uint64_t sent = 0, delivered = 0, failed = 0;
    double cpu = 0;  // host CPU seconds used in the interval
    long hostAnon = 0, serverAnon = 0;  // KiB
    std::size_t timers = 0;             // repeating timers alive at the end of the interval
};

/// Least-squares slope of `y` over `x`.
double slope(const std::vector<double>& x, const std::vector<double>& y) {
    double n = static_cast<double>(x.size()), sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        sx += x[i];
        sy += y[i];
        sxx += x[i] * x[i];
        sxy += x[i] * y[i];
    }
    double d = n * sxx - sx * sx;
    return d == 0 ? 0 : (n * sxy - sx * sy) / d;
}

/// Checks that `values` (one per row after the warm-up) do not grow with time: the growth the
/// fitted line gives over the window must stay under `limit`. Prints the verdict.
bool flat(const char* what, const std::vector<Row>& rows, double (*value)(const Row&),
          double limit, const char* unit) {
    std::vector<double> x, y;
    for (const auto& row : rows) {
        x.push_back(row.at);
        y.push_back(value(row));
    }
    double window = x.back() - x.front();
    double growth = slope(x, y) * window;
    double mean = 0;
    for (double v : y) {
        mean += v / static_cast<double>(y.size());
    }
    bool ok = growth <= limit;
    say("check: %-22s mean %10.3f %s, growth over %.0f s %+9.3f %s (limit %.3f): %s\n", what, mean,
        unit, window, growth, unit, limit, ok ? "flat" : "GROWS");
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{"A host that sends custom events at a fixed rate against `tarn serve` for a long "
                 "time and reports, per interval, what it sent and what it cost"};
    app.add_option("--seconds", options.seconds, "How long to send events")->capture_default_str();
    app.add_option("--interval", options.interval, "Seconds per report row")->capture_default_str();
    app.add_option("--rate", options.rate, "Events per second, over all threads")
        ->capture_default_str()
        ->check(CLI::Range(0.1, 100000.0));
    app.add_option("--threads", options.threads, "Host threads sending events")
        ->capture_default_str()
        ->check(CLI::Range(1, 64));
    app.add_option("--queue-delay", options.queueDelay,
                   "The server's eventQueueDelay in seconds (the queue's tick)")
        ->capture_default_str();
    app.add_option("--fault-share", options.faultShare,
                   "Share of event requests the server refuses with --fault-status")
        ->capture_default_str();
    app.add_option("--fault-status", options.faultStatus, "Status of refused event requests")
        ->capture_default_str();
    app.add_option("--delay-share", options.delayShare, "Share of event requests held")
        ->capture_default_str();
    app.add_option("--delay", options.delayMs, "Milliseconds a held answer is held")
        ->capture_default_str();
    app.add_option("--server-keep", options.serverKeep,
                   "Requests the server keeps in memory (its --keep)")
        ->capture_default_str();
    app.add_option("--floor-posts", options.floorPosts,
                   "Plain libcurl POSTs measured before the run, as the floor per event")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000));
    app.add_option("--warmup", options.warmup, "Rows left out of the growth check")
        ->capture_default_str();
    app.add_option("--drain-timeout", options.drainTimeout,
                   "Seconds to wait for the queue to drain at the end")
        ->capture_default_str();
    app.add_flag("--check", options.check,
                 "Exit with status 1 when CPU or memory grow with time, or events went missing");
    app.add_option("--tarn", options.tarn, "The tarn command that runs the server")
        ->capture_default_str();
    app.add_option("--csv", options.csv, "Also write the rows to this CSV file");
    CLI11_PARSE(app, argc, argv);

    // Descriptor 1 belongs to the library's log lines from here on.
    int saved = dup(STDOUT_FILENO);
    report = fdopen(saved, "w");
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDOUT_FILENO);
    close(devnull);

    char pattern[] = "/tmp/tarn-soak-XXXXXX";
    if (!mkdtemp(pattern)) {
        say("tarn_soak: cannot make a temporary folder\n");
        return 2;
    }
    fs::path root = pattern;
    Server server(options, root);
    std::string url = server.waitForAddress();
    if (url.empty()) {
        say("tarn_soak: the server did not start (see %s)\n", (root / "serve.log").c_str());
        return 2;
    }

    fs::create_directories(root / "bundle");
    std::ofstream(root / "bundle" / "TarnService-Info.plist") << tarn::writePropertyList(
        {{"DOMAIN", url}, {"CLIENT_ID", "soak-host"}, {"CLIENT_SECRET", "soak-secret"}});
    std::ofstream(root / "bundle" / "Info.plist")
        << tarn::writePropertyList({{"CFBundleIdentifier", "com.example.soak"}});
    tarn::setDataDirectory(root / "data");
    tarn::Bundle::setMain(root / "bundle");

    Outcomes outcomes;
    tarn::NotificationCenter::defaultCenter().addObserver(
        tarn::kTarnLogNotification, [&outcomes](const tarn::Notification& note) {
            if (auto record = std::any_cast<tarn::TarnLog>(&note.object)) {
                outcomes.observe(*record);
            }
        });

    tarn::TarnInitConfig config(tarn::Bundle::main(), "TarnSoak", std::string("soak-actor"),
                                std::nullopt, std::nullopt, std::nullopt, std::nullopt, false,
                                true, false);
    tarn::Tarn::shared().initialize(config);
    auto initDeadline = Clock::now() + std::chrono::seconds(60);
    while (!tarn::ConfigManager::shared().isInitialized() && Clock::now() < initDeadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!tarn::ConfigManager::shared().isInitialized()) {
        say("tarn_soak: the library did not initialise against %s\n", url.c_str());
        return 2;
    }
    // The start-up events (install, sdk_initialize) are sent too; count them as sent. The queue
    // reads its tick when its timer starts, so the host waits for them to go out and the timer to
    // stop: the next start then uses the server's queue delay.
    std::atomic<std::uint64_t> sent{2};
    while ((outcomes.delivered + outcomes.failed < 2 ||
            tarn::EventQueueManager::shared().isTimerActive.load()) &&
           Clock::now() < initDeadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }

    std::string firstBody = server.firstEvent();
    double floor = floorMicroseconds(url, firstBody, options.floorPosts);
    say("floor: a plain libcurl keep-alive POST of a %zu-byte event body costs %.1f us of CPU "
        "(mean of %d)\n",
        firstBody.size(), floor, options.floorPosts);
    say("tarn_soak: %.0f s at %.0f events/s from %d threads against %s (queue delay %.3f s, "
        "%.0f%% of events answered %d, %.0f%% held %d ms)\n",
        options.seconds, options.rate, options.threads, url.c_str(), options.queueDelay,
        options.faultShare * 100, options.faultStatus, options.delayShare * 100, options.delayMs);
    say("%8s %9s %9s %7s %7s %8s %8s %9s %9s %6s\n", "seconds", "sent", "delivered", "failed",
        "queued", "cpu %", "us/event", "anon KiB", "srv KiB", "timers");

    std::atomic<bool> stop{false};
    auto start = Clock::now();
    std::vector<std::thread> senders;
    for (int t = 0; t < options.threads; ++t) {
        senders.emplace_back([&, t] {
            auto period = std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(options.threads / options.rate));
            auto next = start + period * t / options.threads;
            json parameters = {{"thread", t}, {"n", 0}};
            for (std::uint64_t n = 0; !stop.load(); ++n) {
                std::this_thread::sleep_until(next);
                next += period;
                parameters["n"] = n;
                tarn::TarnEvent::shared().sendCustomEvent(nullptr, std::string("SoakPage"),
                                                          "soak_event", parameters);
                sent.fetch_add(1);
            }
        });
    }

    std::vector<Row> rows;
    double lastCpu = ownCpuSeconds();
    std::uint64_t lastSent = sent.load();
    std::ofstream csv;
    if (!options.csv.empty()) {
        csv.open(options.csv);
        csv << "seconds,sent,delivered,failed,cpu_seconds,host_anon_kib,server_anon_kib,timers\n";
    }
    auto sample = [&](double at) {
        Row row;
        row.at = at;
        row.sent = sent.load();
        row.delivered = outcomes.delivered.load();
        row.failed = outcomes.failed.load();
        double cpu = ownCpuSeconds();
        row.cpu = cpu - lastCpu;
        lastCpu = cpu;
        row.hostAnon = rssAnonKiB("self");
        row.serverAnon = rssAnonKiB(server.pid());
        row.timers = tarn::RepeatingTimer::liveCount();
        std::uint64_t sentNow = row.sent - lastSent;
        lastSent = row.sent;
        double span = rows.empty() ? at : at - rows.back().at;
        say("%8.0f %9" PRIu64 " %9" PRIu64 " %7" PRIu64 " %7" PRId64 " %8.2f %8.1f %9ld %9ld %6zu\n",
            at, row.sent, row.delivered, row.failed,
            static_cast<std::int64_t>(row.sent - row.delivered - row.failed),
            100 * row.cpu / span, sentNow ? 1e6 * row.cpu / static_cast<double>(sentNow) : 0.0,
            row.hostAnon, row.serverAnon, row.timers);
        if (csv.is_open()) {
            csv << at << "," << row.sent << "," << row.delivered << "," << row.failed << ","
                << row.cpu << "," << row.hostAnon << "," << row.serverAnon << "," << row.timers
                << "\n"
                << std::flush;
        }
        rows.push_back(row);
    };

    int intervals = static_cast<int>(std::ceil(options.seconds / options.interval));
    for (int i = 1; i <= intervals; ++i) {
        double at = std::min(options.seconds, i * options.interval);
        std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(at)));
        sample(at);
    }
    stop = true;
    for (auto& sender : senders) {
        sender.join();
    }
    double cpuWhileSending = 0;
    for (const auto& row : rows) {
        cpuWhileSending += row.cpu;
    }

    auto drainDeadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(options.drainTimeout));
    while (outcomes.delivered + outcomes.failed < sent && Clock::now() < drainDeadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    std::uint64_t delivered = outcomes.delivered, failed = outcomes.failed, total = sent;
    server.stop();
    auto [accepted, twice] = server.accepted();
    std::uint64_t refused = server.refused(options.faultStatus);

    say("\nsent %" PRIu64 ", delivered %" PRIu64 ", failed %" PRIu64 ", still queued %" PRId64
        "\n",
        total, delivered, failed, static_cast<std::int64_t>(total - delivered - failed));
    {
        std::lock_guard lock(outcomes.mutex);
        for (const auto& [why, count] : outcomes.failures) {
            say("  failed %" PRIu64 " x: %s\n", count, why.c_str());
        }
    }
    say("server: accepted %" PRIu64 ", answered %" PRIu64 " event requests with %d, request ids "
        "seen twice %" PRIu64 "\n",
        accepted, refused, options.faultStatus, twice);
    double perEvent = delivered ? 1e6 * cpuWhileSending / static_cast<double>(delivered) : 0.0;
    say("host CPU while sending: %.2f s over %.0f s (%.2f%% of a core), %.1f us per delivered "
        "event, %.1f times the floor\n",
        cpuWhileSending, options.seconds, 100 * cpuWhileSending / options.seconds, perEvent,
        floor > 0 ? perEvent / floor : 0.0);

    bool ok = true;
    // Every event is accounted for: delivered, or refused by the server as the library specifies
    // (a refused event is not sent again).
    bool accounted = total == delivered + failed && delivered == accepted && failed == refused &&
                     twice == 0;
    say("check: every event delivered once or refused by the server: %s\n",
        accounted ? "yes" : "NO");
    ok = ok && accounted;
    if (static_cast<int>(rows.size()) - options.warmup >= 3) {
        std::vector<Row> settled(rows.begin() + options.warmup, rows.end());
        // CPU: growth of more than a quarter of the mean, and more than 2% of a core, fails.
        double meanCpu = 0;
        for (const auto& row : settled) {
            meanCpu += row.cpu / static_cast<double>(settled.size());
        }
        double cpuLimit = std::max(0.25 * meanCpu, 0.02 * options.interval);
        ok = flat("host CPU per interval", settled, [](const Row& r) { return r.cpu; }, cpuLimit,
                  "s") &&
             ok;
        // Memory: growth of more than 1 MiB over the window fails, for the host and the server.
        ok = flat("host anonymous memory", settled,
                  [](const Row& r) { return static_cast<double>(r.hostAnon); }, 1024, "KiB") &&
             ok;
        ok = flat("server anonymous memory", settled,
                  [](const Row& r) { return static_cast<double>(r.serverAnon); }, 4096, "KiB") &&
             ok;
        // Timers: the queue's comes and goes with the events; any timer more than the warm-up
        // saw (or than the queue's one) is one that piles up.
        std::size_t baseline = 1, most = 0;
        for (int i = 0; i <= options.warmup; ++i) {
            baseline = std::max(baseline, rows[static_cast<std::size_t>(i)].timers);
        }
        for (const auto& row : settled) {
            most = std::max(most, row.timers);
        }
        bool timersFlat = most <= baseline;
        say("check: live repeating timers  at most %zu up to the warm-up's end, %zu after it: %s\n",
            baseline, most, timersFlat ? "flat" : "GROWS");
        ok = timersFlat && ok;
    } else if (options.check) {
        say("check: too few rows after the warm-up to fit a line (need 3)\n");
        ok = false;
    }
    std::error_code ignored;
    fs::remove_all(root, ignored);
    if (options.check && !ok) {
        say("tarn_soak: FAILED\n");
        return 1;
    }
    say("tarn_soak: %s\n", ok ? "OK" : "problems found (see above)");
    return 0;
}
