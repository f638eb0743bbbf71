#pragma once
// The project log. Every line goes to standard error as "Tessarine[pid]: text"
// and to $XDG_STATE_HOME/Tessarine/Tessarine.log in syslog style (date, host,
// "Tessarine[pid]: text"); the file is rotated to Tessarine.log.1 past 10 MB.
// Safe to call from any thread. Tests capture lines with ts::LogCapture.

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace ts {

void logLine(std::string_view text);
void logf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Where the log file lives ($XDG_STATE_HOME/Tessarine, ~/.local/state/Tessarine).
std::string stateDirectory();

// Standard error output can be silenced (the headless program keeps it on).
void setLogToStandardError(bool on);

// Collects every line logged while it exists, from any thread.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    // Number of captured lines that contain the fragment.
    int count(std::string_view fragment) const;
    bool contains(std::string_view fragment) const { return count(fragment) > 0; }
    void clear();

private:
    friend void logLine(std::string_view);
    void append(std::string_view line);
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

} // namespace ts
