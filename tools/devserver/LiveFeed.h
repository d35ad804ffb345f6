#pragma once
// The live feed behind the dev server's page: each answered request becomes one message, kept in
// a short history and handed to every open page. Publishing never waits for a page: each
// subscriber has a bounded queue, and a page too slow to drain it loses the newest messages
// (counted, and told to the page) instead of holding the server's request threads.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tarn::devserver {

class LiveFeed {
  public:
    /// One open page's queue.
    struct Subscriber {
        std::mutex mutex;
        std::condition_variable changed;
        std::deque<std::string> queue;
        /// Messages dropped since the page was last told.
        std::uint64_t dropped = 0;
        bool closed = false;
    };

    /// `history`: messages a newly opened page gets first; `queueLimit`: messages waiting for one
    /// page before newer ones are dropped; `subscriberLimit`: pages open at once.
    LiveFeed(std::size_t history, std::size_t queueLimit, std::size_t subscriberLimit);

    /// A new subscriber whose queue starts with the history; null when `subscriberLimit` pages are
    /// already open or the feed is closed.
    std::shared_ptr<Subscriber> subscribe();
    void unsubscribe(const std::shared_ptr<Subscriber>& subscriber);
    /// Adds `message` to the history and to every subscriber's queue that has room. Takes two
    /// short locks and never waits for a page.
    void publish(const std::string& message);
    /// Waits up to `wait` for the next message of `subscriber`; false when none came (or the feed
    /// is closed: then `closed` is set). `dropped` is the count lost since the last call.
    bool next(Subscriber& subscriber, std::string& message, std::uint64_t& dropped,
              std::chrono::milliseconds wait, bool& closed);
    /// Forgets the history (the page's "clear" keeps its own rows).
    void clearHistory();
    /// Ends every subscription; later subscribes fail.
    void close();
    /// Messages dropped for slow pages since the start.
    std::uint64_t droppedTotal() const;
    std::size_t subscriberCount() const;

  private:
    const std::size_t historyLimit_;
    const std::size_t queueLimit_;
    const std::size_t subscriberLimit_;
    mutable std::mutex mutex_;
    std::deque<std::string> history_;
    std::vector<std::shared_ptr<Subscriber>> subscribers_;
    std::uint64_t droppedTotal_ = 0;
    bool closed_ = false;
};

}  // namespace tarn::devserver
