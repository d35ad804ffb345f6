#pragma once
// The library's log lines in Qt's logging.
//
//     QApplication app(argc, argv);
//     tarn::qt::routeLogsToQtLogging();
//
// From then on every line the library writes goes to Qt's logging under the category "tarn"
// instead of standard output: errors with qCCritical, warnings with qCWarning, the normal course
// with qCInfo and detail with qCDebug. The line is the message, as the library would have printed
// it ("<tag> <message>;"). So QT_LOGGING_RULES (or QLoggingCategory::setFilterRules) decides what
// is shown ("tarn.debug=false", "tarn=false"), and a message handler installed with
// qInstallMessageHandler receives the lines. TARN_LOG still filters first; "TarnLogNotification"
// is unchanged. A build with QT_NO_DEBUG_OUTPUT or QT_NO_INFO_OUTPUT drops those levels.

#include <QLoggingCategory>

#include "tarn/core/Export.h"

namespace tarn::qt {

/// The category "tarn" under which the library's lines are logged. Every level is enabled unless
/// logging rules say otherwise.
TARN_API const QLoggingCategory& logCategory();

/// Makes the library's log handler (`tarn::setLogHandler`) write to Qt's logging as above. Call it
/// once, from any thread, before or after `install`; `tarn::setLogHandler(nullptr)` undoes it.
/// The lines are logged on the thread that writes them (the GUI thread, the library's HTTP
/// threads), as Qt's logging allows.
TARN_API void routeLogsToQtLogging();

}  // namespace tarn::qt
