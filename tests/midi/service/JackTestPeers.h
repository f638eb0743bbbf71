#pragma once
// Real JACK peers for the MIDI service tests: a jackd with the dummy driver
// under a name of its own, and the command-line tools around it. Every
// process is started here, stopped by its process id, and dies with the
// test program if that ends first.

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ts::test {

// A program run in the background, its standard output (and error) going to
// a file. Stopped (SIGTERM, then SIGKILL if it lingers) and reaped when the
// object goes.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool start(const std::vector<std::string>& argv, const std::string& outputPath);
    // Sends the signal and reaps the process (SIGKILL after 3 s if it lingers).
    void stop(int signal);
    bool running() const { return pid_ > 0; }
    // Reaps the process if it has ended; true when it is not running.
    bool exited();
    pid_t pid() const { return pid_; }
    std::string output() const;

private:
    pid_t pid_ = -1;
    std::string outputPath_;
};

// Runs a program to its end (at most 10 s) and answers its standard output;
// exitCode gets its exit status (-1 when it did not end normally).
std::string runProgram(const std::vector<std::string>& argv, int* exitCode = nullptr);

// jackd -d dummy under a name of its own. The name is also put in the
// environment (JACK_DEFAULT_SERVER) of this process, so the service and the
// tools started afterwards reach this server.
class JackTestServer {
public:
    explicit JackTestServer(std::string name);
    ~JackTestServer();

    // Starts jackd and waits until jack_lsp answers; false when it did not come up.
    bool start();
    void kill(int signal); // and reap
    const std::string& name() const { return name_; }
    std::vector<std::string> ports(); // jack_lsp, one full port name each

private:
    std::string name_;
    std::string directory_;
    ChildProcess jackd_;
    bool killedHard_ = false;
};

// True when the port list of the server holds the full port name.
bool hasPort(const std::vector<std::string>& ports, const std::string& fullName);

// A python3-rtmidi program: JACK client argv[1] with port "out" sends the
// message given in hex by the other arguments every 50 ms until SIGTERM,
// on which it leaves the server cleanly (a client that just vanishes keeps
// jackd busy for seconds when it is stopped next).
extern const char* const kRepeatingJackMidiSender;

// Runs jack_connect; true on success.
bool jackConnect(const std::string& from, const std::string& to);

} // namespace ts::test
