#include "tarn/core/Log.h"

#include <stdio_ext.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "base/LogLineBatch.h"
#include "base/LogRecordSink.h"

namespace tarn {

namespace {

/// A line on its way to the host's handler.
struct RoutedLine {
    LogLevel level;
    std::string text;
};

/// This thread's lines that wait: held back by open batches (or held locks), or logged while the
/// handler runs on this thread.
struct HeldLines {
    int depth = 0;
    std::string text;                // for standard output, each line with its line end
    std::vector<RoutedLine> routed;  // for the handler
    bool delivering = false;         // the handler runs on this thread
    std::deque<RoutedLine> pending;  // logged meanwhile; handed over when it returns
    std::vector<std::function<void()>> after;  // `runAfterLogHold` tasks, run at the release
};

thread_local HeldLines held;

/// Writes `text` and, with `newline`, a line end after it, to standard output under the stream's
/// lock, so lines from different threads neither interleave nor overtake each other. When text of
/// the host's is waiting in the stream's buffer, the lines follow it through the stream; otherwise
/// they go straight to the descriptor in one call, without the stream's copy and flush.
void writeLines(std::string_view text, bool newline) {
    flockfile(stdout);
    if (__fpending(stdout) > 0) {
        std::fwrite(text.data(), 1, text.size(), stdout);
        if (newline) {
            std::fputc('\n', stdout);
        }
        std::fflush(stdout);
    } else {
        char lineEnd = '\n';
        iovec parts[2] = {{const_cast<char*>(text.data()), text.size()}, {&lineEnd, 1}};
        iovec* next = parts;
        int count = newline ? 2 : 1;
        while (count > 0) {
            ssize_t written = ::writev(STDOUT_FILENO, next, count);
            if (written < 0) {
                if (errno == EINTR) {
                    continue;
                }
                break;  // nowhere to write to: the lines are lost, as with a failed flush
            }
            auto left = static_cast<std::size_t>(written);
            while (count > 0 && left >= next->iov_len) {
                left -= next->iov_len;
                ++next;
                --count;
            }
            if (count > 0) {
                next->iov_base = static_cast<char*>(next->iov_base) + left;
                next->iov_len -= left;
            }
        }
    }
    funlockfile(stdout);
}

/// Held text beyond this is not kept between batches (a thread's buffer stays small).
constexpr std::size_t kKeptHeldCapacity = 16 * 1024;

// ---- The host's handler ----

/// The handler, shared with the calls running it, so that replacing it never waits for them. The
/// mutex guards the pointer only: no handler ever runs under it. Never destroyed (lines may be
/// logged while the process exits).
struct HandlerSlot {
    std::mutex mutex;
    std::shared_ptr<const LogHandler> handler;
};

HandlerSlot& handlerSlot() {
    static auto* slot = new HandlerSlot;
    return *slot;
}

/// Whether a handler is set: the one check a line pays while none is.
std::atomic<bool> handlerSet{false};

std::shared_ptr<const LogHandler> currentHandler() {
    auto& slot = handlerSlot();
    std::lock_guard lock(slot.mutex);
    return slot.handler;
}

void callHandler(const LogHandler& handler, LogLevel level, std::string_view line) {
    try {
        handler(level, line);
    } catch (...) {
        // The host's handler failed on this line; the library goes on.
    }
}

/// Hands `line` to the handler now, then whatever the handler logged on this thread meanwhile.
/// Without a handler (it was removed meanwhile) the lines are printed.
void deliver(LogLevel level, std::string_view line) {
    auto handler = currentHandler();
    if (!handler) {
        writeLines(line, true);
        return;
    }
    held.delivering = true;
    callHandler(*handler, level, line);
    while (!held.pending.empty()) {
        RoutedLine next = std::move(held.pending.front());
        held.pending.pop_front();
        if (auto now = currentHandler()) {
            callHandler(*now, next.level, next.text);
        } else {
            writeLines(next.text, true);
        }
    }
    held.delivering = false;
}

/// A line for the handler: held while a batch is open on this thread, queued while the handler
/// runs on this thread, else handed over at once.
void route(LogLevel level, std::string_view line) {
    if (held.depth > 0) {
        held.routed.push_back({level, std::string(line)});
    } else if (held.delivering) {
        held.pending.push_back({level, std::string(line)});
    } else {
        deliver(level, line);
    }
}

// ---- TARN_LOG ----

/// What TARN_LOG lets through: lines whose level is at most `threshold` (-1: none).
struct OutputFilter {
    int threshold = static_cast<int>(LogLevel::debug);
    std::optional<std::string> unknownValue;  // TARN_LOG's value when it names no level
};

OutputFilter readOutputFilter() {
    OutputFilter filter;
    const char* value = std::getenv("TARN_LOG");
    if (value == nullptr || *value == '\0') {
        return filter;
    }
    std::string lower(value);
    for (char& c : lower) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (lower == "off") {
        filter.threshold = -1;
        return filter;
    }
    for (auto level : {LogLevel::error, LogLevel::warning, LogLevel::info, LogLevel::debug}) {
        if (lower == logLevelName(level)) {
            filter.threshold = static_cast<int>(level);
            return filter;
        }
    }
    filter.unknownValue = std::string(value).substr(0, 64);
    return filter;
}

void output(LogLevel level, std::string_view line);

std::atomic<bool> unknownValueReported{false};

/// TARN_LOG as read at the first line. A value that names no level is reported once, as a warning
/// line of its own before the line that read it.
const OutputFilter& outputFilter() {
    static const OutputFilter filter = readOutputFilter();
    if (filter.unknownValue && !unknownValueReported.load(std::memory_order_relaxed) &&
        !unknownValueReported.exchange(true)) {
        output(LogLevel::warning, "Tarn: TARN_LOG=\"" + *filter.unknownValue +
                                      "\" is not one of off, error, warning, info, debug; "
                                      "every line is logged;");
    }
    return filter;
}

bool passes(LogLevel level) {
    return static_cast<int>(level) <= outputFilter().threshold;
}

/// Writes one line that TARN_LOG let through where lines go: to the handler, or to standard output
/// (held while a batch is open on this thread).
void output(LogLevel level, std::string_view line) {
    if (handlerSet.load(std::memory_order_acquire)) {
        route(level, line);
    } else if (held.depth > 0) {
        held.text.append(line).append(1, '\n');
    } else {
        writeLines(line, true);
    }
}

}  // namespace

namespace detail {

void holdLogLines() {
    ++held.depth;
}

void releaseLogLines() {
    if (--held.depth > 0) {
        return;
    }
    if (!held.after.empty()) {
        auto tasks = std::exchange(held.after, {});
        for (auto& task : tasks) {
            try {
                task();
            } catch (...) {
                // An observer failed on a record; the library goes on.
            }
        }
    }
    if (!held.text.empty()) {
        writeLines(held.text, false);
        held.text.clear();
        if (held.text.capacity() > kKeptHeldCapacity) {
            held.text.shrink_to_fit();
        }
    }
    if (!held.routed.empty()) {
        auto lines = std::exchange(held.routed, {});
        for (const auto& line : lines) {
            route(line.level, line.text);
        }
    }
}

void runAfterLogHold(std::function<void()> task) {
    if (held.depth > 0) {
        held.after.push_back(std::move(task));
    } else {
        task();
    }
}

LogLineBatch::LogLineBatch() {
    holdLogLines();
}

LogLineBatch::~LogLineBatch() {
    releaseLogLines();
}

LogLineBatch::Held LogLineBatch::heldOnThisThread() {
    return {held.text.size(), held.text.capacity()};
}

}  // namespace detail

const char* logLevelName(LogLevel level) {
    switch (level) {
        case LogLevel::error:
            return "error";
        case LogLevel::warning:
            return "warning";
        case LogLevel::info:
            return "info";
        case LogLevel::debug:
            return "debug";
    }
    return "info";
}

void setLogHandler(LogHandler handler) {
    std::shared_ptr<const LogHandler> next;
    if (handler) {
        next = std::make_shared<const LogHandler>(std::move(handler));
    }
    std::shared_ptr<const LogHandler> previous;
    {
        auto& slot = handlerSlot();
        std::lock_guard lock(slot.mutex);
        previous = std::exchange(slot.handler, next);
        handlerSet.store(next != nullptr, std::memory_order_release);
    }
    // `previous` goes here, outside the lock: what it captured may log as it goes.
}

std::string TarnLog::getFullMessage() const {
    return (sector ? *sector : std::string("Tarn")) + " " + logMessage + ";";
}

std::string TarnLog::getFullMessageWithDate() const {
    std::time_t t = std::chrono::system_clock::to_time_t(logDate);
    std::tm local{};
    localtime_r(&t, &local);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%d-%m-%Y %H:%M:%S", &local);
    return std::string(buffer) + " --- " + getFullMessage();
}

void printLine(const std::string& line, LogLevel level) {
    if (passes(level)) {
        output(level, line);
    }
}

namespace {

/// Where the records go before the line is printed; none until the notification centre exists.
std::atomic<detail::LogRecordSink> recordSink{nullptr};

void logLine(const std::string& message, std::optional<std::string_view> tag, LogLevel level) {
    if (auto sink = recordSink.load(std::memory_order_acquire)) {
        sink(message, tag);
    }
    if (!passes(level)) {
        return;
    }
    // The line, as `TarnLog::getFullMessage` words it, written straight into the held text when
    // a batch is open and nobody routes the lines.
    const std::string_view sector = tag.value_or("Tarn");
    const bool routed = handlerSet.load(std::memory_order_acquire);
    if (!routed && held.depth > 0) {
        held.text.append(sector).append(1, ' ').append(message).append(";\n");
        return;
    }
    std::string line;
    line.reserve(sector.size() + message.size() + 2);
    line.append(sector).append(1, ' ').append(message).append(1, ';');
    if (routed) {
        route(level, line);
    } else {
        writeLines(line, true);
    }
}

}  // namespace

void detail::setLogRecordSink(LogRecordSink sink) {
    recordSink.store(sink, std::memory_order_release);
}

void log(const std::string& message, const std::optional<std::string>& tag, LogLevel level) {
    logLine(message, tag ? std::optional<std::string_view>(*tag) : std::nullopt, level);
}

void log(const std::string& message, const std::string& tag, LogLevel level) {
    logLine(message, std::string_view(tag), level);
}

void log(const std::string& message, const char* tag, LogLevel level) {
    logLine(message, tag ? std::optional<std::string_view>(tag) : std::nullopt, level);
}

}  // namespace tarn
