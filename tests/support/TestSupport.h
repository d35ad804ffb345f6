#pragma once
// Shared fixtures for the library's tests: a temporary data folder and bundle per test, a manual
// main queue, log capture and the helper program for second-process tests.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tarn/platform/MainQueue.h"
#include "tarn/platform/NotificationCenter.h"

namespace tarn::test {

/// A folder under the system's temporary folder, removed with the object.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

/// Collects every log line ("<tag> <message>;") posted while it lives. Thread-safe.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture() { NotificationCenter::defaultCenter().removeObserver(token_); }
    std::vector<std::string> lines() const;
    bool contains(const std::string& line) const { return count(line) > 0; }
    std::size_t count(const std::string& line) const;
    /// True when any line contains `text`.
    bool containsText(const std::string& text) const;
    /// Waits up to `timeout` for `line` to have been logged `times` times.
    bool waitFor(const std::string& line,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5),
                 std::size_t times = 1) const;

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    NotificationCenter::Token token_;
};

/// Writes "TarnService-Info.plist" with `values` into `bundleFolder` (XML, or binary).
void writeServiceFile(const std::filesystem::path& bundleFolder, const nlohmann::json& values,
                      bool binary = false);
/// Writes an Info.plist with `CFBundleIdentifier` into `bundleFolder`.
void writeInfoPlist(const std::filesystem::path& bundleFolder, const std::string& identifier);

/// Every test of the library derives from this fixture: each case gets a fresh data folder, a fresh
/// main bundle folder, a manual main queue (`queue()`) and fresh shared instances.
class TarnTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    std::filesystem::path dataDir() const { return temp_->path() / "data"; }
    std::filesystem::path bundleDir() const { return temp_->path() / "bundle"; }
    ManualExecutor& queue() { return *queue_; }
    /// Drops every shared instance and the main queue, as a new process would start, and installs
    /// a fresh manual main queue. The data folder and the bundle stay.
    void simulateNewProcess();
    /// Advances the manual main queue by `step` seconds at a time until `done` holds or `timeout`
    /// of wall time passes.
    bool pumpUntil(const std::function<bool()>& done, double step = 0.05,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));

    std::unique_ptr<TempDir> temp_;
    std::shared_ptr<ManualExecutor> queue_;
};

/// Path of the helper program that tests start as a second process.
inline std::string helperProgram() {
    return TARN_TEST_HELPER_PATH;
}
/// In a forked child: replaces the process with the helper program and `args`; exits 127 when
/// that fails.
[[noreturn]] void execHelperProgram(const std::vector<std::string>& args);
/// Runs the helper program with `args`; returns its exit code and collects its standard output
/// into `output`.
int runHelper(const std::vector<std::string>& args, std::string* output = nullptr);

}  // namespace tarn::test
