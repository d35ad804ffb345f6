// The HTTP transport over libcurl: the small methods of the request and answer values, the curl
// session with its worker thread, and the process's shared session. It is one idea, how a request
// goes over the wire, and stays one file: the worker's loop, the transfer's callbacks and the
// classification of a finished transfer all work on the transfer's state, which nothing outside
// needs to see.

#include "tarn/network/HttpTransport.h"

#include <curl/curl.h>
#if defined(TARN_HAVE_OPENSSL)
#include <openssl/ssl.h>
#endif

#include <algorithm>
#include <atomic>
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
/// be running on worker threads while the process exits. For the same reason OpenSSL (libcurl's
/// TLS library here) is asked not to free its state from an exit handler, which would pull it from
/// under an HTTPS transfer still running on a worker thread. That request only takes effect when
/// the library is the first in the process to set OpenSSL up; a host that initialised OpenSSL
/// itself keeps its own choice.
void ensureCurlGlobalInit() {
    static std::once_flag once;
    std::call_once(once, [] {
#if defined(TARN_HAVE_OPENSSL)
        OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT | OPENSSL_INIT_LOAD_SSL_STRINGS |
                             OPENSSL_INIT_LOAD_CRYPTO_STRINGS,
                         nullptr);
#endif
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            fatalError("libcurl could not be initialised", __FILE__, __LINE__);
        }
    });
}

/// What went wrong in a finished transfer besides libcurl's code: whether a connection to the
/// server was made, and which bound our own callbacks enforced when they stopped the transfer.
struct FailureContext {
    bool connected = false;
    bool bodyTooLarge = false;
    bool headersTooLarge = false;
};

