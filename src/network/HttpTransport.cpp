#include "tarn/network/HttpTransport.h"

#include <curl/curl.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "tarn/core/Fatal.h"
#include "tarn/core/Shared.h"

namespace tarn {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

/// libcurl's global state is set up once per process and never torn down: transfers may still
/// be running on worker threads while the process exits.
void ensureCurlGlobalInit() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            fatalError("libcurl could not be initialised", __FILE__, __LINE__);
        }
    });
}

TransportError makeTransportError(CURLcode code, const char* detail) {
    TransportError error;
    error.transportCode = static_cast<int>(code);
    error.detail = (detail && *detail) ? detail : curl_easy_strerror(code);
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            error.code = TransportError::timedOut;
            break;
        case CURLE_COULDNT_CONNECT:
            error.code = TransportError::cannotConnectToHost;
            break;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            error.code = TransportError::cannotFindHost;
            break;
        case CURLE_URL_MALFORMAT:
            error.code = TransportError::badURL;
            break;
        case CURLE_UNSUPPORTED_PROTOCOL:
            error.code = TransportError::unsupportedURL;
            break;
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_PARTIAL_FILE:
            error.code = TransportError::networkConnectionLost;
            break;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_BAD_CONTENT_ENCODING:
        case CURLE_TOO_MANY_REDIRECTS:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            error.code = TransportError::badServerResponse;
            break;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
            error.code = TransportError::secureConnectionFailed;
            break;
        case CURLE_ABORTED_BY_CALLBACK:
            error.code = TransportError::cancelled;
            break;
        default:
            error.code = TransportError::unknown;
            break;
    }
    return error;
}

}  // namespace

// ---- HttpHeaders ---------------------------------------------------------------------------

void HttpHeaders::set(std::string_view name, std::string value) {
    remove(name);
    fields_.emplace_back(std::string(name), std::move(value));
}

void HttpHeaders::add(std::string name, std::string value) {
    fields_.emplace_back(std::move(name), std::move(value));
}

std::optional<std::string> HttpHeaders::value(std::string_view name) const {
    for (const auto& [field, value] : fields_) {
        if (equalsIgnoringCase(field, name)) {
            return value;
        }
    }
    return std::nullopt;
}

void HttpHeaders::remove(std::string_view name) {
    std::erase_if(fields_, [&](const auto& f) { return equalsIgnoringCase(f.first, name); });
}

// ---- TransportError ------------------------------------------------------------------------

std::string TransportError::localizedDescription() const {
    switch (code) {
        case cancelled:
            return "cancelled";
        case badURL:
            return "unsupported URL";
        case timedOut:
            return "The request timed out.";
        case unsupportedURL:
            return "unsupported URL";
        case cannotFindHost:
            return "A server with the specified hostname could not be found.";
        case cannotConnectToHost:
            return "Could not connect to the server.";
        case networkConnectionLost:
            return "The network connection was lost.";
        case badServerResponse:
            return "The server returned a bad response.";
        case secureConnectionFailed:
            return "An SSL error has occurred and a secure connection to the server cannot be "
                   "made.";
        default:
            return "An unknown error occurred.";
    }
}

// ---- HttpDataTask / HttpSession ------------------------------------------------------------

HttpDataTask::HttpDataTask(std::weak_ptr<HttpSession> session, HttpRequest request,
                           DataTaskCompletion completion)
    : session_(std::move(session)),
      request_(std::move(request)),
      completion_(std::move(completion)) {}

void HttpDataTask::resume() {
    if (started_) {
        return;
    }
    started_ = true;
    if (auto session = session_.lock()) {
        session->send(request_, std::move(completion_));
    }
}

std::shared_ptr<HttpDataTask> HttpSession::dataTask(HttpRequest request,
                                                    DataTaskCompletion completion) {
    return std::make_shared<HttpDataTask>(weak_from_this(), std::move(request),
                                          std::move(completion));
}

// ---- CurlHttpSession -----------------------------------------------------------------------

