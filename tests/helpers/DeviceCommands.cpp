// Second-process commands for the device tests.
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "helpers/HelperMain.h"
#include "tarn/device/DeviceModel.h"
#include "tarn/device/DeviceStatusHelper.h"
#include "tarn/device/Reachability.h"
#include "tarn/platform/MainQueue.h"

namespace {

void printFlushed(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

// device-model: prints the model name and the OS version, one a line.
TARN_HELPER_COMMAND(device_model) {
    (void)args;
    printFlushed(tarn::modelName());
    printFlushed(tarn::osVersion());
    return 0;
}

// network-status: prints what the device status helper reports for the network.
TARN_HELPER_COMMAND(network_status) {
    (void)args;
    printFlushed(tarn::DeviceStatusHelper::shared().networkStatus());
    return 0;
}

// network-status-repeat: prints the network status once for every line read from standard input,
// until it closes: readings of one process across changes of the network.
TARN_HELPER_COMMAND(network_status_repeat) {
    (void)args;
    char line[256];
    while (std::fgets(line, sizeof line, stdin)) {
        printFlushed(tarn::DeviceStatusHelper::shared().networkStatus());
    }
    return 0;
}

// reachability-watch: runs a default-route monitor and prints "changed <connection> <flags>" for
// every "reachabilityChanged" notification, until standard input closes (or 60 seconds pass).
TARN_HELPER_COMMAND(reachability_watch) {
    (void)args;
    auto mainQueue = std::make_shared<tarn::ThreadExecutor>();
    tarn::setMainQueue(mainQueue);
    auto monitor = tarn::Reachability::create();
    auto token = tarn::NotificationCenter::defaultCenter().addObserver(
        tarn::kReachabilityChanged, [](const tarn::Notification& notification) {
            auto* posted = std::any_cast<std::shared_ptr<tarn::Reachability>>(&notification.object);
            if (!posted) {
                printFlushed("changed without a monitor");
                return;
            }
            auto& reachability = **posted;
            printFlushed("changed " + tarn::description(reachability.connection()) + " " +
                         reachability.description());
        });
    try {
        monitor->startNotifier();
    } catch (const tarn::ReachabilityError& error) {
        printFlushed(std::string("error ") + error.what());
        return 1;
    }
    printFlushed("started");
    pollfd input{STDIN_FILENO, POLLIN, 0};
    char buffer[64];
    while (::poll(&input, 1, 60000) > 0 && ::read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
    }
    monitor->stopNotifier();
    tarn::NotificationCenter::defaultCenter().removeObserver(token);
    mainQueue->waitUntilIdle();
    printFlushed("stopped");
    return 0;
}
