// Latency from a MIDI note written into JACK to the OSC datagram it causes,
// through the real headless program:
//   - note -> Korvalis action (sent at once);
//   - note -> generic OSC (leaves in the next 10 ms bundle).
// Starts its own jackd (dummy driver, 48 kHz, 32-frame periods, so one
// period is 0.67 ms) and stops it by process id. The time is taken in this
// program's JACK process callback as it writes the note, and again when the
// datagram arrives. Usage: bench_midi_latency [samples]   (default 2,000 per path)

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <jack/jack.h>
#include <jack/midiport.h>
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

struct Receiver {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    int port = 0;
    Receiver() {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
    }
    ~Receiver() { close(fd); }
    bool receive(int timeoutMs) const {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0)
            return false;
        char buffer[2048];
        return recv(fd, buffer, sizeof buffer, 0) >= 0;
    }
};

int freePort() {
    Receiver r;
    return r.port;
}

// The note writer: one note-on each time `request` is set, stamped with the
// time the process callback wrote it.
struct Writer {
    jack_client_t* client = nullptr;
    jack_port_t* port = nullptr;
    std::atomic<int> request{0};
    std::atomic<std::int64_t> writtenAt{0};
    std::uint8_t velocity = 1;
};

int process(jack_nframes_t frames, void* arg) {
    auto* w = static_cast<Writer*>(arg);
    void* buffer = jack_port_get_buffer(w->port, frames);
    jack_midi_clear_buffer(buffer);
    if (w->request.exchange(0)) {
        w->velocity = static_cast<std::uint8_t>(w->velocity % 126 + 1);
        const jack_midi_data_t note[3] = {0x90, 60, w->velocity};
        jack_midi_event_write(buffer, 0, note, 3);
        w->writtenAt.store(nowNs());
    }
    return 0;
}

struct Summary {
    double p50, p99, max;
    int lost;
};

Summary measure(Writer& writer, const Receiver& in, int samples) {
    std::vector<double> us;
    int lost = 0;
    while (in.receive(50)) {
    }
    for (int i = 0; i < samples; ++i) {
        writer.writtenAt.store(0);
        writer.request.store(1);
        if (in.receive(200)) {
            const std::int64_t arrived = nowNs();
            const std::int64_t written = writer.writtenAt.load();
            if (written > 0)
                us.push_back(static_cast<double>(arrived - written) / 1000.0);
        } else {
            ++lost;
        }
        while (in.receive(0)) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::sort(us.begin(), us.end());
    if (us.empty())
        return {0, 0, 0, lost};
    auto at = [&](double q) { return us[std::min(us.size() - 1, static_cast<size_t>(q * us.size()))]; };
    return {at(0.5), at(0.99), us.back(), lost};
}

QJsonObject plug(const QJsonObject& out) {
    return {{"$class", "TSPlug"},
            {"enabled", true},
            {"signalIn", QJsonObject{{"$class", "TSMidiSignal"}, {"minValue", "0"}, {"maxValue", "127"},
                                     {"midiType", 144}, {"midiChannel", 0}, {"midiNote", 60}}},
            {"signalOut", out}};
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int samples = argc > 1 ? std::max(1, atoi(argv[1])) : 2000;
    const std::string serverName = "tsbench" + std::to_string(getpid());
    setenv("JACK_DEFAULT_SERVER", serverName.c_str(), 1);
    setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);

    QProcess jackd;
    jackd.setProcessChannelMode(QProcess::MergedChannels);
    jackd.setStandardOutputFile(QProcess::nullDevice());
    jackd.start("jackd", {"--no-realtime", "--no-mlock", "-n", QString::fromStdString(serverName),
                          "-d", "dummy", "-r", "48000", "-p", "32"});
    if (!jackd.waitForStarted(5000)) {
        std::fprintf(stderr, "cannot start jackd\n");
        return 1;
    }
    Writer writer;
    for (int i = 0; i < 50 && !writer.client; ++i) {
        jack_status_t status;
        writer.client = jack_client_open("tsbenchnotes", JackNoStartServer, &status);
        if (!writer.client)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (!writer.client) {
        std::fprintf(stderr, "jackd did not answer\n");
        return 1;
    }
    writer.port = jack_port_register(writer.client, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    jack_set_process_callback(writer.client, process, &writer);
    jack_activate(writer.client);

    Receiver korvalis, osc;
    QTemporaryDir home;
    QDir().mkpath(home.path() + "/config/Tessarine");
    const QJsonObject settings{
        {"firstStart", true},
        {"midiBackend", "jack"},
        {"korvalisSendPort", korvalis.port},
        {"korvalisListenPort", freePort()},
        {"oscListenerPort", freePort()},
        {"oscSenderMachine", "127.0.0.1"},
        {"oscSenderPort", osc.port},
        {"commandListenerPort", freePort()},
        {"plugs",
         QJsonObject{{"$archiver", "TessarineKeyedArchive"},
                     {"$version", 1},
                     {"root", QJsonArray{plug({{"$class", "TSKorvalisSignal"}, {"minValue", "0"},
                                               {"maxValue", "100"}, {"addressSuffix", "layer/media/time/1"},
                                               {"paramValue", QJsonValue()}}),
                                         plug({{"$class", "TSOSCSignal"}, {"minValue", "0"},
                                               {"maxValue", "100"}, {"address", "/note"}})}}}}};
    QFile file(home.path() + "/config/Tessarine/Tessarine.json");
    file.open(QIODevice::WriteOnly);
    file.write(QJsonDocument(settings).toJson());
    file.close();

    QProcess program;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", home.path() + "/config");
    env.insert("XDG_STATE_HOME", home.path() + "/state");
    program.setProcessEnvironment(env);
    program.setStandardOutputFile(QProcess::nullDevice());
    program.setStandardErrorFile(QProcess::nullDevice());
    program.start(TESSARINE_BINARY, {"--headless"});
    program.waitForStarted(5000);

    // Ready once a note comes through (the program finds our port by itself).
    bool ready = false;
    for (int i = 0; i < 100 && !ready; ++i) {
        writer.request.store(1);
        ready = korvalis.receive(100);
    }
    if (!ready) {
        std::fprintf(stderr, "the program did not answer\n");
        program.kill();
        jackd.kill();
        return 1;
    }
    std::printf("%d notes per path; jackd dummy driver, 48 kHz, 32-frame periods (0.67 ms)\n", samples);
    // Each note fires both plugs; each path is read from its own socket.
    const Summary toKorvalis = measure(writer, korvalis, samples);
    const Summary toOsc = measure(writer, osc, samples);
    std::printf("%-36s p50 %8.1f us   p99 %8.1f us   max %9.1f us   lost %d\n",
                "MIDI (JACK) -> Korvalis OSC", toKorvalis.p50, toKorvalis.p99, toKorvalis.max, toKorvalis.lost);
    std::printf("%-36s p50 %8.1f us   p99 %8.1f us   max %9.1f us   lost %d\n",
                "MIDI (JACK) -> generic OSC (bundled)", toOsc.p50, toOsc.p99, toOsc.max, toOsc.lost);

    program.terminate();
    program.waitForFinished(5000);
    jack_deactivate(writer.client);
    jack_client_close(writer.client);
    kill(static_cast<pid_t>(jackd.processId()), SIGTERM);
    jackd.waitForFinished(5000);
    return 0;
}
