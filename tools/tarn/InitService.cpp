// `tarn init-service`.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Commands.h"
#include "Output.h"
#include "tarn/platform/PropertyList.h"

namespace tarn::cli {

int runInitService(const InitServiceOptions& options) {
    auto problems = domainProblems(options.domain);
    if (options.clientId.empty()) {
        problems.push_back("the client id is empty");
    }
    if (options.clientSecret.empty()) {
        problems.push_back("the client secret is empty");
    }
    if (!problems.empty()) {
        std::string out;
        for (const auto& problem : problems) {
            out += "tarn init-service: " + problem + "\n";
        }
        emit(stderr, out);
        return 1;
    }
    nlohmann::json service{{"DOMAIN", options.domain},
                           {"CLIENT_ID", options.clientId},
                           {"CLIENT_SECRET", options.clientSecret}};
    std::string bytes;
    try {
        bytes = writePropertyList(service, options.binary);
    } catch (const std::exception& e) {
        emit(stderr,
             std::string("tarn init-service: cannot encode the property list: ") + e.what() + "\n");
        return 1;
    }
    // The file holds a secret: it is created 0600 whatever the umask, an existing file is only
    // replaced with --force, and a symbolic link in its place is never followed.
    int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (options.force ? O_TRUNC : O_EXCL);
    int fd = ::open(options.file.c_str(), flags, 0600);
    if (fd < 0) {
        std::string reason =
            errno == EEXIST ? "it exists (add --force to replace it)" : std::strerror(errno);
        emit(stderr, "tarn init-service: cannot write " + options.file + ": " + reason + "\n");
        return 1;
    }
    bool written = ::fchmod(fd, 0600) == 0;
    for (std::size_t done = 0; written && done < bytes.size();) {
        auto n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        written = n > 0;
        done += written ? static_cast<std::size_t>(n) : 0;
    }
    written = ::close(fd) == 0 && written;
    if (!written) {
        emit(stderr, "tarn init-service: cannot write " + options.file + ": " +
                         std::strerror(errno) + "\n");
        return 1;
    }
    emit(stdout, "tarn init-service: wrote " + options.file + " (" +
                     (options.binary ? "binary" : "XML") +
                     ", mode 0600); check it with: tarn check service " + options.file + "\n");
    return 0;
}

}  // namespace tarn::cli
