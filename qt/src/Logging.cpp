#include "tarn/qt/QtLogging.h"

#include <QString>

#include "tarn/core/Log.h"

namespace tarn::qt {

Q_LOGGING_CATEGORY(tarnCategory, "tarn")

const QLoggingCategory& logCategory() {
    return tarnCategory();
}

void routeLogsToQtLogging() {
    setLogHandler([](LogLevel level, std::string_view line) {
        const QString text = QString::fromUtf8(line.data(), static_cast<qsizetype>(line.size()));
        switch (level) {
            case LogLevel::error:
                qCCritical(tarnCategory).noquote() << text;
                break;
            case LogLevel::warning:
                qCWarning(tarnCategory).noquote() << text;
                break;
            case LogLevel::info:
                qCInfo(tarnCategory).noquote() << text;
                break;
            case LogLevel::debug:
                qCDebug(tarnCategory).noquote() << text;
                break;
        }
    });
}

}  // namespace tarn::qt
