#include "JackTestPeers.h"

#include "support/TestSupport.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace ts::test {

const char* const kRepeatingJackMidiSender = R"(
import signal, sys, time, rtmidi
signal.signal(signal.SIGTERM, lambda *args: sys.exit(0))
out = rtmidi.MidiOut(rtmidi.API_UNIX_JACK, name=sys.argv[1])
out.open_virtual_port("out")
message = [int(b, 16) for b in sys.argv[2:]]
try:
    while True:
        out.send_message(message)
        time.sleep(0.05)
finally:
    out.close_port()
    del out
)";

namespace {

// Forks and execs; in the child only async-signal-safe calls happen.
pid_t spawn(const std::vector<std::string>& argv, int outFd) {
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlive the test program
        if (getppid() != parent)
            _exit(127);
        const int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, STDIN_FILENO);
        dup2(outFd, STDOUT_FILENO);
        dup2(outFd, STDERR_FILENO);
        execvp(args[0], args.data());
        _exit(127);
    }
    return pid;
}

bool reap(pid_t pid, std::chrono::milliseconds timeout, int* status) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const pid_t r = waitpid(pid, status, WNOHANG);
        if (r == pid || r < 0)
            return true;
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

} // namespace

ChildProcess::~ChildProcess() {
    // Politely first: a JACK client killed outright keeps jackd busy for
    // seconds when it stops.
    if (running())
        stop(SIGTERM);
}

bool ChildProcess::start(const std::vector<std::string>& argv, const std::string& outputPath) {
    outputPath_ = outputPath;
    const int fd = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    pid_ = spawn(argv, fd);
    close(fd);
    return pid_ > 0;
}

void ChildProcess::stop(int signal) {
    if (pid_ <= 0)
        return;
    ::kill(pid_, signal);
    int status = 0;
    // Generous: a jackd killed before it has left its registry entry behind
    // keeps that entry (and the machine has room for only a few servers).
    if (!reap(pid_, std::chrono::seconds(10), &status)) {
        ::kill(pid_, SIGKILL);
        reap(pid_, std::chrono::seconds(3), &status);
    }
    pid_ = -1;
}

bool ChildProcess::exited() {
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_)
        pid_ = -1; // reaped: its number may be anybody's now
    return pid_ <= 0;
}

std::string ChildProcess::output() const {
    std::ifstream in(outputPath_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string runProgram(const std::vector<std::string>& argv, int* exitCode) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return {};
    const pid_t pid = spawn(argv, fds[1]);
    close(fds[1]);
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<std::size_t>(n));
    close(fds[0]);
    int status = 0;
    if (pid > 0 && !reap(pid, std::chrono::seconds(10), &status)) {
        ::kill(pid, SIGKILL);
        reap(pid, std::chrono::seconds(3), &status);
    }
    if (exitCode)
        *exitCode = pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return text;
}

JackTestServer::JackTestServer(std::string name)
    : name_(std::move(name)), directory_(makeTempDir("jacktest")) {}

JackTestServer::~JackTestServer() {
    // A server that died by SIGKILL keeps its entry in the machine's JACK
    // registry until a server of the same name starts and stops cleanly.
    if (killedHard_ && !jackd_.running())
        start();
    kill(SIGTERM);
}

bool JackTestServer::start() {
    killedHard_ = false;
    setenv("JACK_DEFAULT_SERVER", name_.c_str(), 1);
    if (jackd_.running())
        return false;
    if (!jackd_.start(
            {"jackd", "--no-realtime", "-n", name_, "-d", "dummy", "-r", "48000", "-p", "256"},
            directory_ + "/jackd.log"))
        return false;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < end) {
        int code = -1;
        runProgram({"jack_lsp"}, &code);
        if (code == 0)
            return true;
        if (jackd_.exited())
            return false; // jackd gave up (its log says why)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

void JackTestServer::kill(int signal) {
    if (jackd_.running())
        killedHard_ = signal == SIGKILL;
    jackd_.stop(signal);
}

std::vector<std::string> JackTestServer::ports() {
    std::vector<std::string> ports;
    std::istringstream lines(runProgram({"jack_lsp"}));
    std::string line;
    while (std::getline(lines, line))
        if (!line.empty())
            ports.push_back(line);
    return ports;
}

bool hasPort(const std::vector<std::string>& ports, const std::string& fullName) {
    return std::find(ports.begin(), ports.end(), fullName) != ports.end();
}

bool jackConnect(const std::string& from, const std::string& to) {
    int code = -1;
    runProgram({"jack_connect", from, to}, &code);
    return code == 0;
}

} // namespace ts::test
