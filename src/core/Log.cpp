#include "tarn/core/Log.h"

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
    std::string text = line + "\n";
    // One write per line, so lines from different threads do not interleave.
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void log(const std::string& message, const std::optional<std::string>& tag) {
    TarnLog record{message, tag, std::chrono::system_clock::now()};
    NotificationCenter::defaultCenter().post(kTarnLogNotification, record);
    printLine(record.getFullMessage());
}

}  // namespace tarn
