// Login round trip on loopback, with the warm-up request made first and without it.
//
// Each login uses a fresh client (so a fresh network manager and no open connection). "warm" lets
// the client's warm-up finish before the login is timed, "cold" times the login straight away, as
// a login screen would without the warm-up. The two kinds alternate so that drift of the machine
// affects both alike. The server runs on its own thread.
//
// Usage: ostv_bench_admin_login [logins per kind, default 200]
#include "AdminAPIClient.h"
#include "AdminHttpApi.h"
#include "ServerConfig.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    const size_t rank = static_cast<size_t>(std::max(1.0, std::ceil(p / 100.0 * static_cast<double>(v.size()))));
    return v[std::min(rank, v.size()) - 1];
}

// Runs the event loop until done() or 15 s; answers done().
template <class F>
bool runUntil(F done) {
    QElapsedTimer t;
    t.start();
    while (!done() && t.elapsed() < 15000) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    return done();
}

// One timed login with a fresh client, in milliseconds; negative on failure.
double timedLogin(bool warmFirst) {
    ostv::AdminAPIClient client;
    if (warmFirst) {
        bool warmed = false;
        QObject::connect(&client, &ostv::AdminAPIClient::warmUpFinished, [&] { warmed = true; });
        client.warmUp();
        if (!runUntil([&] { return warmed; })) return -1;
    }
    bool finished = false, ok = false;
    QElapsedTimer t;
    t.start();
    client.login("admin", "quill_tarn", [&](bool success, std::optional<QString>) {
        finished = true;
        ok = success;
    });
    if (!runUntil([&] { return finished; }) || !ok) return -1;
    return static_cast<double>(t.nsecsElapsed()) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int count = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;

    // A private settings store, so the user's own server address is neither used nor changed.
    QTemporaryDir settingsDir;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settingsDir.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settingsDir.path());

    QThread serverThread;
    serverThread.start();
    QObject serverContext;
    serverContext.moveToThread(&serverThread);
    ostv::server::AdminHttpApi* api = nullptr;
    bool listening = false;
    QMetaObject::invokeMethod(
        &serverContext,
        [&] {
            api = new ostv::server::AdminHttpApi;
            api->setCredentials("admin", "quill_tarn");
            listening = api->listen(QHostAddress::LocalHost, 0);
        },
        Qt::BlockingQueuedConnection);
    if (!listening) {
        std::fprintf(stderr, "the admin interface could not listen\n");
        return 1;
    }
    ostv::ServerConfig::setString(ostv::SettingsKey::serverHost, "127.0.0.1");
    ostv::ServerConfig::setInteger(ostv::SettingsKey::adminServerPort, api->port());

    // The client logs every request; keep the figures readable by sending the log to /dev/null.
    std::fflush(stdout);
    const int realStdout = dup(STDOUT_FILENO);
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, STDOUT_FILENO);
    FILE* out = fdopen(realStdout, "w");

    timedLogin(true);  // first use of the network stack, not measured
    timedLogin(false);
    std::vector<double> warm, cold;
    int failures = 0;
    for (int i = 0; i < count; ++i) {
        const double w = timedLogin(true);
        const double c = timedLogin(false);
        if (w < 0 || c < 0) {
            ++failures;
            continue;
        }
        warm.push_back(w);
        cold.push_back(c);
    }

    QMetaObject::invokeMethod(&serverContext, [&] { delete api; }, Qt::BlockingQueuedConnection);
    serverThread.quit();
    serverThread.wait();

    if (warm.empty()) {
        std::fprintf(out, "admin login: every login failed\n");
        return 1;
    }
    const double wp50 = percentile(warm, 50), wp99 = percentile(warm, 99);
    const double cp50 = percentile(cold, 50), cp99 = percentile(cold, 99);
    std::fprintf(out, "admin login round trip on loopback, %zu logins each%s\n", warm.size(),
                 failures ? " (some failed and were left out)" : "");
    std::fprintf(out, "  after warm-up:   p50 %8.3f ms   p99 %8.3f ms\n", wp50, wp99);
    std::fprintf(out, "  without warm-up: p50 %8.3f ms   p99 %8.3f ms\n", cp50, cp99);
    std::fprintf(out, "  warm-up gain (without / with): p50 x%.2f   p99 x%.2f\n", cp50 / wp50, cp99 / wp99);
    std::fclose(out);
    return failures ? 1 : 0;
}
