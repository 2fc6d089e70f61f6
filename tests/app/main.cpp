// The application's tests run with a QApplication on Qt's offscreen platform, so that the model's
// coroutines, the worker's results and the windows all meet a real event loop and no screen.
#include <gtest/gtest.h>

#include <QApplication>
#include <cstdlib>

int main(int argc, char** argv) {
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
