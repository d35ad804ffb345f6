// Second-process commands for the device tests.
#include <poll.h>
#include <unistd.h>

#include <memory>

#include "helpers/HelperMain.h"
#include "tarn/device/DeviceModel.h"
#include "tarn/device/DeviceStatusHelper.h"
#include "tarn/device/Reachability.h"
#include "tarn/events/EventRecords.h"
#include "tarn/platform/MainQueue.h"

using tarn::test::say;

// device_model: prints the model name and the OS version, one a line.
TARN_HELPER_COMMAND(device_model, 0) {
    say(tarn::modelName());
    say(tarn::osVersion());
    return 0;
}

// network_status_repeat: prints the network status for every line read from standard input until
// it closes: readings of one process across changes of the network.
TARN_HELPER_COMMAND(network_status_repeat, 0) {
    for (char line[256]; std::fgets(line, sizeof line, stdin);)
        say(tarn::DeviceStatusHelper::shared().networkStatus());
    return 0;
}

// body_network_status_repeat: the same, each status read as an event's body reads it.
TARN_HELPER_COMMAND(body_network_status_repeat, 0) {
    tarn::CustomEvent record;
    record.name = "probe";
    for (char line[256]; std::fgets(line, sizeof line, stdin);)
        say(tarn::BodySections::read(record).networkStatus.value_or("(none)"));
    return 0;
}

// reachability_watch: runs a default-route monitor and prints "changed <connection> <flags>" for
// every "reachabilityChanged" notification, until standard input closes (or 60 seconds pass).
TARN_HELPER_COMMAND(reachability_watch, 0) {
    auto mainQueue = std::make_shared<tarn::ThreadExecutor>();
    tarn::setMainQueue(mainQueue);
    auto monitor = tarn::Reachability::create();
    auto token = tarn::NotificationCenter::defaultCenter().addObserver(
        tarn::kReachabilityChanged, [](const tarn::Notification& notification) {
            auto* posted = std::any_cast<std::shared_ptr<tarn::Reachability>>(&notification.object);
            if (!posted)
                return say("changed without a monitor");
            say("changed " + tarn::description((*posted)->connection()) + " " +
                (*posted)->description());
        });
    try {
        monitor->startNotifier();
    } catch (const tarn::ReachabilityError& error) {
        say(std::string("error ") + error.what());
        return 1;
    }
    say("started");
    pollfd input{STDIN_FILENO, POLLIN, 0};
    for (char buffer[64]; ::poll(&input, 1, 60000) > 0 && ::read(STDIN_FILENO, buffer, 64) > 0;) {
    }
    monitor->stopNotifier();
    tarn::NotificationCenter::defaultCenter().removeObserver(token);
    mainQueue->waitUntilIdle();
    say("stopped");
    return 0;
}
