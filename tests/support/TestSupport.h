#pragma once
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QSettings>
#include <QString>
#include <QVariant>
#include <functional>
#include <map>

namespace ostv::test {

// Call first in main(), before the application object: a headless display, the web engine's flags for
// root, private XDG folders, and where the server binary and the sources are (kept when already set).
void prepareEnvironment();

// In a build with LeakSanitizer: checks for leaks now, while every library is still loaded (at exit,
// plug-ins the toolkit has unloaded would leave their frames unnamed and beyond suppression). Ends the
// process when it finds one. Does nothing in other builds.
void checkLeaksNow();

// Spins the event loop until pred() is true or the time is up; answers pred() at the end.
bool waitUntil(const std::function<bool()>& pred, int timeoutMs = 5000);

// Spins the event loop for the given time.
void spin(int ms);

// Whether a process still runs (a zombie waiting for a parent that will not reap it counts as ended).
bool processRunning(long pid);

// A fresh, empty folder under the test home, removed again when the test binary exits.
QString makeTempDir(const QString& prefix = QStringLiteral("t"));

// Points the application's settings store at a fresh private folder and empties it.
void isolateSettings();

// Everything in a settings store, written through first: to compare before and after a fault.
std::map<QString, QVariant> snapshot(QSettings& settings);

// Captures everything written to standard output (the log) while alive.
class StdoutCapture {
public:
    StdoutCapture();
    ~StdoutCapture();
    std::string text();  // what was written so far (also flushes it through to the real stdout)
private:
    int savedFd_ = -1;
    int pipeRead_ = -1;
    std::string captured_;
    void drain();
};

}  // namespace ostv::test
