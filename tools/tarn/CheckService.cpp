// `tarn check service FILE`.
#include <cctype>
#include <cstdio>
#include <filesystem>

#include "Commands.h"
#include "Output.h"
#include "tarn/platform/PropertyList.h"

namespace tarn::cli {

namespace {

constexpr const char* kServiceFileName = "TarnService-Info.plist";
constexpr const char* kRequiredKeys[] = {"DOMAIN", "CLIENT_ID", "CLIENT_SECRET"};

bool isSchemeCharacter(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
}

}  // namespace

std::vector<std::string> domainProblems(const std::string& domain) {
    std::vector<std::string> problems;
    if (domain.empty()) {
        problems.push_back("\"DOMAIN\" is empty");
        return problems;
    }
    for (char c : domain) {
        auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u == 0x7f) {
            problems.push_back(
                "\"DOMAIN\" contains white space or control characters, so the endpoint URLs "
                "do not parse");
            return problems;
        }
    }
    auto schemeEnd = domain.find("://");
    if (schemeEnd == std::string::npos || schemeEnd == 0) {
        problems.push_back("\"DOMAIN\" has no scheme: write it as http://host or https://host");
        return problems;
    }
    std::string scheme = domain.substr(0, schemeEnd);
    bool schemeOk = std::isalpha(static_cast<unsigned char>(scheme[0]));
    for (char c : scheme) {
        schemeOk = schemeOk && isSchemeCharacter(c);
    }
    if (!schemeOk || (scheme != "http" && scheme != "https")) {
        problems.push_back("\"DOMAIN\" has the scheme \"" + scheme +
                           "\": it must be http or https (lower case)");
    }
    std::string rest = domain.substr(schemeEnd + 3);
    auto authorityEnd = rest.find_first_of("/?#");
    std::string authority = rest.substr(0, authorityEnd);
    std::string tail = authorityEnd == std::string::npos ? "" : rest.substr(authorityEnd);
    if (auto at = authority.rfind('@'); at != std::string::npos) {
        problems.push_back("\"DOMAIN\" carries user information before the host");
        authority = authority.substr(at + 1);
    }
    std::string host = authority;
    std::string port;
    if (!authority.empty() && authority[0] == '[') {
        auto close = authority.find(']');
        if (close == std::string::npos) {
            problems.push_back("\"DOMAIN\" has an unclosed IPv6 address");
            return problems;
        }
        host = authority.substr(0, close + 1);
        if (close + 1 < authority.size()) {
            if (authority[close + 1] != ':') {
                problems.push_back("\"DOMAIN\" has text after its IPv6 address");
            } else {
                port = authority.substr(close + 2);
                if (port.empty()) {
                    problems.push_back("\"DOMAIN\" has an empty port");
                }
            }
        }
    } else if (auto colon = authority.find(':'); colon != std::string::npos) {
        host = authority.substr(0, colon);
        port = authority.substr(colon + 1);
        if (port.empty()) {
            problems.push_back("\"DOMAIN\" has an empty port");
        }
    }
    if (host.empty()) {
        problems.push_back("\"DOMAIN\" has no host");
    } else if (host[0] != '[') {
        for (char c : host) {
            if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.' && c != '_') {
                problems.push_back("\"DOMAIN\" has the host \"" + host +
                                   "\", which is not a valid host name");
                break;
            }
        }
    }
    if (!port.empty()) {
        bool digits = port.size() <= 5;
        for (char c : port) {
            digits = digits && std::isdigit(static_cast<unsigned char>(c));
        }
        if (!digits || std::stol(port) < 1 || std::stol(port) > 65535) {
            problems.push_back("\"DOMAIN\" has the port \"" + port +
                               "\": it must be a number from 1 to 65535");
        }
    }
    if (tail.find_first_of("?#") != std::string::npos) {
        problems.push_back(
            "\"DOMAIN\" has a query or fragment: the request paths are appended after it");
    }
    if (domain.back() == '/') {
        problems.push_back(
            "\"DOMAIN\" ends with \"/\": the request paths begin with \"/\", so every URL "
            "would get a double slash (" +
            domain + "/core/auth/token)");
    }
    return problems;
}

int runCheckService(const std::string& file) {
    std::vector<std::string> problems;
    std::vector<std::string> warnings;
    auto report = [&]() {
        std::string out;
        for (const auto& w : warnings) {
            out += file + ": warning: " + w + "\n";
        }
        for (const auto& p : problems) {
            out += file + ": error: " + p + "\n";
        }
        emit(stdout, out);
    };

    std::string bytes;
    std::string error;
    if (!readWholeFile(file, bytes, error)) {
        problems.push_back("cannot read the file: " + error);
        report();
        return 1;
    }
    if (std::filesystem::path(file).filename() != kServiceFileName) {
        warnings.push_back(std::string("the library only reads a file named \"") +
                           kServiceFileName + "\" in the main bundle folder");
    }
    auto parsed = parsePropertyList(bytes, &error);
    if (!parsed) {
        problems.push_back("not a property list (XML or binary): " + error);
        report();
        return 1;
    }
    if (!parsed->is_object()) {
        problems.push_back("the root is " + describeType(*parsed) +
                           ", not a dictionary with string keys");
        report();
        return 1;
    }
    bool stringsOk = true;
    for (const char* key : kRequiredKeys) {
        auto it = parsed->find(key);
        if (it == parsed->end()) {
            problems.push_back(std::string("\"") + key + "\" is missing");
            stringsOk = false;
        } else if (!it->is_string()) {
            problems.push_back(std::string("\"") + key + "\" must be a string, found " +
                               describeType(*it));
            stringsOk = false;
        } else if (it->get<std::string>().empty() && std::string(key) != "DOMAIN") {
            problems.push_back(std::string("\"") + key + "\" is empty");
        }
    }
    auto domain = parsed->find("DOMAIN");
    if (domain != parsed->end() && domain->is_string()) {
        for (auto& p : domainProblems(domain->get<std::string>())) {
            problems.push_back(std::move(p));
        }
    }
    report();
    if (!problems.empty() || !stringsOk) {
        return 1;
    }
    // The secret is never echoed.
    emit(stdout, file + ": OK: DOMAIN " + domain->get<std::string>() + ", CLIENT_ID " +
                     (*parsed)["CLIENT_ID"].get<std::string>() + "\n");
    return 0;
}

}  // namespace tarn::cli
