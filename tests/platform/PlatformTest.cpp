// The settings store, the notification centre and the main-thread queue.

#include "platform/Defaults.h"
#include "platform/Log.h"
#include "platform/MainThread.h"
#include "platform/NotificationCenter.h"
#include "platform/ThreadName.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <atomic>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

namespace {

using namespace std::chrono_literals;

QString tempFile() {
    return QString::fromStdString(ts::test::makeTempDir("tessarine-platform")) + "/Tessarine.json";
}

QJsonObject readJson(const QString& path) {
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    return QJsonDocument::fromJson(file.readAll()).object();
}

TEST(Defaults, EachKindIsStoredAsItsJsonKindAndWrittenAtOnce) {
    const QString path = tempFile();
    {
        ts::Defaults defaults(path);
        defaults.setIntegerForKey(5000, "korvalisSendPort");
        defaults.setBoolForKey(true, "firstStart");
        defaults.setStringForKey("localhost", "oscSenderMachine");
        defaults.setDoubleForKey(0.25, "someFloat");
        defaults.setJsonForKey(QJsonObject{{"root", QJsonArray{1, 2}}}, "plugs");
        defaults.setStringForKey("2026-11-23T10:00:00Z", "CrashReportSender.lastCrashDate");
        // Written already, before the store goes away.
        const QJsonObject file = readJson(path);
        EXPECT_TRUE(file["korvalisSendPort"].isDouble());
        EXPECT_EQ(file["korvalisSendPort"].toInt(), 5000);
        EXPECT_TRUE(file["firstStart"].isBool());
        EXPECT_EQ(file["oscSenderMachine"].toString(), "localhost");
        EXPECT_TRUE(file["plugs"].isObject());
        EXPECT_EQ(file["CrashReportSender.lastCrashDate"].toString(), "2026-11-23T10:00:00Z");
    }
    ts::Defaults again(path);
    EXPECT_EQ(again.integerForKey("korvalisSendPort"), 5000);
    EXPECT_TRUE(again.boolForKey("firstStart"));
    EXPECT_EQ(again.stringForKey("oscSenderMachine"), "localhost");
    EXPECT_DOUBLE_EQ(again.doubleForKey("someFloat"), 0.25);
    EXPECT_EQ(again.jsonForKey("plugs").toObject()["root"].toArray().size(), 2);
    again.removeObjectForKey("firstStart");
    EXPECT_FALSE(again.hasKey("firstStart"));
}

TEST(Defaults, MissingKeysAndOtherKindsReadAsZero) {
    const QString path = tempFile();
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(R"({"port": "seven", "flag": 1, "text": 12, "big": 8000000000})");
    file.close();
    ts::Defaults defaults(path);
    EXPECT_EQ(defaults.integerForKey("absent"), 0);
    EXPECT_FALSE(defaults.boolForKey("absent"));
    EXPECT_TRUE(defaults.stringForKey("absent").isEmpty());
    EXPECT_TRUE(defaults.jsonForKey("absent").isUndefined() || defaults.jsonForKey("absent").isNull());
    EXPECT_EQ(defaults.integerForKey("port"), 0);
    EXPECT_TRUE(defaults.boolForKey("flag"));
    EXPECT_TRUE(defaults.stringForKey("text").isEmpty());
    EXPECT_EQ(defaults.integerForKey("big"), 8000000000LL);
}

TEST(Defaults, DamagedFilesAreKeptAsideAndTheStoreStartsEmpty) {
    const char* damaged[] = {"{\"a\": ", "[1, 2, 3]", "\x01\x02garbage", "null"};
    for (const char* content : damaged) {
        SCOPED_TRACE(content);
        const QString path = tempFile();
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
        ts::LogCapture log;
        ts::Defaults defaults(path);
        EXPECT_FALSE(defaults.hasKey("a"));
        EXPECT_TRUE(log.contains("starting with default settings"));
        const QStringList aside = QFileInfo(path).dir().entryList({"Tessarine.json.bad-*"});
        ASSERT_EQ(aside.size(), 1);
        defaults.setIntegerForKey(1, "a");
        EXPECT_EQ(readJson(path)["a"].toInt(), 1);
    }
}

TEST(NotificationCenter, DeliversByNameAndSenderUntilRemoved) {
    ts::NotificationCenter center;
    int anySender = 0, fromMine = 0;
    int mine = 0, other = 0;
    const auto a = center.addObserver("Ping", nullptr, [&](const ts::Notification& n) {
        ++anySender;
        EXPECT_EQ(*n.info<int>("count"), 3);
        EXPECT_EQ(n.info<QString>("count"), nullptr);
    });
    center.addObserver("Ping", &mine, [&](const ts::Notification&) { ++fromMine; });
    ts::Notification n{"Ping", &mine, {{"count", 3}}};
    center.postNotification(n);
    n.object = &other;
    center.postNotification(n);
    center.postNotification({"Pong", &mine, {{"count", 3}}});
    EXPECT_EQ(anySender, 2);
    EXPECT_EQ(fromMine, 1);
    center.removeObserver(a);
    center.postNotification({"Ping", &other, {}});
    EXPECT_EQ(anySender, 2);
}

TEST(NotificationCenter, PostingOnTheMainThreadFromAnotherThread) {
    ts::NotificationCenter center;
    std::atomic<int> onMain{0}, elsewhere{0};
    center.addObserver("Tick", nullptr, [&](const ts::Notification&) {
        (ts::isMainThread() ? onMain : elsewhere)++;
    });
    center.postNotificationOnMainThread({"Tick", nullptr, {}}); // on the main thread: at once
    EXPECT_EQ(onMain.load(), 1);
    std::thread([&] { center.postNotificationOnMainThread({"Tick", nullptr, {}}); }).join();
    EXPECT_EQ(onMain.load(), 1); // queued, not yet run
    EXPECT_TRUE(ts::test::spinUntil([&] { return onMain.load() == 2; }));
    EXPECT_EQ(elsewhere.load(), 0);
}

TEST(MainThread, QueuedCallsRunInOrderAndBlockingCallsWait) {
    std::vector<int> order;
    std::thread producer([&] {
        for (int i = 0; i < 1000; ++i)
            ts::performOnMainThread([&order, i] { order.push_back(i); });
        int seen = -1;
        ts::performOnMainThreadAndWait([&] { seen = static_cast<int>(order.size()); });
        EXPECT_EQ(seen, 1000); // everything queued before it ran first
    });
    ASSERT_TRUE(ts::test::spinUntil([&] { return order.size() == 1000; }));
    producer.join();
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(order[static_cast<size_t>(i)], i);
    bool direct = false;
    ts::performOnMainThread([&] { direct = true; });
    EXPECT_TRUE(direct);
    bool queued = false;
    ts::enqueueOnMainThread([&] { queued = true; });
    EXPECT_FALSE(queued);
    EXPECT_TRUE(ts::test::spinUntil([&] { return queued; }));
}

TEST(ThreadName, LongNamesAreCutToTheKernelLimit) {
    std::string seen;
    std::thread([&] {
        ts::setCurrentThreadName("CommandListenerWithALongName");
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        seen = name;
    }).join();
    EXPECT_EQ(seen, "CommandListener");
}

} // namespace
