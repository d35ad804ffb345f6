// The `tarn` command: a development companion for hosts of the library.
//
//   tarn demo                 a host's user journey against the development server
//   tarn serve                the development server for host developers
//   tarn init-service ...     writes a TarnService-Info.plist
//   tarn check service FILE   checks a TarnService-Info.plist
//   tarn check inapp FILE     checks an in-app answer against the wire model
//   tarn check event FILE     checks event bodies against what the library sends
#include <malloc.h>

#include <CLI/CLI.hpp>

#include "Commands.h"

int main(int argc, char** argv) {
    using namespace tarn::cli;
    // The dev server answers on a pool of worker threads. glibc gives a thread that finds the
    // allocator busy an arena of its own, and each arena keeps what was freed in it, so a server
    // left running through busy moments grows by one arena's worth each time. Two arenas keep its
    // memory flat over a day; the command's other work is single-threaded anyway.
    mallopt(M_ARENA_MAX, 2);
    CLI::App app{
        "Development companion for TarniOSCommonKit hosts: a demo, a dev server and "
        "checks for the files a host ships or serves.",
        "tarn"};
    app.require_subcommand(1);
    app.set_help_all_flag("--help-all", "Help for every subcommand");

    DemoOptions demo;
    auto* demoCommand = app.add_subcommand(
        "demo",
        "Run a user's journey (install, login, pages, a popup and its button, a purchase that "
        "converts, logout) against the dev server on a loopback port, then list what the server "
        "received. Takes no input: it starts its own server and writes its own service file. "
        "Example: tarn demo --keep (keeps the data folder and prints where).");
    demoCommand->add_flag("--keep", demo.keep,
                          "Keep the temporary folder (bundle, data folder, library log)");
    demoCommand->add_flag("--json", demo.json,
                          "Print the received events as JSON lines on standard output (the "
                          "journey goes to standard error)");
    auto* quiet = demoCommand->add_flag("-q,--quiet", demo.quiet,
                                        "Print only the final table (or JSON lines) and problems");
    demoCommand
        ->add_flag("-v,--verbose", demo.verbose,
                   "Show the library's own log lines (otherwise they go to the log file in the "
                   "temporary folder)")
        ->excludes(quiet);
    demoCommand->add_option("--timeout", demo.timeout, "Seconds to wait for the queue to drain")
        ->default_val(30)
        ->check(CLI::PositiveNumber);

    demoCommand
        ->add_option("--fault-share", demo.faultShare,
                     "Share of event requests (0 to 1) the server fails, spread evenly; the "
                     "library drops such events, so the demo then reports them missing")
        ->default_val(0)
        ->check(CLI::Range(0.0, 1.0));
    demoCommand->add_option("--fault-status", demo.faultStatus, "Status code of failed events")
        ->default_val(500)
        ->check(CLI::Range(100, 599));

    ServeOptions serve;
    auto* serveCommand = app.add_subcommand(
        "serve",
        "Run the dev server: the token, in-app and event endpoints on 127.0.0.1. Optional input: "
        "--inapp FILE, an in-app answer as JSON (see tarn check inapp --help). The first line "
        "printed names the bound address (with --json, as the JSON line "
        "{\"listening\":\"http://...\"}). Stops on SIGINT/SIGTERM, --max-requests or "
        "--duration. Example: tarn serve --port 8080 --inapp answer.json --json | jq .name");
    serveCommand->add_option("--host", serve.host, "Address to bind")->default_val("127.0.0.1");
    serveCommand->add_option("-p,--port", serve.port, "Port to bind; 0 picks a free one")
        ->default_val(8080)
        ->check(CLI::Range(0, 65535));
    serveCommand->add_flag("--allow-remote", serve.allowRemote,
                           "Allow binding an address other than a loopback one");
    serveCommand
        ->add_option("--client-id", serve.clientId,
                     "Client identifier the token "
                     "endpoint accepts")
        ->default_val("dev-client");
    serveCommand
        ->add_option("--client-secret", serve.clientSecret,
                     "Client secret the token endpoint accepts")
        ->default_val("dev-secret");
    serveCommand
        ->add_option("--expires-in", serve.expiresIn,
                     "Lifetime of issued tokens in seconds; older tokens get 401")
        ->default_val(300)
        ->check(CLI::PositiveNumber);
    serveCommand->add_flag("--accept-any-token", serve.acceptAnyToken,
                           "Do not check the Authorization header of in-app and event requests");
    serveCommand
        ->add_option("--inapp", serve.inappFile,
                     "JSON file served as the in-app answer, re-read when it changes (default: "
                     "an answer with a configuration block and no communications)")
        ->check(CLI::ExistingFile);
    serveCommand->add_option("--events-file", serve.eventsFile,
                             "Append every received event to this file as a JSON line");
    serveCommand->add_flag("--compress", serve.compress,
                           "Compress answers as the client's Accept-Encoding allows (default: "
                           "answers go uncompressed)");
    serveCommand->add_flag("--json", serve.json,
                           "Standard output carries only JSON lines: the address line, then each "
                           "received event's body; every other line goes to standard error");
    serveCommand->add_option("--fault-status", serve.faultStatus, "Status code of faulty answers")
        ->default_val(503)
        ->check(CLI::Range(100, 599));
    serveCommand
        ->add_option("--fault-share", serve.faultShare,
                     "Share of requests (0 to 1) answered with --fault-status, spread "
                     "evenly: 0.25 fails every fourth request")
        ->default_val(0)
        ->check(CLI::Range(0.0, 1.0));
    serveCommand->add_option("--delay", serve.delayMs, "Milliseconds to hold answers")
        ->default_val(0)
        ->check(CLI::Range(0, 600000));
    serveCommand
        ->add_option("--delay-share", serve.delayShare,
                     "Share of requests (0 to 1) held by --delay, spread evenly")
        ->default_val(1)
        ->check(CLI::Range(0.0, 1.0));
    serveCommand->add_option("--fault-path", serve.faultPaths,
                             "Limit faults and delays to this endpoint path (repeatable)");
    serveCommand->add_option("--max-requests", serve.maxRequests,
                             "Stop after answering this many requests");
    serveCommand->add_option("--duration", serve.duration, "Stop after this many seconds")
        ->check(CLI::NonNegativeNumber);
    serveCommand
        ->add_option("--keep", serve.keepRecent,
                     "How many of the newest requests and events to keep in memory; older ones "
                     "are only counted (and still appended to --events-file), so the server's "
                     "memory stays flat however long it runs")
        ->default_val(10000);

    InitServiceOptions initService;
    auto* initServiceCommand = app.add_subcommand(
        "init-service",
        "Write the service file a host ships in its main bundle folder: a TarnService-Info.plist "
        "with the server address and the client credentials (mode 0600: it holds a secret). "
        "Example: tarn init-service --domain https://api.example.com --client-id my-app "
        "--client-secret \"$SECRET\" Resources/TarnService-Info.plist");
    initServiceCommand
        ->add_option("--domain", initService.domain,
                     "The server's base address, http(s)://host[:port][/path], "
                     "without a trailing slash")
        ->required();
    initServiceCommand->add_option("--client-id", initService.clientId, "The client id")
        ->required();
    initServiceCommand
        ->add_option("--client-secret", initService.clientSecret,
                     "The client secret (prefer passing it from a variable, not typed in a "
                     "shell history)")
        ->required();
    initServiceCommand->add_flag("--binary", initService.binary,
                                 "Write a binary property list instead of XML");
    initServiceCommand->add_flag("--force", initService.force, "Replace an existing file");
    initServiceCommand
        ->add_option("FILE", initService.file,
                     "The file to write, normally TarnService-Info.plist in the "
                     "host's main bundle folder")
        ->required();

    auto* check = app.add_subcommand("check", "Check a file a host ships or a server answers");
    check->require_subcommand(1);
    std::string serviceFile;
    auto* checkService = check->add_subcommand(
        "service",
        "Check a TarnService-Info plist (XML or binary): DOMAIN, CLIENT_ID and CLIENT_SECRET "
        "present as strings, DOMAIN usable as the base of the endpoint URLs. Exit status 1 with "
        "one line per problem. Example: tarn check service Resources/TarnService-Info.plist");
    checkService
        ->add_option("FILE", serviceFile,
                     "The host's TarnService-Info.plist (tarn init-service writes one)")
        ->required();
    std::string inappFile;
    bool strict = false;
    auto* checkInapp = check->add_subcommand(
        "inapp",
        "Check an in-app answer against the wire model: one line with the path of the fault per "
        "broken communication, warnings for values the library ignores, and a table of the "
        "communications. Exit status 1 when any part fails to decode. Example: tarn check inapp "
        "examples/qt-shop/answer.json");
    checkInapp
        ->add_option("FILE", inappFile,
                     "A JSON answer of the in-app endpoint, as the server sends it: an object "
                     "with \"inAppCommunicationCommands\" (the communications) and "
                     "\"configuration\" (the server's configuration block)")
        ->required();
    checkInapp->add_flag("--strict", strict, "Exit with status 1 on warnings too");

    InspectOptions inspect;
    auto* inspectCommand = app.add_subcommand(
        "inspect",
        "List what the library keeps on this device: identity, push tokens (masked), the consent "
        "answer, queued events with their times, conversion markers and in-app show counts. "
        "Changes nothing. Example: tarn inspect ~/.local/share/TarniOSCommonKit/com.example.app");
    inspectCommand->add_option("DATA_FOLDER", inspect.folder,
                               "The application's data folder (default: this user's default "
                               "folder, or TARN_DATA_DIR)");
    inspectCommand->add_flag("--json", inspect.json, "One JSON object, for scripts");
    std::string eventFile;
    auto* checkEvent = check->add_subcommand(
        "event",
        "Check event bodies against what the library sends for each event: the primary keys, the "
        "\"parameters\" object, the device and SDK sections, the in-app and push events' keys. "
        "One line per missing, extra or mistyped key, with its path; exit status 1 when any body "
        "has one. The dev server runs the same check on every event it receives. Example: tarn "
        "serve --events-file events.jsonl, then tarn check event events.jsonl");
    checkEvent
        ->add_option("FILE", eventFile,
                     "Event bodies: one JSON object, a JSON list of them, or one per line (as "
                     "tarn serve --events-file and --json write them)")
        ->required();

    CLI11_PARSE(app, argc, argv);

    if (*demoCommand) {
        return runDemo(demo);
    }
    if (*serveCommand) {
        return runServe(serve);
    }
    if (*initServiceCommand) {
        return runInitService(initService);
    }
    if (*checkService) {
        return runCheckService(serviceFile);
    }
    if (*inspectCommand) {
        return runInspect(inspect);
    }
    if (*checkInapp) {
        return runCheckInapp(inappFile, strict);
    }
    if (*checkEvent) {
        return runCheckEvent(eventFile);
    }
    return 2;
}
