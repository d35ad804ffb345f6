#include "tarn/core/Log.h"

#include <stdio_ext.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "base/LogLineBatch.h"
#include "base/LogRecordSink.h"

namespace tarn {

namespace {

/// The lines held back by the open batches of this thread.
struct HeldLines {
    int depth = 0;
    std::string text;
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

}  // namespace

namespace detail {

LogLineBatch::LogLineBatch() {
    ++held.depth;
}

LogLineBatch::~LogLineBatch() {
    if (--held.depth == 0 && !held.text.empty()) {
        writeLines(held.text, false);
        held.text.clear();
        if (held.text.capacity() > kKeptHeldCapacity) {
            held.text.shrink_to_fit();
        }
    }
}

LogLineBatch::Held LogLineBatch::heldOnThisThread() {
    return {held.text.size(), held.text.capacity()};
}

}  // namespace detail

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

void printLine(const std::string& line) {
    if (held.depth > 0) {
        held.text += line;
        held.text += '\n';
        return;
    }
    writeLines(line, true);
}

namespace {

/// Where the records go before the line is printed; none until the notification centre exists.
std::atomic<detail::LogRecordSink> recordSink{nullptr};

void logLine(const std::string& message, std::optional<std::string_view> tag) {
    if (auto sink = recordSink.load(std::memory_order_acquire)) {
        sink(message, tag);
    }
    // The printed line, as `TarnLog::getFullMessage` words it, written straight into the held
    // text when a batch is open.
    const std::string_view sector = tag.value_or("Tarn");
    if (held.depth > 0) {
        held.text.append(sector).append(1, ' ').append(message).append(";\n");
        return;
    }
    std::string line;
    line.reserve(sector.size() + message.size() + 2);
    line.append(sector).append(1, ' ').append(message).append(1, ';');
    writeLines(line, true);
}

}  // namespace

void detail::setLogRecordSink(LogRecordSink sink) {
    recordSink.store(sink, std::memory_order_release);
}

void log(const std::string& message, const std::optional<std::string>& tag) {
    logLine(message, tag ? std::optional<std::string_view>(*tag) : std::nullopt);
}

void log(const std::string& message, const std::string& tag) {
    logLine(message, std::string_view(tag));
}

void log(const std::string& message, const char* tag) {
    logLine(message, tag ? std::optional<std::string_view>(tag) : std::nullopt);
}

}  // namespace tarn
