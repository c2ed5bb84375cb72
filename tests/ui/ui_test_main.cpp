#include <QApplication>
#include <cstdlib>

#include <gtest/gtest.h>

// The window tests drive real widgets on Qt's offscreen platform, never a desktop.
int main(int argc, char** argv)
{
    ::setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