namespace {

/// One transfer in flight: the easy handle and everything its callbacks write into.
struct Transfer {
    CURL* easy = nullptr;
    curl_slist* headerList = nullptr;
    HttpRequest request;
    DataTaskCompletion completion;
    Data body;
    HttpResponse response;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    ~Transfer() {
        if (easy) {
            curl_easy_cleanup(easy);
        }
        if (headerList) {
            curl_slist_free_all(headerList);
        }
    }
};

std::size_t writeBody(char* ptr, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    auto bytes = size * count;
    transfer->body.insert(transfer->body.end(), reinterpret_cast<std::uint8_t*>(ptr),
                          reinterpret_cast<std::uint8_t*>(ptr) + bytes);
    return bytes;
}

std::string trim(std::string_view text) {
    auto begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string_view::npos) {
        return {};
    }
    auto end = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(begin, end - begin + 1));
}

std::size_t writeHeader(char* ptr, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    auto bytes = size * count;
    std::string_view line(ptr, bytes);
    if (line.starts_with("HTTP/")) {
        // A new status line (after a redirect or an interim answer) starts a fresh header set.
        transfer->response.headers = HttpHeaders();
        return bytes;
    }
    auto colon = line.find(':');
    if (colon != std::string_view::npos) {
        transfer->response.headers.add(trim(line.substr(0, colon)), trim(line.substr(colon + 1)));
    }
    return bytes;
}

}  // namespace

struct CurlHttpSession::Impl {
    std::string name;
    CURLM* multi = nullptr;

    std::mutex mutex;
    std::vector<std::unique_ptr<Transfer>> incoming;
    bool stopping = false;
    bool invalidated = false;
    std::thread worker;
    std::thread::id workerId;

    explicit Impl(std::string n) : name(std::move(n)) {
        ensureCurlGlobalInit();
        multi = curl_multi_init();
        if (!multi) {
            fatalError("libcurl could not create a multi handle", __FILE__, __LINE__);
        }
    }

    ~Impl() {
        if (multi) {
            curl_multi_cleanup(multi);
        }
    }

    /// Queues a transfer and wakes the worker, starting it on first use.
    void enqueue(std::unique_ptr<Transfer> transfer, const std::shared_ptr<Impl>& self) {
        std::lock_guard lock(mutex);
        if (stopping) {
            return;  // Invalidated: dropped without a completion.
        }
        incoming.push_back(std::move(transfer));
        if (!worker.joinable()) {
            worker = std::thread([self] { self->run(); });
            workerId = worker.get_id();
        }
        curl_multi_wakeup(multi);
    }

    void stop() {
        std::thread toJoin;
        {
            std::lock_guard lock(mutex);
            if (invalidated) {
                return;
            }
            invalidated = true;
            stopping = true;
            if (worker.joinable()) {
                curl_multi_wakeup(multi);
                if (std::this_thread::get_id() == worker.get_id()) {
                    // Called from a completion: the worker notices the flag when it returns.
                    worker.detach();
                } else {
                    toJoin = std::move(worker);
                }
            }
        }
        if (toJoin.joinable()) {
            toJoin.join();
        }
    }

    bool isStopping() {
        std::lock_guard lock(mutex);
        return stopping;
    }

