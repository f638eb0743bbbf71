// The tessarine program. With --headless, or when there is no display (or no
// window in this build), it runs the controller with the saved configuration
// and prints the console lines on standard output. SIGINT and SIGTERM are a
// normal quit: the plug list is saved.

#include "app/StandardWiring.h"
#include "app/TessarineController.h"
#include "platform/Defaults.h"
#include "platform/Log.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onQuitSignal(int signal) {
    const char byte = static_cast<char>(signal);
    [[maybe_unused]] ssize_t n = write(signalPipe[1], &byte, 1);
}

// Turns SIGINT and SIGTERM into a normal end of the event loop.
void installQuitSignals(QCoreApplication& app) {
    if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        ts::logLine("cannot watch for quit signals; SIGINT and SIGTERM will end the program at once");
        return;
    }
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [&app] {
        char byte = 0;
        while (read(signalPipe[0], &byte, 1) == 1) {
        }
        app.quit();
    });
    struct sigaction action {};
    action.sa_handler = onQuitSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

void printLine(const QString& line) {
    const QByteArray bytes = line.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("Tessarine");
    QCoreApplication::setApplicationVersion(TESSARINE_VERSION);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Tessarine: a show-control companion that translates between Korvalis, MIDI, OSC,\n"
        "UDP commands, DMX, Art-Net, Arduino, keys, audio level and generated waveforms.\n"
        "Settings and plugs live in $XDG_CONFIG_HOME/Tessarine/Tessarine.json.");
    parser.addHelpOption();
    parser.addVersionOption();
    QCommandLineOption headless("headless",
                                "Run without a window; print the console lines on standard output.");
    QCommandLineOption config("config", "Use this settings file instead of the usual one.", "file");
    parser.addOption(headless);
    parser.addOption(config);
    parser.process(app);

    if (parser.isSet(config))
        ts::Defaults::setStandardPath(parser.value(config));
    if (!parser.isSet(headless))
        ts::logLine(qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
                        ? "no display: running headless"
                        : "this build has no window: running headless");

    installQuitSignals(app);

    TessarineController controller(standardWiring());
    QObject::connect(&controller, &TessarineController::consoleLineAppended, &printLine);
    QObject::connect(&controller, &TessarineController::firstStartMessage,
                     [](const QString& message, const QString& informative) {
                         printLine(message);
                         printLine(informative.trimmed());
                     });
    controller.setConsoleRetainsText(false);
    controller.setConsoleVisible(true);
    controller.showMainApplicationWindow();
    ts::logf("Tessarine %s running headless with %zu plug(s); settings in %s", TESSARINE_VERSION,
             controller.plugs().count(), qPrintable(ts::Defaults::standard().filePath()));

    const int status = app.exec();
    controller.applicationWillTerminate();
    ts::logLine("quit: the plug list was saved");
    return status;
}
