#include "tarn/device/Reachability.h"

#include <pthread.h>

#include <cerrno>
#include <condition_variable>

#include "tarn/core/Log.h"

namespace tarn {

namespace {

const char* kindText(ReachabilityError::Kind kind) {
    switch (kind) {
        case ReachabilityError::Kind::failedToCreateWithAddress:
            return "failedToCreateWithAddress";
        case ReachabilityError::Kind::failedToCreateWithHostname:
            return "failedToCreateWithHostname";
        case ReachabilityError::Kind::unableToSetCallback:
            return "unableToSetCallback";
        case ReachabilityError::Kind::unableToSetDispatchQueue:
            return "unableToSetDispatchQueue";
        case ReachabilityError::Kind::unableToGetFlags:
            return "unableToGetFlags";
    }
    return "unknown";
}

constexpr const char* kLogtag = "Tarn-Reachability:";

}  // namespace

ReachabilityError::ReachabilityError(Kind kind, std::int32_t code,
                                     std::optional<sockaddr_in> address,
                                     std::optional<std::string> hostname)
    : std::runtime_error(std::string("Reachability error ") + kindText(kind) + " (" +
                         std::to_string(code) + ")"),
      kind(kind),
      code(code),
      address(address),
      hostname(std::move(hostname)) {}

std::string description(Connection connection) {
    switch (connection) {
        case Connection::unavailable:
            return "No Connection";
        case Connection::wifi:
            return "WiFi";
        case Connection::cellular:
            return "Cellular";
    }
    return "No Connection";
}

Reachability::Reachability(Passkey, std::shared_ptr<ReachabilityFlagsSource> reachabilityRef,
                           DispatchQoS queueQoS, std::shared_ptr<Executor> targetQueue,
                           std::shared_ptr<Executor> notificationQueue)
    : reachabilityRef(std::move(reachabilityRef)),
      reachabilitySerialQueue(targetQueue ? std::move(targetQueue)
                                          : std::make_shared<ThreadExecutor>()),
      notificationQueue(std::move(notificationQueue)),
      queueQoS_(queueQoS) {}

std::shared_ptr<Reachability> Reachability::create(
    std::shared_ptr<ReachabilityFlagsSource> reachabilityRef, DispatchQoS queueQoS,
    std::shared_ptr<Executor> targetQueue, std::shared_ptr<Executor> notificationQueue) {
    bool ownQueue = !targetQueue;
    auto monitor =
        std::make_shared<Reachability>(Passkey{}, std::move(reachabilityRef), queueQoS,
                                       std::move(targetQueue), std::move(notificationQueue));
    if (ownQueue) {
        monitor->reachabilitySerialQueue->async([] {
            std::string label(reachabilitySerialQueueLabel);
            ::pthread_setname_np(::pthread_self(), label.substr(0, 15).c_str());
        });
    }
    return monitor;
}

std::shared_ptr<Reachability> Reachability::create(const std::string& hostname,
                                                   DispatchQoS queueQoS,
                                                   std::shared_ptr<Executor> targetQueue,
                                                   std::shared_ptr<Executor> notificationQueue) {
    auto source = makeHostReachabilitySource(hostname);
    if (!source) {
        throw ReachabilityError(ReachabilityError::Kind::failedToCreateWithHostname, EINVAL,
                                std::nullopt, hostname);
    }
    return create(std::move(source), queueQoS, std::move(targetQueue),
                  std::move(notificationQueue));
}

std::shared_ptr<Reachability> Reachability::create(DispatchQoS queueQoS,
                                                   std::shared_ptr<Executor> targetQueue,
                                                   std::shared_ptr<Executor> notificationQueue) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    auto source = makeDefaultRouteReachabilitySource();
    if (!source) {
        throw ReachabilityError(ReachabilityError::Kind::failedToCreateWithAddress, errno, address);
    }
    return create(std::move(source), queueQoS, std::move(targetQueue),
                  std::move(notificationQueue));
}

Reachability::~Reachability() {
    stopNotifier();
}

void Reachability::onSerialQueueSync(const std::function<void()>& work) {
    if (reachabilitySerialQueue->isCurrent()) {
        work();
        return;
    }
    // The hand-over lives as long as the task does, so the worker never touches the caller's
    // frame after waking it. Only `ReachabilityError` leaves `work`.
    struct HandOver {
        std::mutex mutex;
        std::condition_variable finished;
        bool done = false;
        std::optional<ReachabilityError> error;
    };
    auto handOver = std::make_shared<HandOver>();
    reachabilitySerialQueue->async([handOver, &work] {
        std::optional<ReachabilityError> error;
        try {
            work();
        } catch (const ReachabilityError& failure) {
            error = failure;
        }
        std::lock_guard lock(handOver->mutex);
        handOver->error = std::move(error);
        handOver->done = true;
        handOver->finished.notify_all();
    });
    std::unique_lock lock(handOver->mutex);
    handOver->finished.wait(lock, [&] { return handOver->done; });
    if (handOver->error) {
        throw ReachabilityError(*handOver->error);
    }
}

