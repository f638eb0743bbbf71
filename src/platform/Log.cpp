#include "platform/Log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <unistd.h>

namespace ts {
namespace {

constexpr long kRotateBytes = 10L * 1024 * 1024;

// Guards the file, the capture list and the stderr switch. Leaf lock: nothing
// else is taken while it is held.
struct LogState {
    std::mutex mutex;
    FILE* file = nullptr;
    bool fileTried = false;
    bool toStderr = true;
    std::vector<LogCapture*> captures;
};

LogState& state() {
    static LogState* s = new LogState; // never destroyed: threads may log during exit
    return *s;
}

std::string logPath() { return stateDirectory() + "/Tessarine.log"; }

void openFileLocked(LogState& s) {
    s.fileTried = true;
    std::error_code ec;
    std::filesystem::create_directories(stateDirectory(), ec);
    s.file = std::fopen(logPath().c_str(), "a");
}

void rotateIfNeededLocked(LogState& s) {
    if (!s.file || std::ftell(s.file) < kRotateBytes)
        return;
    std::fclose(s.file);
    s.file = nullptr;
    std::error_code ec;
    std::filesystem::rename(logPath(), logPath() + ".1", ec);
    openFileLocked(s);
}

} // namespace

std::string stateDirectory() {
    const char* xdg = std::getenv("XDG_STATE_HOME");
    std::string base;
    if (xdg && *xdg) {
        base = xdg;
    } else {
        const char* home = std::getenv("HOME");
        base = std::string(home && *home ? home : "/tmp") + "/.local/state";
    }
    return base + "/Tessarine";
}

void setLogToStandardError(bool on) {
    LogState& s = state();
    std::lock_guard lock(s.mutex);
    s.toStderr = on;
}

void logLine(std::string_view text) {
    const int pid = static_cast<int>(getpid());
    LogState& s = state();
    std::lock_guard lock(s.mutex);
    if (s.toStderr)
        std::fprintf(stderr, "Tessarine[%d]: %.*s\n", pid, static_cast<int>(text.size()), text.data());
    if (!s.fileTried)
        openFileLocked(s);
    if (s.file) {
        char stamp[32];
        std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        std::strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
        char host[64] = "localhost";
        gethostname(host, sizeof host - 1);
        std::fprintf(s.file, "%s %s Tessarine[%d]: %.*s\n", stamp, host, pid,
                     static_cast<int>(text.size()), text.data());
        std::fflush(s.file);
        rotateIfNeededLocked(s);
    }
    for (LogCapture* c : s.captures)
        c->append(text);
}

void logf(const char* format, ...) {
    char small[512];
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n < 0) {
        va_end(copy);
        return;
    }
    if (static_cast<size_t>(n) < sizeof small) {
        va_end(copy);
        logLine(std::string_view(small, static_cast<size_t>(n)));
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(big.data(), big.size(), format, copy);
    va_end(copy);
    big.resize(static_cast<size_t>(n));
    logLine(big);
}

LogCapture::LogCapture() {
    LogState& s = state();
    std::lock_guard lock(s.mutex);
    s.captures.push_back(this);
}

LogCapture::~LogCapture() {
    LogState& s = state();
    std::lock_guard lock(s.mutex);
    s.captures.erase(std::remove(s.captures.begin(), s.captures.end(), this), s.captures.end());
}

void LogCapture::append(std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

int LogCapture::count(std::string_view fragment) const {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const std::string& l) {
        return l.find(fragment) != std::string::npos;
    }));
}

void LogCapture::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

} // namespace ts
