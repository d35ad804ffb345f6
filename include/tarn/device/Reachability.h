#pragma once
// Watches whether the network can be reached, for the default route or for one host.
//
// A monitor reads a 32-bit flag set from its flags source (the platform handle), keeps the last
// one, turns it into a connection kind, and, while its notifier runs, announces every change: it
// calls `whenReachable` or `whenUnreachable` and posts "reachabilityChanged" (object: the monitor
// as `std::shared_ptr<Reachability>`) on its notification queue. Flags are read and written only on
// the monitor's own serial queue; readers hop onto it synchronously.
//
// On Linux the default source derives the flags from the interfaces and the routing table and
// learns about link, address and route changes from a routing netlink socket, without polling.

#include <netinet/in.h>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

#include "tarn/core/Export.h"
#include "tarn/platform/MainQueue.h"
#include "tarn/platform/NotificationCenter.h"

namespace tarn {

/// The reachability flag set; the bit values below.
using ReachabilityFlags = std::uint32_t;
inline constexpr ReachabilityFlags kReachabilityTransientConnection = 0x1;
inline constexpr ReachabilityFlags kReachabilityReachable = 0x2;
inline constexpr ReachabilityFlags kReachabilityConnectionRequired = 0x4;
inline constexpr ReachabilityFlags kReachabilityConnectionOnTraffic = 0x8;
inline constexpr ReachabilityFlags kReachabilityInterventionRequired = 0x10;
inline constexpr ReachabilityFlags kReachabilityConnectionOnDemand = 0x20;
inline constexpr ReachabilityFlags kReachabilityIsLocalAddress = 0x10000;
inline constexpr ReachabilityFlags kReachabilityIsDirect = 0x20000;
inline constexpr ReachabilityFlags kReachabilityIsWWAN = 0x40000;

/// Posted on the monitor's notification centre whenever its flags change.
inline constexpr const char* kReachabilityChanged = "reachabilityChanged";
/// Kept for older callers; never posted.
inline constexpr const char* ReachabilityChangedNotification = "ReachabilityChangedNotification";

/// Where a monitor's flags come from: the platform reachability handle. Every method is safe from
/// any thread.
class TARN_API ReachabilityFlagsSource {
  public:
    virtual ~ReachabilityFlagsSource() = default;
    /// Reads the current flags; none on failure (`lastError()` then tells why).
    virtual std::optional<ReachabilityFlags> getFlags() = 0;
    /// Installs the function to call when the flags may have changed; an empty function removes
    /// it. Returns false on failure.
    virtual bool setCallback(std::function<void()> callback) = 0;
    /// Delivers the callback as tasks on `queue` from now on; nullptr detaches (no call starts
    /// after this returns, unless it is made from a delivered callback itself). Returns false on
    /// failure.
    virtual bool setDispatchQueue(std::shared_ptr<Executor> queue) = 0;
    /// The error code of the last failed call (an errno value on Linux), 0 when none.
    virtual std::int32_t lastError() const = 0;
};

/// The Linux source for the default route. Reachable when a default route whose interface is up
/// and running exists, or a non-loopback interface that is up and running has an IPv4 address or
/// a non-link-local IPv6 address. The interface carrying the default route (else the first
/// qualifying one) decides the kind: a wireless device (a "wireless" folder or DEVTYPE=wlan in
/// its sysfs entry) or a wired one counts as reachable without the WWAN bit; DEVTYPE=wwan sets the
/// WWAN bit. IsDirect is set when no default route exists (only on-link networks) or the route has
/// no gateway. Changes are observed on a routing netlink socket (link, IPv4 and IPv6 address and
/// IPv4 route groups) by a watcher thread that posts the callback onto the attached queue. The
/// process keeps its last default-route reading and reads again only after the kernel has announced
/// a change of links, addresses or routes, which leaves every reading as fresh as a full one.
TARN_API std::shared_ptr<ReachabilityFlagsSource> makeDefaultRouteReachabilitySource();

/// The Linux source for one host. A numeric address is checked against the kernel's routing table
/// (a connected UDP socket: a route lookup, no packet is sent): reachable when a route exists,
/// IsLocalAddress and IsDirect for an address of this machine. A host name is never resolved here
/// (resolving would send queries); it reads as the default route does. None for an empty name.
TARN_API std::shared_ptr<ReachabilityFlagsSource> makeHostReachabilitySource(const std::string& hostname);

/// A failure of the reachability service, carrying its error code (an errno value on Linux).
class TARN_API ReachabilityError : public std::runtime_error {
  public:
    /// What went wrong.
    enum class Kind {
        failedToCreateWithAddress,
        failedToCreateWithHostname,
        unableToSetCallback,
        unableToSetDispatchQueue,
        unableToGetFlags,
    };
    /// An error of `kind` with the system's error `code` and, when known, the address or host name
    /// that was monitored.
    ReachabilityError(Kind kind, std::int32_t code, std::optional<sockaddr_in> address = {},
                      std::optional<std::string> hostname = {});
    /// What went wrong.
    Kind kind;
    /// The system's error number.
    std::int32_t code;
    /// The socket address of `failedToCreateWithAddress`.
    std::optional<sockaddr_in> address;
    /// The host name of `failedToCreateWithHostname`.
    std::optional<std::string> hostname;
};

/// The kind of connection. `none` is another name for `unavailable`.
enum class Connection { unavailable, wifi, cellular, none = unavailable };
/// "No Connection", "WiFi" or "Cellular".
TARN_API std::string description(Connection connection);

/// Dispatch quality of service of the monitor's serial queue. Recorded only: the queue's thread
/// runs at the process's normal priority.
enum class DispatchQoS {
    background,
    utility,
    defaultQoS,
    userInitiated,
    userInteractive,
    unspecified
};

class Reachability;

/// What the flags source's callback holds: a weak reference, so the source never keeps a monitor
/// alive and a released monitor gets no calls.
struct TARN_API ReachabilityWeakifier {
    /// The monitor, while it lives.
    std::weak_ptr<Reachability> reachability;
};

/// Watches whether a host or the default route is reachable, and how (Wi-Fi or cellular), and calls
/// the host's callbacks when that changes.
class TARN_API Reachability : public std::enable_shared_from_this<Reachability> {
  public:
    /// A callback that gets the monitor whose reachability changed.
    using Callback = std::function<void(Reachability&)>;

