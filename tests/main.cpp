// Test entry: a QGuiApplication on the main thread, as the engine's hosts have,
// so that offscreen surfaces can be made from the test's thread.
#include <cstdio>
#include <cstdlib>

#include <QGuiApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    ::testing::InitGoogleTest(&argc, argv);
    QGuiApplication app(argc, argv);
    const int rc = RUN_ALL_TESTS();
    // Channels and scenes have no stop in the public interface and run until
    // the process ends; leave without tearing the application down under them.
    std::fflush(nullptr);
    std::_Exit(rc);
}
