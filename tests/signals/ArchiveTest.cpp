// Archiving plugs and restoring them: every class with its keys, restored
// state, and archives that are damaged in every way a file can be.

#include "app/TessarineController.h"
#include "platform/Log.h"
#include "signals/TSCommandSignal.h"
#include "signals/TSDmxSignal.h"
#include "signals/TSGeneratedSignals.h"
#include "signals/TSKeyboardSignal.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSMidiSignal.h"
#include "signals/TSOSCSignal.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <gtest/gtest.h>

namespace {

std::vector<TSPlugPtr> roundTrip(const std::vector<TSPlugPtr>& plugs) {
    const QJsonObject archive = TessarineController::archivePlugs(plugs);
    // Through text, as the settings file stores it.
    const QJsonDocument doc = QJsonDocument::fromJson(QJsonDocument(archive).toJson());
    return TessarineController::unarchivePlugs(doc.object());
}

template <typename T> T* in(const TSPlugPtr& p) { return dynamic_cast<T*>(p->signalIn().get()); }
template <typename T> T* out(const TSPlugPtr& p) { return dynamic_cast<T*>(p->signalOut().get()); }

TEST(Archive, EveryClassKeepsItsSettings) {
    auto korvalis = TSPlug::initWithType(0);
    in<TSKorvalisSignal>(korvalis)->changeAddressSuffix("composition/cue");
    in<TSKorvalisSignal>(korvalis)->setParamValue("Intro");
    in<TSKorvalisSignal>(korvalis)->setMinValue("-5.5");
    out<TSMidiSignal>(korvalis)->changeTypeAndChannelAndNote(144, 9, 61);
    korvalis->setEnabled(false);

    auto key = TSPlug::initWithType(1);
    in<TSKeyboardSignal>(key)->changeCharactersAndKeyCodeAndModifierFlags("a", 0, 0x820000);
    in<TSKeyboardSignal>(key)->setToggle(true);
    out<TSKorvalisSignal>(key)->setAddressSuffix("action/launchColumn/3");

    auto osc = TSPlug::initWithType(4);
    in<TSOSCSignal>(osc)->changeAddress("/fader/1");
    osc->setSignalOutType(10);
    out<TSCommandSignal>(osc)->changeString("next cue");

    auto artnet = TSPlug::initWithType(6);
    in<TSArtnetSignal>(artnet)->changeChannel(512);

    auto animation = TSPlug::initWithType(9);
    in<TSAnimationSignal>(animation)->setKind(2);
    in<TSAnimationSignal>(animation)->setDuration(8'000'000'000LL);
    in<TSAnimationSignal>(animation)->setPhaseShift(0.25f);

    auto audio = TSPlug::initWithType(2);
    audio->signalIn()->setMaxValue("42");
    auto arduino = TSPlug::initWithType(8);
    arduino->signalIn()->setMaxValue("900");
    auto none = TSPlug::initWithType(7);

    const auto restored = roundTrip({korvalis, key, osc, artnet, animation, audio, arduino, none});
    ASSERT_EQ(restored.size(), 8u);

    EXPECT_FALSE(restored[0]->enabled());
    EXPECT_EQ(in<TSKorvalisSignal>(restored[0])->addressSuffix(), "composition/cue");
    EXPECT_EQ(in<TSKorvalisSignal>(restored[0])->paramValue(), "Intro");
    EXPECT_EQ(restored[0]->signalIn()->minValue(), "-5.5");
    EXPECT_EQ(out<TSMidiSignal>(restored[0])->midiType(), 144u);
    EXPECT_EQ(out<TSMidiSignal>(restored[0])->midiChannel(), 9u);
    EXPECT_EQ(out<TSMidiSignal>(restored[0])->midiNote(), 61u);
    EXPECT_EQ(in<TSKorvalisSignal>(restored[0])->previousValue(), 0.0f);

    auto* restoredKey = in<TSKeyboardSignal>(restored[1]);
    ASSERT_NE(restoredKey, nullptr);
    EXPECT_EQ(restoredKey->characters(), "a");
    EXPECT_EQ(restoredKey->modifierFlags(), 0x820000u);
    EXPECT_TRUE(restoredKey->toggle());
    EXPECT_FALSE(restoredKey->toggleStateOn()); // not stored: a restored toggle starts off
    EXPECT_EQ(out<TSKorvalisSignal>(restored[1])->addressSuffix(), "action/launchColumn/3");

    EXPECT_EQ(in<TSOSCSignal>(restored[2])->address(), "/fader/1");
    EXPECT_EQ(out<TSCommandSignal>(restored[2])->string(), "next cue");
    EXPECT_EQ(in<TSArtnetSignal>(restored[3])->dmxChannel(), 512u);
    EXPECT_EQ(restored[3]->signalIn()->type(), 6);

    auto* anim = in<TSAnimationSignal>(restored[4]);
    EXPECT_EQ(anim->kind(), 2);
    EXPECT_EQ(anim->duration(), 8'000'000'000LL);
    EXPECT_FLOAT_EQ(anim->phaseShift(), 0.25f);

    EXPECT_EQ(restored[5]->signalIn()->maxValue(), "100"); // audio runs its initialisation again
    EXPECT_EQ(restored[6]->signalIn()->maxValue(), "900");
    EXPECT_EQ(restored[7]->signalIn(), nullptr);
}

TEST(Archive, StoredFormatNamesClassesAndKeys) {
    auto plug = TSPlug::initWithType(3);
    const QJsonObject archive = TessarineController::archivePlugs({plug});
    EXPECT_EQ(archive["$archiver"].toString(), "TessarineKeyedArchive");
    EXPECT_EQ(archive["$version"].toInt(), 1);
    const QJsonObject stored = archive["root"].toArray()[0].toObject();
    EXPECT_EQ(stored["$class"].toString(), "TSPlug");
    EXPECT_TRUE(stored["enabled"].isBool());
    const QJsonObject signalIn = stored["signalIn"].toObject();
    EXPECT_EQ(signalIn["$class"].toString(), "TSMidiSignal");
    EXPECT_EQ(signalIn["minValue"].toString(), "0");
    EXPECT_EQ(signalIn["maxValue"].toString(), "127");
    EXPECT_EQ(signalIn["midiType"].toInt(), 176);
    EXPECT_EQ(signalIn["midiNote"].toInt(), 24);
    const QJsonObject signalOut = stored["signalOut"].toObject();
    EXPECT_EQ(signalOut["$class"].toString(), "TSKorvalisSignal");
    EXPECT_TRUE(signalOut["paramValue"].isNull());
}

struct DamagedRow {
    const char* name;
    const char* json;         // the archive value
    size_t plugs;             // how many plugs come back
    const char* logFragment;  // what the log names (nullptr: nothing)
};

TEST(Archive, DamagedArchivesRestoreWhatTheyCan) {
    const DamagedRow rows[] = {
        {"not an archive", R"("hello")", 0, "not an archive"},
        {"foreign object", R"({"root": []})", 0, "not a Tessarine archive"},
        {"unknown root class",
         R"({"$archiver":"TessarineKeyedArchive","$version":1,"root":[{"$class":"TSGhost"},{"$class":"TSPlug","enabled":true}]})",
         1, "unknown class \"TSGhost\""},
        {"root element not an object",
         R"({"$archiver":"TessarineKeyedArchive","$version":1,"root":[3,{"$class":"TSPlug","enabled":true}]})",
         1, "root element 0"},
        {"signal of unknown class",
         R"({"$archiver":"TessarineKeyedArchive","$version":1,"root":[{"$class":"TSPlug","enabled":true,"signalIn":{"$class":"TSLaser"}}]})",
         1, "unknown class \"TSLaser\""},
        {"wrong entry kinds",
         R"({"$archiver":"TessarineKeyedArchive","$version":1,"root":[{"$class":"TSPlug","enabled":"yes","signalIn":{"$class":"TSMidiSignal","midiType":"note","midiChannel":2.5,"midiNote":60,"minValue":7}}]})",
         1, "\"midiType\" holds a text"},
        {"a plug where a signal belongs",
         R"({"$archiver":"TessarineKeyedArchive","$version":1,"root":[{"$class":"TSPlug","enabled":true,"signalIn":{"$class":"TSPlug"}}]})",
         1, "does not belong there"},
        {"a signal where a plug belongs",
         R"({"$archiver":"TessarineKeyedArchive","$version":1,"root":[{"$class":"TSOSCSignal"}]})",
         0, "in the plug list was skipped"},
        {"missing keys",
         R"({"$archiver":"TessarineKeyedArchive","$version":1,"root":[{"$class":"TSPlug","signalIn":{"$class":"TSDmxSignal"}}]})",
         1, nullptr},
    };
    for (const DamagedRow& row : rows) {
        SCOPED_TRACE(row.name);
        ts::LogCapture log;
        const QJsonDocument doc = QJsonDocument::fromJson(QByteArray("[") + row.json + "]");
        const auto plugs = TessarineController::unarchivePlugs(doc.array()[0]);
        EXPECT_EQ(plugs.size(), row.plugs);
        if (row.logFragment)
            EXPECT_TRUE(log.contains(row.logFragment)) << (log.lines().empty() ? "" : log.lines()[0]);
        else
            EXPECT_TRUE(log.lines().empty());
    }
}

TEST(Archive, FieldsWithoutUsableEntriesStartAtZeroFalseOrNone) {
    const char* json =
        R"({"$archiver":"TessarineKeyedArchive","$version":1,"root":[{"$class":"TSPlug","enabled":"yes","signalIn":{"$class":"TSMidiSignal","midiType":"note","midiChannel":2.5,"midiNote":60,"minValue":7}}]})";
    ts::LogCapture log;
    const auto plugs = TessarineController::unarchivePlugs(QJsonDocument::fromJson(json).object());
    ASSERT_EQ(plugs.size(), 1u);
    EXPECT_FALSE(plugs[0]->enabled());
    auto* midi = in<TSMidiSignal>(plugs[0]);
    ASSERT_NE(midi, nullptr);
    EXPECT_EQ(midi->midiType(), 0u);
    EXPECT_EQ(midi->midiChannel(), 0u);
    EXPECT_EQ(midi->midiNote(), 60u);
    EXPECT_TRUE(midi->minValue().isNull());
    EXPECT_TRUE(midi->maxValue().isNull());
    EXPECT_FLOAT_EQ(midi->minFloat(), 0.0f);
    EXPECT_EQ(plugs[0]->signalOut(), nullptr);
    EXPECT_EQ(log.count("archive:"), 4);
}

} // namespace
