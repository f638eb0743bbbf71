#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QThread>
#include <cstdlib>
#include <vector>

namespace ts::test {

bool spinUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
    QElapsedTimer timer;
    timer.start();
    while (!predicate()) {
        if (timer.elapsed() >= timeout.count())
            return predicate();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::usleep(200);
    }
    return true;
}

void spinFor(std::chrono::milliseconds duration) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < duration.count()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::usleep(200);
    }
}

std::string makeTempDir(const std::string& prefix) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/" + prefix + "-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    const char* made = mkdtemp(buf.data());
    return made ? std::string(made) : std::string();
}

} // namespace ts::test
