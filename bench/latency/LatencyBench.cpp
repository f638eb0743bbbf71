// Latency from an input datagram to the Korvalis datagram it causes, through
// the real headless program on loopback:
//   - a UDP command mapped to a Korvalis column launch;
//   - a generic OSC message mapped to a Korvalis layer opacity;
//   - the floor: a minimal relay thread in this process that receives one
//     datagram and sends one, measured the same way.
// Each path: N samples (default 10,000) paced at 1,000 per second; prints
// p50, p99 and max in microseconds. Usage: bench_latency [samples]

#include "osc/BBOSCMessage.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::int64_t nowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::int64_t{ts.tv_sec} * 1'000'000'000 + ts.tv_nsec;
}

struct Socket {
    int fd = -1;
    int port = 0;
    Socket() {
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
    }
    ~Socket() { close(fd); }
    void sendTo(int toPort, const void* data, size_t size) const {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(toPort));
        sendto(fd, data, size, 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    bool receive(int timeoutMs) const {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0)
            return false;
        char buffer[2048];
        return recv(fd, buffer, sizeof buffer, 0) >= 0;
    }
    void drain() const {
        while (receive(0)) {
        }
    }
};

int freePort() {
    Socket s;
    return s.port;
}

struct Summary {
    double p50, p99, max;
    int lost;
};

Summary measure(const Socket& out, int toPort, const std::vector<uint8_t>& datagram,
                const Socket& in, int samples) {
    std::vector<double> us;
    us.reserve(static_cast<size_t>(samples));
    int lost = 0;
    in.drain();
    std::int64_t next = nowNs();
    for (int i = 0; i < samples; ++i) {
        next += 1'000'000; // 1,000 per second
        const std::int64_t start = nowNs();
        out.sendTo(toPort, datagram.data(), datagram.size());
        if (in.receive(100))
            us.push_back(static_cast<double>(nowNs() - start) / 1000.0);
        else
            ++lost;
        while (nowNs() < next)
            std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    std::sort(us.begin(), us.end());
    if (us.empty())
        return {0, 0, 0, lost};
    auto at = [&](double q) { return us[std::min(us.size() - 1, static_cast<size_t>(q * us.size()))]; };
    return {at(0.50), at(0.99), us.back(), lost};
}

QJsonObject signal(const char* cls, QJsonObject members) {
    members.insert("$class", cls);
    members.insert("minValue", "0");
    members.insert("maxValue", "100");
    return members;
}

QJsonObject plug(QJsonObject in, QJsonObject out) {
    return {{"$class", "TSPlug"}, {"enabled", true}, {"signalIn", in}, {"signalOut", out}};
}

void print(const char* name, const Summary& s) {
    std::printf("%-34s p50 %8.1f us   p99 %8.1f us   max %9.1f us   lost %d\n", name, s.p50, s.p99,
                s.max, s.lost);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int samples = argc > 1 ? std::max(1, atoi(argv[1])) : 10000;

    Socket korvalis, input;
    const int commandPort = freePort(), oscPort = freePort(), korvalisListen = freePort();
    QTemporaryDir home;
    QDir().mkpath(home.path() + "/config/Tessarine");
    const QJsonObject archive{
        {"$archiver", "TessarineKeyedArchive"},
        {"$version", 1},
        {"root", QJsonArray{plug(signal("TSCommandSignal", {{"string", "go"}}),
                                 signal("TSKorvalisSignal", {{"addressSuffix", "action/launchColumn/5"},
                                                             {"paramValue", QJsonValue()}})),
                            plug(signal("TSOSCSignal", {{"address", "/go"}}),
                                 signal("TSKorvalisSignal", {{"addressSuffix", "layer/opacity/1"},
                                                             {"paramValue", QJsonValue()}}))}}};
    const QJsonObject settings{{"firstStart", true},
                               {"korvalisSendPort", korvalis.port},
                               {"korvalisListenPort", korvalisListen},
                               {"commandListenerPort", commandPort},
                               {"oscListenerPort", oscPort},
                               {"oscSenderMachine", "127.0.0.1"},
                               {"plugs", archive}};
    QFile file(home.path() + "/config/Tessarine/Tessarine.json");
    file.open(QIODevice::WriteOnly);
    file.write(QJsonDocument(settings).toJson());
    file.close();

    QProcess program;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", home.path() + "/config");
    env.insert("XDG_STATE_HOME", home.path() + "/state");
    program.setProcessEnvironment(env);
    program.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // The console lines go nowhere: a pipe nobody reads would fill and stall it.
    program.setStandardOutputFile(QProcess::nullDevice());
    program.start(TESSARINE_BINARY, {"--headless"});
    if (!program.waitForStarted(5000)) {
        std::fprintf(stderr, "cannot start %s\n", TESSARINE_BINARY);
        return 1;
    }
    // Ready once a command comes through.
    const std::vector<uint8_t> command{'g', 'o'};
    bool ready = false;
    for (int i = 0; i < 100 && !ready; ++i) {
        input.sendTo(commandPort, command.data(), command.size());
        ready = korvalis.receive(100);
    }
    if (!ready) {
        std::fprintf(stderr, "the program did not answer\n");
        return 1;
    }

    BBOSCMessage go(BBOSCAddress::addressWithString("/go"));
    go.attachArgument(BBOSCArgument::argumentWithFloat(1.0f));
    const std::vector<uint8_t> oscDatagram = go.packetizedData();

    // The floor: receive one datagram, send one, nothing else.
    Socket relayIn, relayOut;
    std::atomic<bool> relaying{true};
    std::thread relay([&] {
        char buffer[2048];
        while (relaying.load()) {
            pollfd p{relayIn.fd, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0)
                continue;
            const ssize_t n = recv(relayIn.fd, buffer, sizeof buffer, 0);
            if (n > 0)
                relayOut.sendTo(korvalis.port, buffer, static_cast<size_t>(n));
        }
    });

    std::printf("%d samples per path, 1,000 per second, loopback\n", samples);
    std::fflush(stdout);
    const Summary relaySummary = measure(input, relayIn.port, oscDatagram, korvalis, samples);
    const Summary commandSummary = measure(input, commandPort, command, korvalis, samples);
    const Summary oscSummary = measure(input, oscPort, oscDatagram, korvalis, samples);
    relaying.store(false);
    relay.join();

    print("relay (floor)", relaySummary);
    print("UDP command -> Korvalis", commandSummary);
    print("generic OSC -> Korvalis", oscSummary);
    std::printf("p99 ratio to the floor: command %.2f, OSC %.2f\n",
                commandSummary.p99 / relaySummary.p99, oscSummary.p99 / relaySummary.p99);

    program.terminate();
    program.waitForFinished(5000);
    return 0;
}