void Reachability::startNotifier() {
    std::lock_guard lock(controlMutex_);
    if (notifierRunning_) {
        return;
    }
    auto weakifier = std::make_shared<ReachabilityWeakifier>();
    weakifier->reachability = weak_from_this();
    bool callbackSet = reachabilityRef->setCallback([weakifier] {
        auto self = weakifier->reachability.lock();
        if (!self) {
            return;
        }
        try {
            self->updateFlags();
        } catch (const ReachabilityError& error) {
            log(std::string("Reachability flags are unavailable, notifier stopped: ") +
                    error.what(),
                kLogtag, LogLevel::warning);
        }
    });
    if (!callbackSet) {
        auto code = reachabilityRef->lastError();
        detach();
        throw ReachabilityError(ReachabilityError::Kind::unableToSetCallback, code);
    }
    if (!reachabilityRef->setDispatchQueue(reachabilitySerialQueue)) {
        auto code = reachabilityRef->lastError();
        detach();
        throw ReachabilityError(ReachabilityError::Kind::unableToSetDispatchQueue, code);
    }
    onSerialQueueSync([this] { updateFlags(); });
    notifierRunning_ = true;
}

void Reachability::stopNotifier() {
    std::lock_guard lock(controlMutex_);
    detach();
}

void Reachability::detach() {
    reachabilityRef->setCallback({});
    reachabilityRef->setDispatchQueue(nullptr);
    notifierRunning_ = false;
}

void Reachability::updateFlags() {
    auto current = reachabilityRef->getFlags();
    if (!current) {
        auto code = reachabilityRef->lastError();
        detach();
        throw ReachabilityError(ReachabilityError::Kind::unableToGetFlags, code);
    }
    if (!flags_ || *flags_ != *current) {
        flags_ = current;
        announce();
    }
}

void Reachability::announce() {
    auto queue = notificationQueue ? notificationQueue : mainQueue();
    queue->async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        if (self->connection() != Connection::unavailable) {
            if (self->whenReachable) {
                self->whenReachable(*self);
            }
        } else if (self->whenUnreachable) {
            self->whenUnreachable(*self);
        }
        self->notificationCenter->post(kReachabilityChanged, self);
    });
}

Connection Reachability::connection() {
    std::optional<ReachabilityFlags> current;
    onSerialQueueSync([&] {
        try {
            updateFlags();
        } catch (const ReachabilityError&) {
            // Reading the connection never fails: unknown flags read as unavailable.
        }
        current = flags_;
    });
    return connectionForFlags(current, isRunningOnDevice, allowsCellularConnection.load());
}

std::optional<ReachabilityFlags> Reachability::flags() {
    std::optional<ReachabilityFlags> current;
    onSerialQueueSync([&] { current = flags_; });
    return current;
}

std::string Reachability::description() {
    return flagsDescription(flags());
}

std::string Reachability::flagsDescription(std::optional<ReachabilityFlags> flags) {
    if (!flags) {
        return "unavailable flags";
    }
    auto bit = [&](ReachabilityFlags mask, char letter) { return (*flags & mask) ? letter : '-'; };
    std::string text;
    text += bit(kReachabilityIsWWAN, 'W');
    text += bit(kReachabilityReachable, 'R');
    text += ' ';
    text += bit(kReachabilityConnectionRequired, 'c');
    text += bit(kReachabilityTransientConnection, 't');
    text += bit(kReachabilityInterventionRequired, 'i');
    text += bit(kReachabilityConnectionOnTraffic, 'C');
    text += bit(kReachabilityConnectionOnDemand, 'D');
    text += bit(kReachabilityIsLocalAddress, 'l');
    text += bit(kReachabilityIsDirect, 'd');
    return text;
}

Connection Reachability::connectionForFlags(std::optional<ReachabilityFlags> flags, bool onDevice,
                                            bool allowsCellular) {
    if (!flags || !(*flags & kReachabilityReachable)) {
        return Connection::unavailable;
    }
    if (!onDevice) {
        return Connection::wifi;
    }
    if (*flags & kReachabilityConnectionRequired) {
        // A connection still has to be made: usable only when it comes up by itself (on traffic
        // or on demand) and asks nothing of the user.
        bool automatic =
            (*flags & (kReachabilityConnectionOnTraffic | kReachabilityConnectionOnDemand)) != 0;
        if (!automatic || (*flags & kReachabilityInterventionRequired)) {
            return Connection::unavailable;
        }
    }
    if (*flags & kReachabilityIsWWAN) {
        return allowsCellular ? Connection::cellular : Connection::unavailable;
    }
    return Connection::wifi;
}

}  // namespace tarn
