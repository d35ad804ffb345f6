#include "tarn/core/Log.h"

#include <stdio_ext.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "tarn/platform/NotificationCenter.h"

namespace tarn {

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
    // One write per line, under the stream's lock, so lines from different threads neither
    // interleave nor overtake each other. When text of the host's is waiting in the stream's
    // buffer, the line follows it through the stream; otherwise it goes straight to the
    // descriptor in one call, without the stream's copy and flush.
    flockfile(stdout);
    if (__fpending(stdout) > 0) {
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    } else {
        char newline = '\n';
        iovec parts[2] = {{const_cast<char*>(line.data()), line.size()}, {&newline, 1}};
        iovec* next = parts;
        int count = 2;
        while (count > 0) {
            ssize_t written = ::writev(STDOUT_FILENO, next, count);
            if (written < 0) {
                if (errno == EINTR) {
                    continue;
                }
                break;  // nowhere to write to: the line is lost, as with a failed flush
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

void log(const std::string& message, const std::optional<std::string>& tag) {
    TarnLog record{message, tag, std::chrono::system_clock::now()};
    NotificationCenter::defaultCenter().post(kTarnLogNotification, record);
    printLine(record.getFullMessage());
}

}  // namespace tarn
