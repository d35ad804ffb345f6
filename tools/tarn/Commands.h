#pragma once
// The subcommands of the `tarn` command. Each returns the process's exit status.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn::cli {

/// `tarn check service FILE`: checks a "TarnService-Info.plist" (XML or binary). Prints one line
/// per problem (exit status 1) or one OK line (exit status 0) to standard output.
int runCheckService(const std::string& file);

/// `tarn check inapp FILE`: checks an answer of the in-app endpoint against the wire model. Prints
/// one error line per broken communication or configuration block, warnings for values the library
/// would quietly ignore, and a table of the communications. Exit status 1 when any part fails to
/// decode (or, with `strict`, when there is any warning).
int runCheckInapp(const std::string& file, bool strict);

/// `tarn check event FILE`: checks event bodies (one JSON object, a list of them, or one per line)
/// against what the library sends for each event. Prints one line per problem with its path and a
/// summary line; exit status 1 when any body has a problem.
int runCheckEvent(const std::string& file);

/// What `tarn check inapp` finds in an in-app answer; the dev server's page uses the same.
struct InappReport {
    /// Parts that fail to decode (the library then rejects the whole answer), with their paths.
    std::vector<std::string> errors;
    /// Values the library accepts but ignores.
    std::vector<std::string> warnings;
    /// The text is not a JSON object at all (`errors` has the one reason).
    bool fatal = false;
    std::size_t itemCount = 0;
    struct Item {
        std::size_t index = 0;
        std::string uuid, name, templateName, trigger;
        std::int64_t maxShowCount = 0;
        std::string conversionEvent;
    };
    /// The communications that decode.
    std::vector<Item> items;
};

/// Checks an in-app answer's text as `tarn check inapp` does.
InappReport inspectInapp(const std::string& text);

struct InitServiceOptions {
    std::string domain;
    std::string clientId;
    std::string clientSecret;
    bool binary = false;
    bool force = false;
    std::string file;
};

/// `tarn init-service`: writes a "TarnService-Info.plist" with DOMAIN, CLIENT_ID and
/// CLIENT_SECRET (XML, or binary with `binary`), mode 0600. Refuses a DOMAIN that `tarn check
/// service` would refuse, empty credentials, and an existing file unless `force`.
int runInitService(const InitServiceOptions& options);

/// Problems of a "DOMAIN" value as the base of the endpoint URLs; empty when it is usable.
std::vector<std::string> domainProblems(const std::string& domain);

struct ServeOptions {
    std::string host = "127.0.0.1";
    int port = 8080;
    bool allowRemote = false;
    std::string clientId = "dev-client";
    std::string clientSecret = "dev-secret";
    std::string inappFile;
    std::string eventsFile;
    std::int64_t expiresIn = 300;
    bool acceptAnyToken = false;
    int faultStatus = 503;
    double faultShare = 0;
    int delayMs = 0;
    double delayShare = 1;
    std::vector<std::string> faultPaths;
    std::uint64_t maxRequests = 0;
    double duration = 0;
    std::size_t keepRecent = 10000;
    bool json = false;
    bool compress = false;
};

/// `tarn serve`: the development server; runs until SIGINT/SIGTERM, `maxRequests` or `duration`.
int runServe(const ServeOptions& options);

struct DemoOptions {
    bool keep = false;
    bool json = false;
    bool quiet = false;
    bool verbose = false;
    double timeout = 30;
    /// Share of event requests the server fails (the library drops an event whose sending fails,
    /// so a share above 0 makes the demo fail: a way to see what a host loses under faults).
    double faultShare = 0;
    int faultStatus = 500;
};

struct InspectOptions {
    /// The data folder to read; empty: this user's default folder (`dataDirectory()`).
    std::string folder;
    bool json = false;
};

/// `tarn inspect`: lists what the library keeps in a data folder (identity, tokens masked, consent,
/// queued events, conversion markers, in-app show counts), as text or JSON. Changes nothing.
int runInspect(const InspectOptions& options);

/// `tarn demo`: a host's user journey against the development server on a loopback port.
int runDemo(const DemoOptions& options);

}  // namespace tarn::cli
