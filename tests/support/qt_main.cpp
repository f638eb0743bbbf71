// Runs GoogleTest inside a QCoreApplication, so that the main-thread queue,
// timers and sockets of the engine work as they do in the program.
#include <QCoreApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