TransportError makeTransportError(CURLcode code, const char* detail,
                                  const FailureContext& context = {}) {
    TransportError error;
    error.transportCode = static_cast<int>(code);
    error.detail = (detail && *detail) ? detail : curl_easy_strerror(code);
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            error.code = TransportError::timedOut;
            break;
        case CURLE_COULDNT_CONNECT:
        case CURLE_INTERFACE_FAILED:
        case CURLE_PROXY:
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
            // Before a connection this is the URL's scheme. After one it is the answer: bytes
            // that are no HTTP status line read as HTTP/0.9, which libcurl refuses this way.
            error.code = context.connected ? TransportError::badServerResponse
                                           : TransportError::unsupportedURL;
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
        case CURLE_HTTP_RETURNED_ERROR:
        case CURLE_RANGE_ERROR:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
        case CURLE_HTTP3:
        case CURLE_QUIC_CONNECT_ERROR:
            error.code = TransportError::badServerResponse;
            break;
        case CURLE_FILESIZE_EXCEEDED:
            error.code = TransportError::dataLengthExceedsMaximum;
            break;
        case CURLE_WRITE_ERROR:
            // Only our callbacks refuse bytes, and only over a bound.
            error.code = context.bodyTooLarge      ? TransportError::dataLengthExceedsMaximum
                         : context.headersTooLarge ? TransportError::badServerResponse
                                                   : TransportError::unknown;
            break;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_SSL_SHUTDOWN_FAILED:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_CLIENTCERT:
        case CURLE_USE_SSL_FAILED:
            error.code = TransportError::secureConnectionFailed;
            break;
        case CURLE_ABORTED_BY_CALLBACK:
            error.code = TransportError::cancelled;
            break;
        default:
            // Out of memory, a libcurl that lacks a feature, a misuse of its interface: nothing
            // the server or the URL did.
            error.code = TransportError::unknown;
            break;
    }
    if (error.code == TransportError::dataLengthExceedsMaximum && context.bodyTooLarge) {
        error.detail = "answer body over the request's bound";
    } else if (context.headersTooLarge) {
        error.detail = "answer header block over its bound";
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
            return "bad URL";
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
        case dataLengthExceedsMaximum:
            return "The server's answer is larger than this request accepts.";
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

/// An answer body as it arrives: one vector while it is small, then blocks of a fixed size, so a
/// body that grows to its bound never has an old and a new copy alive at once (a growing vector
/// would hold both while it moves, one and a half times the bound). Joined once it is complete.
class BodyBuffer {
  public:
    std::size_t size() const { return size_; }

    void append(const std::uint8_t* bytes, std::size_t count) {
        size_ += count;
        while (count > 0) {
            if (blocks_.empty() || blocks_.back().size() == kBlockSize) {
                blocks_.emplace_back();
                if (blocks_.size() > 1) {
                    blocks_.back().reserve(kBlockSize);
                }
            }
            auto& block = blocks_.back();
            auto take = std::min(count, kBlockSize - block.size());
            block.insert(block.end(), bytes, bytes + take);
            bytes += take;
            count -= take;
        }
    }

    /// The whole body; the buffer is left empty. Blocks are freed as they are copied.
    Data take() {
        if (blocks_.size() <= 1) {
            Data whole = blocks_.empty() ? Data() : std::move(blocks_.front());
            clear();
            return whole;
        }
        Data whole;
        whole.reserve(size_);
        for (auto& block : blocks_) {
            whole.insert(whole.end(), block.begin(), block.end());
            Data().swap(block);
        }
        clear();
        return whole;
    }

    void clear() {
        std::vector<Data>().swap(blocks_);
        size_ = 0;
    }

  private:
    static constexpr std::size_t kBlockSize = 256 * 1024;
    std::vector<Data> blocks_;
    std::size_t size_ = 0;
};

/// The live counts behind `CurlHttpSession::liveResources`.
std::atomic<std::size_t> liveEasyHandles{0};
std::atomic<std::size_t> liveMultiHandles{0};
std::atomic<std::size_t> liveWorkers{0};

/// One transfer in flight: the easy handle and everything its callbacks write into.
struct Transfer {
    CURL* easy = nullptr;
    curl_slist* headerList = nullptr;
    HttpRequest request;
    DataTaskCompletion completion;
    BodyBuffer body;
    HttpResponse response;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    /// Bytes of header lines received, over every interim answer.
    std::size_t headerBytes = 0;
    bool bodyTooLarge = false;
    bool headersTooLarge = false;

    ~Transfer() {
        if (easy) {
            curl_easy_cleanup(easy);
            liveEasyHandles.fetch_sub(1, std::memory_order_relaxed);
        }
        if (headerList) {
            curl_slist_free_all(headerList);
        }
    }
};

/// The bound on an answer's header lines, all interim answers included.
constexpr std::size_t kMaxHeaderBytes = 256 * 1024;

std::size_t writeBody(char* ptr, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    auto bytes = size * count;
    // libcurl hands over decoded bytes, so this counts what a compressed answer expands to.
    // Refusing them (a short count) ends the transfer at once.
    if (bytes > transfer->request.maxResponseBytes - transfer->body.size()) {
        transfer->bodyTooLarge = true;
        return 0;
    }
    transfer->body.append(reinterpret_cast<const std::uint8_t*>(ptr), bytes);
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
    transfer->headerBytes += bytes;
    if (transfer->headerBytes > kMaxHeaderBytes) {
        transfer->headersTooLarge = true;
        return 0;
    }
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
        liveMultiHandles.fetch_add(1, std::memory_order_relaxed);
    }

    ~Impl() {
        if (multi) {
            curl_multi_cleanup(multi);
            liveMultiHandles.fetch_sub(1, std::memory_order_relaxed);
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
            liveWorkers.fetch_add(1, std::memory_order_relaxed);
            worker = std::thread([self] {
                self->run();
                liveWorkers.fetch_sub(1, std::memory_order_relaxed);
            });
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
        liveEasyHandles.fetch_add(1, std::memory_order_relaxed);
        const auto& r = t.request;
        curl_easy_setopt(easy, CURLOPT_PRIVATE, &t);
        curl_easy_setopt(easy, CURLOPT_URL, r.url.c_str());
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.errorBuffer);
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
        // A 3xx is handed to the caller as it stands (see the header).
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
        // An announced length over the bound fails before any of the body is read; the write
        // callback enforces the bound on what actually arrives.
        curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE,
                         static_cast<curl_off_t>(std::min<std::size_t>(
                             r.maxResponseBytes, static_cast<std::size_t>(INT64_MAX))));
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
            t.completion(t.body.take(), std::move(response), std::nullopt);
        } else {
            FailureContext context;
            context.bodyTooLarge = t.bodyTooLarge;
            context.headersTooLarge = t.headersTooLarge;
            char* ip = nullptr;
            context.connected =
                curl_easy_getinfo(t.easy, CURLINFO_PRIMARY_IP, &ip) == CURLE_OK && ip && *ip;
            t.body.clear();  // a partial body is not kept while the completion runs
            t.completion(std::nullopt, std::move(response),
                         makeTransportError(result, t.errorBuffer, context));
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

CurlHttpSession::Resources CurlHttpSession::liveResources() {
    return {liveEasyHandles.load(std::memory_order_relaxed),
            liveMultiHandles.load(std::memory_order_relaxed),
            liveWorkers.load(std::memory_order_relaxed)};
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
