// Inputs dispatched on several threads while the main thread edits the plug
// list. Runs under ThreadSanitizer and AddressSanitizer too. The plugs that
// are never edited must fire exactly once per input, whatever happens around
// them; the edited ones may or may not fire, but nothing may crash, leak or
// race.

#include "app/TessarineController.h"
#include "midi/VVMIDIMessage.h"
#include "osc/BBOSCMessage.h"
#include "signals/TSCommandSignal.h"
#include "signals/TSDmxSignal.h"
#include "signals/TSKeyboardSignal.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSMidiSignal.h"
#include "signals/TSOSCSignal.h"
#include "support/TestSupport.h"

#include <QCoreApplication>
#include <atomic>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <random>
#include <thread>

namespace {

class CountingOSC : public OSCOutputPort {
public:
    void sendOSCMessageAtAddressWithValue(const QString& address, float) override {
        std::lock_guard lock(mutex_);
        ++counts_[address.toStdString()];
    }
    long count(const std::string& address) {
        std::lock_guard lock(mutex_);
        return counts_[address];
    }

private:
    std::mutex mutex_;
    std::map<std::string, long> counts_;
};

TSPlugPtr oscOutPlug(int inType, const QString& outAddress) {
    auto plug = TSPlug::initWithType(inType);
    plug->setSignalOutType(4);
    static_cast<TSOSCSignal*>(plug->signalOut().get())->changeAddress(outAddress);
    return plug;
}

TEST(DispatchStress, InputsOnManyThreadsWhileTheMainThreadEdits) {
    auto osc = std::make_shared<CountingOSC>();
    TessarineController::Wiring wiring;
    wiring.osc = osc;
    wiring.korvalisLink = false;
    TessarineController controller(wiring);

    // Plugs nobody edits: one per input kind the threads use.
    auto stableCommand = oscOutPlug(10, "/stable-command");
    static_cast<TSCommandSignal*>(stableCommand->signalIn().get())->changeString("stable");
    auto stableDmx = oscOutPlug(5, "/stable-dmx");
    static_cast<TSDmxSignal*>(stableDmx->signalIn().get())->changeChannel(77);
    auto stableOsc = oscOutPlug(4, "/stable-osc");
    static_cast<TSOSCSignal*>(stableOsc->signalIn().get())->changeAddress("/in/stable");
    auto stableMidi = oscOutPlug(3, "/stable-midi");
    static_cast<TSMidiSignal*>(stableMidi->signalIn().get())->changeTypeAndChannelAndNote(144, 1, 60);
    controller.plugs().addObjects({stableCommand, stableDmx, stableOsc, stableMidi});

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr int kPerThread = 5000; // the sanitizers slow every access many times over
#else
    constexpr int kPerThread = 50000;
#endif
    std::atomic<bool> go{false};
    std::atomic<int> running{0};
    std::vector<std::thread> threads;
    const auto spawn = [&](auto body) {
        ++running;
        threads.emplace_back([&, body] {
            while (!go.load())
                std::this_thread::yield();
            for (int i = 0; i < kPerThread; ++i)
                body(i);
            --running;
        });
    };
    spawn([&](int i) {
        controller.processCommandWithString("stable");
        controller.processCommandWithString(i % 2 ? "churn" : "other");
    });
    spawn([&](int i) {
        controller.processDMXChannelAndValue(77, static_cast<unsigned>(i % 256));
        controller.processDMXChannelAndValue(5, 200);
    });
    spawn([&](int) {
        const BBOSCArgument value[] = {BBOSCArgument::argumentWithFloat(0.5f)};
        controller.processKorvalisOSCMessageWithAddressAndArguments("/in/stable", value);
        controller.processKorvalisOSCMessageWithAddressAndArguments("/in/churn", value);
    });
    spawn([&](int i) {
        const auto note = VVMIDIMessage::createFromVals(144, 1, 60, static_cast<uint8_t>(i % 128));
        controller.receivedMIDIFromNode({note, VVMIDIMessage::createFromVals(176, 0, 24, 5)}, nullptr);
    });
    spawn([&](int i) {
        controller.processKeyCodeAndModifierFlagsAndPressed(3, 0, i % 2 == 0);
        (void)controller.getPlugWithSignalInClass(TSSignal::staticClass());
    });

    std::mt19937 random(7);
    go.store(true);
    std::vector<TSPlugPtr> churn;
    int edits = 0;
    while (running.load() > 0) {
        switch (random() % 6) {
        case 0: { // add a plug matching what the threads send
            const int kinds[] = {10, 5, 6, 4, 1, 0, 3};
            auto plug = oscOutPlug(kinds[random() % 7], "/churn");
            TSSignal* in = plug->signalIn().get();
            if (auto* c = dynamic_cast<TSCommandSignal*>(in))
                c->changeString("churn");
            else if (auto* d = dynamic_cast<TSDmxSignal*>(in))
                d->changeChannel(5);
            else if (auto* o = dynamic_cast<TSOSCSignal*>(in))
                o->changeAddress("/in/churn");
            else if (auto* k = dynamic_cast<TSKeyboardSignal*>(in)) {
                k->changeCharactersAndKeyCodeAndModifierFlags("x", 3, 0);
                k->setToggle(random() % 2);
            }
            controller.plugs().addObject(plug);
            churn.push_back(plug);
            break;
        }
        case 1: // remove one
            if (!churn.empty()) {
                const size_t i = random() % churn.size();
                controller.plugs().removeObjects({churn[i]});
                churn.erase(churn.begin() + static_cast<long>(i));
            }
            break;
        case 2: // enable or disable one
            if (!churn.empty())
                churn[random() % churn.size()]->setEnabled(random() % 2);
            break;
        case 3: // replace an output while it may be sending
            if (!churn.empty()) {
                auto& plug = churn[random() % churn.size()];
                plug->setSignalOutType(random() % 2 ? 4 : 0);
            }
            break;
        case 4: // edit an identifying setting and a range
            if (!churn.empty()) {
                auto& plug = churn[random() % churn.size()];
                if (auto* c = dynamic_cast<TSCommandSignal*>(plug->signalIn().get()))
                    c->changeString(random() % 2 ? "churn" : "other");
                plug->signalIn()->setMaxValue(random() % 2 ? "1" : "200");
                if (auto out = plug->signalOut())
                    out->setMinValue("5");
            }
            break;
        default: // let queued deletes and console lines run
            QCoreApplication::processEvents();
            break;
        }
        ++edits;
    }
    for (auto& t : threads)
        t.join();
    QCoreApplication::processEvents();

    EXPECT_EQ(osc->count("/stable-command"), kPerThread);
    EXPECT_EQ(osc->count("/stable-dmx"), kPerThread);
    EXPECT_EQ(osc->count("/stable-osc"), kPerThread);
    EXPECT_EQ(osc->count("/stable-midi"), 2 * kPerThread); // a note-on, then its end
    EXPECT_GT(edits, 100);
    controller.plugs().removeAllObjects();
    ts::test::spinFor(std::chrono::milliseconds(20));
}

} // namespace
