#pragma once
// Small helpers shared by the tests.

#include <chrono>
#include <functional>
#include <string>

namespace ts::test {

// Runs the main thread's event loop until the predicate holds or the time is
// up; answers the predicate's last value.
bool spinUntil(const std::function<bool()>& predicate,
               std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

// Runs the event loop for the given time (lets queued calls arrive).
void spinFor(std::chrono::milliseconds duration);

// A fresh empty directory below the system's temporary folder.
std::string makeTempDir(const std::string& prefix);

} // namespace ts::test
