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
