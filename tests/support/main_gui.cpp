#include <QApplication>
#include <gtest/gtest.h>

#include "TestSupport.h"

int main(int argc, char** argv) {
    ostv::test::prepareEnvironment();
    QCoreApplication::setOrganizationName("Ostvarren");
    QCoreApplication::setApplicationName("Ostvarren");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    ostv::test::isolateSettings();
    const int rc = RUN_ALL_TESTS();
    ostv::test::checkLeaksNow();
    return rc;
}