    /// A monitor on `reachabilityRef`. The serial queue is `targetQueue` when given (a serial
    /// executor that no caller of this monitor drives by hand: readers wait on it), else a thread
    /// of the monitor's own. Callbacks go to `notificationQueue`, else to `mainQueue()` at the time
    /// of each announcement.
    static std::shared_ptr<Reachability> create(
        std::shared_ptr<ReachabilityFlagsSource> reachabilityRef,
        DispatchQoS queueQoS = DispatchQoS::defaultQoS, std::shared_ptr<Executor> targetQueue = {},
        std::shared_ptr<Executor> notificationQueue = {});
    /// A monitor for `hostname`; throws `failedToCreateWithHostname` when no source results.
    static std::shared_ptr<Reachability> create(const std::string& hostname,
                                                DispatchQoS queueQoS = DispatchQoS::defaultQoS,
                                                std::shared_ptr<Executor> targetQueue = {},
                                                std::shared_ptr<Executor> notificationQueue = {});
    /// A monitor for the default route (the IPv4 address 0.0.0.0); throws
    /// `failedToCreateWithAddress` when no source results.
    static std::shared_ptr<Reachability> create(DispatchQoS queueQoS = DispatchQoS::defaultQoS,
                                                std::shared_ptr<Executor> targetQueue = {},
                                                std::shared_ptr<Executor> notificationQueue = {});

    /// Stops the notifier.
    ~Reachability();
    Reachability(const Reachability&) = delete;
    Reachability& operator=(const Reachability&) = delete;