    bool configure(Transfer& t) {
        CURL* easy = curl_easy_init();
        if (!easy) {
            return false;
        }
        t.easy = easy;
        const auto& r = t.request;
        curl_easy_setopt(easy, CURLOPT_PRIVATE, &t);
        curl_easy_setopt(easy, CURLOPT_URL, r.url.c_str());
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.errorBuffer);
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &writeBody);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &t);
        curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &writeHeader);
        curl_easy_setopt(easy, CURLOPT_HEADERDATA, &t);
        if (r.timeoutInterval > 0) {
            auto ms = static_cast<long>(std::min(std::ceil(r.timeoutInterval * 1000.0), 2.0e9));
            curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, std::max(ms, 1L));
        }
        if (r.method == "POST") {
            curl_easy_setopt(easy, CURLOPT_POST, 1L);
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(r.body.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, r.body.data());
        } else if (r.method == "GET") {
            curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        } else {
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, r.method.c_str());
            if (!r.body.empty()) {
                curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                                 static_cast<curl_off_t>(r.body.size()));
                curl_easy_setopt(easy, CURLOPT_POSTFIELDS, r.body.data());
            }
        }
        // The body goes out with the request: no "Expect: 100-continue" round trip.
        t.headerList = curl_slist_append(t.headerList, "Expect:");
        for (const auto& [field, value] : r.headers.fields()) {
            std::string line = value.empty() ? field + ";" : field + ": " + value;
            t.headerList = curl_slist_append(t.headerList, line.c_str());
        }
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, t.headerList);
        return true;
    }

    void complete(Transfer& t, CURLcode result) {
        long status = 0;
        curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
        std::optional<HttpResponse> response;
        if (status > 0) {
            t.response.statusCode = static_cast<int>(status);
            char* effective = nullptr;
            curl_easy_getinfo(t.easy, CURLINFO_EFFECTIVE_URL, &effective);
            t.response.url = effective ? effective : t.request.url;
            response = std::move(t.response);
        }
        if (!t.completion) {
            return;
        }
        if (result == CURLE_OK) {
            t.completion(std::move(t.body), std::move(response), std::nullopt);
        } else {
            t.completion(std::nullopt, std::move(response),
                         makeTransportError(result, t.errorBuffer));
        }
    }

    void run() {
        std::unordered_map<CURL*, std::unique_ptr<Transfer>> active;
        std::vector<std::unique_ptr<Transfer>> batch;
        while (true) {
            {
                std::lock_guard lock(mutex);
                if (stopping) {
                    break;
                }
                batch.swap(incoming);
            }
            for (auto& t : batch) {
                if (!configure(*t)) {
                    auto completion = std::move(t->completion);
                    if (completion) {
                        completion(std::nullopt, std::nullopt,
                                   makeTransportError(CURLE_OUT_OF_MEMORY, nullptr));
                    }
                    continue;
                }
                CURL* easy = t->easy;
                curl_multi_add_handle(multi, easy);
                active.emplace(easy, std::move(t));
            }
            batch.clear();

            int running = 0;
            curl_multi_perform(multi, &running);
            int queued = 0;
            while (CURLMsg* msg = curl_multi_info_read(multi, &queued)) {
                if (msg->msg != CURLMSG_DONE) {
                    continue;
                }
                CURL* easy = msg->easy_handle;
                CURLcode result = msg->data.result;
                curl_multi_remove_handle(multi, easy);
                auto it = active.find(easy);
                if (it == active.end()) {
                    continue;
                }
                auto transfer = std::move(it->second);
                active.erase(it);
                if (isStopping()) {
                    continue;
                }
                complete(*transfer, result);
            }
            if (isStopping()) {
                break;
            }
            curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
        // Abandoned transfers end without their completions.
        for (auto& [easy, transfer] : active) {
            curl_multi_remove_handle(multi, easy);
        }
        active.clear();
        std::lock_guard lock(mutex);
        incoming.clear();
    }
};

std::shared_ptr<CurlHttpSession> CurlHttpSession::make(std::string name) {
    return std::shared_ptr<CurlHttpSession>(new CurlHttpSession(std::move(name)));
}

CurlHttpSession::CurlHttpSession(std::string name)
    : name_(name), impl_(std::make_shared<Impl>(std::move(name))) {}

CurlHttpSession::~CurlHttpSession() {
    impl_->stop();
}

void CurlHttpSession::send(HttpRequest request, DataTaskCompletion completion) {
    auto transfer = std::make_unique<Transfer>();
    transfer->request = std::move(request);
    transfer->completion = std::move(completion);
    impl_->enqueue(std::move(transfer), impl_);
}

void CurlHttpSession::invalidate() {
    impl_->stop();
}

// ---- the shared session --------------------------------------------------------------------

namespace {

struct SharedSessionHolder {
    std::shared_ptr<CurlHttpSession> session = CurlHttpSession::make("shared");
};

}  // namespace

HttpSession& sharedHttpSession() {
    return *detail::SharedInstance<SharedSessionHolder, 55>::get().session;
}

}  // namespace tarn
