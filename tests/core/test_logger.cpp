#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

#include "Logger.h"
#include "TestSupport.h"

using namespace ostv;

// Tags carry exactly one space; what a peer sends ends up in log lines (a nickname, a pairing code), so
// line breaks in the text are written as escapes: it cannot start lines of its own.
TEST(Logger, TagsCarryOneSpaceAndLineBreaksInTheTextAreEscaped) {
    test::StdoutCapture cap;
    Logger::info("a");
    Logger::error("b");
    Logger::connection("c");
    Logger::tls("d");
    Logger::session("e");
    Logger::env("f");
    Logger::login("g");
    Logger::ptySetup("h");
    Logger::connection("relay: tried unknown code \"1\n[Info] admin login for user admin\r\"");
    EXPECT_EQ(cap.text(), "[Info] a\n[Error] b\n[Connection] c\n[TLS] d\n[SESSION] e\n[ENV] f\n[LOGIN] g\n[PTY_SETUP] h\n"
                          "[Connection] relay: tried unknown code \"1\\n[Info] admin login for user admin\\r\"\n");
}

TEST(Logger, TwoThreadsLoggingAtOnceNeverSplitALine) {
    test::StdoutCapture cap;
    const std::string a(300, 'a'), b(300, 'b');
    std::thread t1([&] { for (int i = 0; i < 500; ++i) Logger::info(a); });
    std::thread t2([&] { for (int i = 0; i < 500; ++i) Logger::error(b); });
    t1.join();
    t2.join();
    std::istringstream lines(cap.text());
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_TRUE(line == "[Info] " + a || line == "[Error] " + b) << line.substr(0, 40);
    }
    EXPECT_EQ(count, 1000);
}