    /// Called on the notification queue when a change leaves the network reachable. Set the
    /// callbacks before `startNotifier`.
    Callback whenReachable;
    /// Called on the notification queue when a change leaves it unreachable.
    Callback whenUnreachable;
    /// Kept for older callers; has no effect (`allowsCellularConnection` decides).
    std::atomic<bool> reachableOnWWAN{true};
    /// `allowsCellularConnection` of a new monitor.
    static constexpr bool kAllowsCellularByDefault = true;
    /// When false, a connection over the cellular (WWAN) interface reads as `unavailable`.
    std::atomic<bool> allowsCellularConnection{kAllowsCellularByDefault};
    /// Where "reachabilityChanged" is posted; set before `startNotifier`.
    NotificationCenter* notificationCenter = &NotificationCenter::defaultCenter();
    /// True on Linux: the device rule of `connection()` applies, not the simulator's "reachable is
    /// always WiFi", since the interfaces read are the machine's own.
    static constexpr bool isRunningOnDevice = true;
    /// The flags source.
    const std::shared_ptr<ReachabilityFlagsSource> reachabilityRef;
    /// The serial queue on which flags are read and written.
    const std::shared_ptr<Executor> reachabilitySerialQueue;
    /// The queue for callbacks and the notification; none means `mainQueue()`.
    const std::shared_ptr<Executor> notificationQueue;
    /// The label of the serial queue (its thread's name, cut to fifteen characters).
    static constexpr const char* reachabilitySerialQueueLabel = "com.tarn.reachability";

    /// Registers with the source and reads the current flags (announcing them, since none were
    /// known before). Does nothing while running. Throws `ReachabilityError`
    /// (`unableToSetCallback`, `unableToSetDispatchQueue`, `unableToGetFlags`) and leaves the
    /// monitor stopped on failure. Any thread but the serial queue.
    void startNotifier();
    /// Detaches from the source; the flags stay as last read. Any thread.
    void stopNotifier();
    /// Whether the notifier is attached to its source. Any thread.
    bool notifierRunning() const { return notifierRunning_.load(); }
    /// The quality of service given at creation.
    DispatchQoS queueQoS() const { return queueQoS_; }

    /// Brings the flags up to date (errors ignored) and gives the connection kind: `unavailable`
    /// without flags or without the reachable bit. Otherwise, on a device: a connection that is
    /// required but can neither be made on traffic or on demand nor without intervention is
    /// `unavailable`; the WWAN bit gives `cellular` (or `unavailable` when
    /// `allowsCellularConnection` is false); the rest is `wifi`. Any thread but the serial queue.
    Connection connection();
    /// Older names of `connection()` and of its description.
    Connection currentReachabilityStatus() { return connection(); }
    /// The description of `connection()` ("WiFi", "Cellular" or "No Connection").
    std::string currentReachabilityString() { return tarn::description(connection()); }
    /// The last flags read, without reading again. Any thread but the serial queue.
    std::optional<ReachabilityFlags> flags();
    /// "unavailable flags", or ten characters "WR ctiCDld", each a letter when its bit is set and
    /// "-" when clear. Any thread but the serial queue.
    std::string description();
    /// The flag text of `flags` (pure).
    static std::string flagsDescription(std::optional<ReachabilityFlags> flags);
    /// The connection kind of `flags` under the device rule (pure).
    static Connection connectionForFlags(std::optional<ReachabilityFlags> flags, bool onDevice,
                                         bool allowsCellular);

  private:
    struct Passkey {};

  public:
    /// Use the `make...` functions above; the passkey keeps this constructor to them.
    Reachability(Passkey, std::shared_ptr<ReachabilityFlagsSource> reachabilityRef,
                 DispatchQoS queueQoS, std::shared_ptr<Executor> targetQueue,
                 std::shared_ptr<Executor> notificationQueue);

  private:
    /// Runs `work` on the serial queue and waits for it (inline when already there).
    void onSerialQueueSync(const std::function<void()>& work);
    /// On the serial queue: reads the flags, stores and announces a change; throws on failure
    /// after stopping the notifier.
    void updateFlags();
    void announce();
    void detach();

    DispatchQoS queueQoS_;
    std::mutex controlMutex_;
    std::atomic<bool> notifierRunning_{false};
    std::optional<ReachabilityFlags> flags_;  // serial queue only
};

}  // namespace tarn
