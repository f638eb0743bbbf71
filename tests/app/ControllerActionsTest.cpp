// User actions, learn modes, settings and the plug list kept across runs.

#include "app/TessarineController.h"
#include "midi/VVMIDIMessage.h"
#include "platform/Defaults.h"
#include "platform/Log.h"
#include "signals/TSKeyboardSignal.h"
#include "signals/TSMidiSignal.h"
#include "signals/TSOSCSignal.h"
#include "support/RecordingPorts.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>
#include <thread>

namespace {

using ts::test::RecordingPorts;

class Actions : public ::testing::Test {
protected:
    void SetUp() override {
        dir = QString::fromStdString(ts::test::makeTempDir("tessarine-actions"));
        ts::Defaults::setStandardPath(dir + "/Tessarine.json");
        controller = std::make_unique<TessarineController>(RecordingPorts::wiringTo(ports));
    }
    void TearDown() override {
        controller.reset();
        ts::Defaults::setStandardPath(QString());
    }
    TSPlugList& plugs() { return controller->plugs(); }

    QString dir;
    std::shared_ptr<RecordingPorts> ports = std::make_shared<RecordingPorts>();
    std::unique_ptr<TessarineController> controller;
};

TEST_F(Actions, AddDuplicateTestAndRemove) {
    controller->addMapping(1);
    controller->addMapping(4);
    ASSERT_EQ(plugs().count(), 2u);
    EXPECT_EQ(plugs().selectedObjects(), std::vector<TSPlugPtr>{plugs().arrangedObjects()[1]});

    // A duplicate is a restored copy: a keyboard toggle starts off, as after a restore.
    plugs().setSelectionIndexes({0});
    auto* key = static_cast<TSKeyboardSignal*>(plugs().arrangedObjects()[0]->signalIn().get());
    key->setToggle(true);
    ASSERT_TRUE(key->toggleStateOn());
    controller->duplicateMapping();
    ASSERT_EQ(plugs().count(), 3u);
    const TSPlugPtr copy = plugs().arrangedObjects()[2];
    EXPECT_NE(copy, plugs().arrangedObjects()[0]);
    EXPECT_EQ(plugs().firstSelectedObject(), copy);
    auto* copiedKey = static_cast<TSKeyboardSignal*>(copy->signalIn().get());
    EXPECT_TRUE(copiedKey->toggle());
    EXPECT_FALSE(copiedKey->toggleStateOn());

    // testMapping sends 0 then 1 to the outgoing signal only.
    copy->setSignalOutType(4);
    ports->clear();
    controller->testMapping();
    const auto sent = ports->sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_FLOAT_EQ(sent[0].value, 0.0f);
    EXPECT_FLOAT_EQ(sent[1].value, 100.0f);

    plugs().setSelectionIndexes({0, 2});
    controller->removeMapping();
    ASSERT_EQ(plugs().count(), 1u);
    EXPECT_TRUE(plugs().selectedObjects().empty());
    ports->clear();
    controller->testMapping();
    controller->duplicateMapping();
    EXPECT_EQ(ports->count(), 0u);
    EXPECT_EQ(plugs().count(), 1u);
}

TEST_F(Actions, MidiLearnTakesTheFirstMessageIntoTheSelectedPlug) {
    controller->addMapping(3);
    const TSPlugPtr plug = plugs().arrangedObjects()[0];
    plug->setSignalOutType(4);
    controller->waitForMidi(plug);
    EXPECT_EQ(controller->waitMode(), 2);

    // Learned on the MIDI input thread; nothing of the list is processed.
    std::thread([&] {
        controller->receivedMIDIFromNode({VVMIDIMessage::createFromVals(144, 4, 62, 90),
                                          VVMIDIMessage::createFromVals(176, 0, 24, 90)},
                                         nullptr);
    }).join();
    ASSERT_TRUE(ts::test::spinUntil([&] {
        return static_cast<TSMidiSignal*>(plug->signalIn().get())->midiType() == 144;
    }));
    auto* midi = static_cast<TSMidiSignal*>(plug->signalIn().get());
    EXPECT_EQ(midi->midiChannel(), 4u);
    EXPECT_EQ(midi->midiNote(), 62u);
    EXPECT_EQ(controller->waitMode(), 0);
    EXPECT_EQ(ports->count(), 0u);

    // Learned settings are matched at once.
    controller->receivedMIDIFromNode({VVMIDIMessage::createFromVals(144, 4, 62, 127)}, nullptr);
    EXPECT_EQ(ports->count(), 2u);
}

TEST_F(Actions, MidiLearnWithoutSelectionProcessesAndKeepsWaiting) {
    controller->addMapping(3);
    const TSPlugPtr plug = plugs().arrangedObjects()[0];
    plug->setSignalOutType(4);
    controller->waitForMidi(plug);
    plugs().setSelectionIndexes({});
    controller->receivedMIDIFromNode({VVMIDIMessage::createFromVals(176, 0, 24, 127)}, nullptr);
    EXPECT_EQ(controller->waitMode(), 2);
    EXPECT_EQ(ports->count(), 1u); // the default input (CC 24, channel 1) fired
    plugs().setSelectionIndexes({0});
    controller->receivedMIDIFromNode({}, nullptr); // an empty list only ends the wait
    EXPECT_EQ(controller->waitMode(), 0);
    EXPECT_EQ(static_cast<TSMidiSignal*>(plug->signalIn().get())->midiType(), 176u);
}

TEST_F(Actions, KeyLearnTakesTheNextKeyDown) {
    controller->addMapping(1);
    const TSPlugPtr plug = plugs().arrangedObjects()[0];
    controller->waitForKeyboard(plug);
    EXPECT_FALSE(controller->keyUp({5, 0, "g"})); // key-up is not learned
    EXPECT_EQ(controller->waitMode(), 1);
    EXPECT_TRUE(controller->keyDown({0x10000 | 126, 0x800000, "x"}));
    EXPECT_EQ(controller->waitMode(), 0);
    EXPECT_EQ(plug->signalIn()->title(), "FN+UP");
    // The learned key now fires the plug and is swallowed; others pass.
    EXPECT_TRUE(controller->keyDown({126, 0x800000, ""}));
    EXPECT_FALSE(controller->keyDown({126, 0, ""}));
}

TEST_F(Actions, KeyLearnWithAnEmptySelectionProcessesTheKey) {
    controller->addMapping(1);
    const TSPlugPtr plug = plugs().arrangedObjects()[0];
    static_cast<TSKeyboardSignal*>(plug->signalIn().get())
        ->changeCharactersAndKeyCodeAndModifierFlags("a", 0, 0);
    controller->waitForKeyboard(plug);
    plugs().setSelectionIndexes({});
    ts::LogCapture log;
    EXPECT_TRUE(controller->keyDown({0, 0, "a"}));
    EXPECT_EQ(controller->waitMode(), 0);
    EXPECT_TRUE(log.contains("key learn"));
}

TEST_F(Actions, ClearedNumericSettingBecomes1111) {
    controller->setNilValueForKey("dmxMode");
    EXPECT_EQ(controller->dmxMode(), 1111);
    EXPECT_EQ(ts::Defaults::standard().integerForKey("dmxMode"), 1111);
    ts::LogCapture log;
    controller->setNilValueForKey("noSuchSetting");
    EXPECT_TRUE(log.contains("Cannot set noSuchSetting"));
    controller->setNilValueForKey("canUseDMX"); // read-only
    EXPECT_TRUE(log.contains("Cannot set canUseDMX"));
}

TEST_F(Actions, PlugsSurviveAQuitAndARestart) {
    controller->showMainApplicationWindow();
    EXPECT_TRUE(ts::Defaults::standard().boolForKey("firstStart"));
    controller->addMapping(4);
    controller->addMapping(3);
    plugs().arrangedObjects()[1]->setEnabled(false);
    static_cast<TSOSCSignal*>(plugs().arrangedObjects()[0]->signalIn().get())->changeAddress("/kept");
    controller->applicationWillTerminate();
    controller.reset();

    // The file itself holds the archive under "plugs".
    QFile file(dir + "/Tessarine.json");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QJsonObject stored = QJsonDocument::fromJson(file.readAll()).object();
    EXPECT_EQ(stored["plugs"].toObject()["root"].toArray().size(), 2);

    ts::Defaults::setStandardPath(dir + "/Tessarine.json");
    controller = std::make_unique<TessarineController>(RecordingPorts::wiringTo(ports));
    int firstStartMessages = 0;
    QObject::connect(controller.get(), &TessarineController::firstStartMessage,
                     [&] { ++firstStartMessages; });
    controller->showMainApplicationWindow();
    EXPECT_EQ(firstStartMessages, 0);
    ASSERT_EQ(plugs().count(), 2u);
    EXPECT_TRUE(plugs().arrangedObjects()[0]->enabled());
    EXPECT_FALSE(plugs().arrangedObjects()[1]->enabled());
    EXPECT_TRUE(controller->processKorvalisOSCMessageWithAddressAndArguments("/kept", {}));
}

TEST_F(Actions, FirstRunShowsTheMessageOnceAndStoresAnEmptyList) {
    controller.reset();
    ts::Defaults::setStandardPath(dir + "/Tessarine.json");
    controller = std::make_unique<TessarineController>(RecordingPorts::wiringTo(ports));
    QString message;
    QObject::connect(controller.get(), &TessarineController::firstStartMessage,
                     [&](const QString& m, const QString&) { message = m; });
    controller->showMainApplicationWindow();
    EXPECT_EQ(message, "This is the first time you start Tessarine");
    controller->applicationWillTerminate();
    const QJsonObject plugsArchive = ts::Defaults::standard().jsonForKey("plugs").toObject();
    EXPECT_EQ(plugsArchive["$archiver"].toString(), "TessarineKeyedArchive");
    EXPECT_TRUE(plugsArchive["root"].toArray().isEmpty());
}

TEST_F(Actions, StoredPortsOfZeroCountAsMissing) {
    controller.reset();
    ts::Defaults::standard().setIntegerForKey(0, "korvalisSendPort");
    ts::Defaults::standard().setIntegerForKey(0, "korvalisListenPort");
    auto wiring = RecordingPorts::wiringTo(ports);
    wiring.korvalisLink = true;
    controller = std::make_unique<TessarineController>(wiring);
    EXPECT_EQ(controller->korvalisSendPort(), 5000);
    EXPECT_EQ(controller->korvalisListenPort(), 5001);
    EXPECT_EQ(ts::Defaults::standard().integerForKey("korvalisSendPort"), 5000);
    EXPECT_EQ(ts::Defaults::standard().integerForKey("korvalisListenPort"), 5001);
    controller->setNilValueForKey("korvalisSendPort");
    EXPECT_EQ(controller->korvalisSendPort(), 1111);
}

TEST_F(Actions, DamagedSettingsFileIsKeptAsideAndDefaultsApply) {
    controller.reset();
    const QString path = dir + "/Tessarine.json";
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("{\"korvalisSendPort\": 6000, \"plugs\": [tru");
    file.close();
    ts::LogCapture log;
    ts::Defaults::setStandardPath(path);
    controller = std::make_unique<TessarineController>(RecordingPorts::wiringTo(ports));
    controller->showMainApplicationWindow();
    EXPECT_EQ(plugs().count(), 0u);
    EXPECT_TRUE(log.contains("cannot be read"));
    QStringList aside = QDir(dir).entryList({"Tessarine.json.bad-*"});
    ASSERT_EQ(aside.size(), 1);
    QFile kept(dir + "/" + aside[0]);
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_TRUE(kept.readAll().startsWith("{\"korvalisSendPort\": 6000"));
}

} // namespace
