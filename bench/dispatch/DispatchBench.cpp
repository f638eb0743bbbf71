// Inputs dispatched per second with lists of 10, 1,000 and 10,000 enabled
// plugs of mixed kinds, of which one (or 100) match the input. The matching
// plugs send to an OSC output that only counts.

#include "app/TessarineController.h"
#include "osc/BBOSCMessage.h"
#include "signals/TSCommandSignal.h"
#include "signals/TSDmxSignal.h"
#include "signals/TSKeyboardSignal.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSMidiSignal.h"
#include "signals/TSOSCSignal.h"

#include <QCoreApplication>
#include <benchmark/benchmark.h>

namespace {

class NullOSC : public OSCOutputPort {
public:
    void sendOSCMessageAtAddressWithValue(const QString&, float) override { ++count; }
    long count = 0;
};

struct Setup {
    std::shared_ptr<NullOSC> osc = std::make_shared<NullOSC>();
    std::unique_ptr<TessarineController> controller;

    // total plugs, of which `matching` answer the OSC address "/match" and
    // the DMX channel 300; the others are spread over five kinds with
    // distinct settings.
    Setup(int total, int matching) {
        TessarineController::Wiring wiring;
        wiring.osc = osc;
        wiring.korvalisLink = false;
        controller = std::make_unique<TessarineController>(wiring);
        std::vector<TSPlugPtr> plugs;
        for (int i = 0; i < total; ++i) {
            const bool match = i % (total / matching) == 0;
            const int kind = match ? 4 : (i % 5);
            const int types[] = {4, 10, 5, 3, 0};
            auto plug = TSPlug::initWithType(match ? 4 : types[kind]);
            plug->setSignalOutType(4);
            TSSignal* in = plug->signalIn().get();
            const QString n = QString::number(i);
            if (auto* o = dynamic_cast<TSOSCSignal*>(in))
                o->changeAddress(match ? "/match" : "/fader/" + n);
            else if (auto* c = dynamic_cast<TSCommandSignal*>(in))
                c->changeString("cue " + n);
            else if (auto* d = dynamic_cast<TSDmxSignal*>(in))
                d->changeChannel(1 + unsigned(i % 512) == 300 ? 301 : 1 + unsigned(i % 512));
            else if (auto* m = dynamic_cast<TSMidiSignal*>(in))
                m->changeTypeAndChannelAndNote(176, unsigned(i % 16), unsigned(i % 128));
            else if (auto* k = dynamic_cast<TSKorvalisSignal*>(in))
                k->changeAddressSuffix("layer/opacity/" + n);
            plugs.push_back(plug);
        }
        controller->plugs().addObjects(plugs);
    }
};

void OscInput(benchmark::State& state) {
    Setup setup(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const BBOSCArgument value[] = {BBOSCArgument::argumentWithFloat(0.5f)};
    for (auto _ : state)
        benchmark::DoNotOptimize(
            setup.controller->processKorvalisOSCMessageWithAddressAndArguments("/match", value));
    state.SetItemsProcessed(state.iterations());
    state.counters["sends_per_input"] =
        static_cast<double>(setup.osc->count) / static_cast<double>(state.iterations());
}
BENCHMARK(OscInput)->Args({10, 1})->Args({1000, 1})->Args({10000, 1})->Args({10000, 100});

void UnmatchedCommand(benchmark::State& state) {
    Setup setup(static_cast<int>(state.range(0)), 1);
    for (auto _ : state)
        benchmark::DoNotOptimize(setup.controller->processCommandWithString("nothing"));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(UnmatchedCommand)->Arg(10000);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
