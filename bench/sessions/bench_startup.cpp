// Start-up time as a user meets it: from starting the program to the login screen painted, and from
// there (signing in at once) to a ready terminal page in the workspace. The application window runs
// against the real local server.
//
// Each run is a fresh process (libraries loaded, a new web engine), so the parent starts the server once
// and starts itself `--runs` times as a child; the child reports the moments it reached on the system's
// monotonic clock, and the parent counts from the instant it started the child.
//
//   bench_startup [--runs N]          (default 5)
//
// Runs headless by itself (offscreen); under xvfb-run or a desktop pass -platform xcb to see it.
#include <QApplication>
#include <QPointer>
#include <QProcess>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <vector>

#include "AdminAPIClient.h"
#include "AppDelegate.h"
#include "AppWiring.h"
#include "ClientIdentity.h"
#include "ConnectionManager.h"
#include "LocalServer.h"
#include "LoginViewController.h"
#include "MainViewController.h"
#include "ServerConfig.h"
#include "TerminalView.h"
#include "TestSupport.h"

using namespace ostv;
using namespace ostv::test;

namespace {

// Nanoseconds on CLOCK_MONOTONIC: the same clock in every process of the machine.
long long monotonicNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// Notes the first paint of a widget.
class FirstPaint : public QObject {
public:
    long long at = 0;
    bool eventFilter(QObject* o, QEvent* e) override {
        if (e->type() == QEvent::Paint && at == 0) at = monotonicNs();
        return QObject::eventFilter(o, e);
    }
};

// The child: one start of the application. Prints "login <ns>" and "page <ns>".
int child(int argc, char** argv) {
    prepareEnvironment();
    QCoreApplication::setOrganizationName("Ostvarren");
    QCoreApplication::setApplicationName("Ostvarren");
    QApplication qapp(argc, argv);
    isolateSettings();
    SecretStore::useFileStoreOnlyForTesting(true, makeTempDir("startup") + "/secrets.json");
    ServerConfig::setString(SettingsKey::serverHost, qEnvironmentVariable("OSTV_BENCH_HOST"));
    ServerConfig::setInteger(SettingsKey::serverQuicPort, qEnvironmentVariableIntValue("OSTV_BENCH_QUIC_PORT"));
    ServerConfig::setInteger(SettingsKey::adminServerPort, qEnvironmentVariableIntValue("OSTV_BENCH_ADMIN_PORT"));

    AppDelegate app;
    wireApplication(app);
    FirstPaint paint;
    app.applicationDidFinishLaunching();
    auto* login = qobject_cast<LoginViewController*>(app.currentScreen());
    if (!login) {
        std::fprintf(stderr, "bench_startup: no login screen\n");
        return 1;
    }
    login->installEventFilter(&paint);
    if (!waitUntil([&] { return paint.at != 0; }, 30000)) {
        std::fprintf(stderr, "bench_startup: the login screen was never painted\n");
        return 1;
    }
    std::printf("login %lld\n", paint.at);

    // Signs in at once (the stored defaults fill the fields), then waits for the terminal page.
    const long long clicked = monotonicNs();
    login->onLoginClicked();
    QPointer<MainViewController> workspace;
    const bool ready = waitUntil(
        [&] {
            workspace = qobject_cast<MainViewController*>(app.currentScreen());
            return workspace && workspace->terminalView && workspace->terminalView->isWebViewReady;
        },
        60000);
    if (!ready) {
        std::fprintf(stderr, "bench_startup: no ready terminal page after signing in\n");
        return 1;
    }
    std::printf("signin %lld\npage %lld\n", clicked, monotonicNs());
    std::fflush(stdout);
    ConnectionManager::shared().disconnect();
    AdminAPIClient::shared().resetSession();
    SecretStore::useFileStoreOnlyForTesting(false);
    return 0;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

int parent(int argc, char** argv) {
    QCoreApplication qapp(argc, argv);
    int runs = 5;
    const QStringList args = QCoreApplication::arguments().mid(1);
    for (qsizetype i = 0; i < args.size(); ++i) {
        bool ok = false;
        if (args[i] == "--runs" && i + 1 < args.size()) runs = args[++i].toInt(&ok);
        if (!ok || runs < 1 || runs > 100) {
            std::fprintf(stderr, "usage: bench_startup [--runs N]   (1 to 100, default 5)\n");
            return 2;
        }
    }
    prepareEnvironment();
    LocalServer server(QStringList{"--agents", "1"});
    if (!server.start()) {
        std::fprintf(stderr, "bench_startup: the local server did not start: %s\n",
                     server.errorString().toLocal8Bit().constData());
        return 1;
    }
    std::vector<double> toLogin, toPage, signInToPage;
    for (int run = 0; run < runs; ++run) {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("OSTV_BENCH_HOST", server.host());
        env.insert("OSTV_BENCH_QUIC_PORT", QString::number(server.quicPort()));
        env.insert("OSTV_BENCH_ADMIN_PORT", QString::number(server.adminPort()));
        p.setProcessEnvironment(env);
        p.setProcessChannelMode(QProcess::SeparateChannels);
        const long long started = monotonicNs();
        p.start(QCoreApplication::applicationFilePath(), {"--child"});
        if (!p.waitForFinished(120000) || p.exitCode() != 0) {
            std::fprintf(stderr, "bench_startup: run %d failed:\n%s\n", run + 1, p.readAllStandardError().constData());
            return 1;
        }
        long long login = 0, signin = 0, page = 0;
        for (const QByteArray& line : p.readAllStandardOutput().split('\n')) {
            const QList<QByteArray> f = line.trimmed().split(' ');
            if (f.size() != 2) continue;
            if (f[0] == "login") login = f[1].toLongLong();
            if (f[0] == "signin") signin = f[1].toLongLong();
            if (f[0] == "page") page = f[1].toLongLong();
        }
        if (!login || !signin || !page) {
            std::fprintf(stderr, "bench_startup: run %d reported no figures\n", run + 1);
            return 1;
        }
        toLogin.push_back((login - started) / 1e6);
        signInToPage.push_back((page - signin) / 1e6);
        // What a user who signs in at once waits in all: start to login, then sign-in to the page.
        toPage.push_back((login - started + page - signin) / 1e6);
    }
    std::printf("start-up over %d fresh processes (median; first run in brackets)\n", runs);
    std::printf("  start to login screen painted     %7.0f ms  (%.0f)\n", median(toLogin), toLogin.front());
    std::printf("  sign-in to ready terminal page    %7.0f ms  (%.0f)\n", median(signInToPage), signInToPage.front());
    std::printf("  start to ready terminal page      %7.0f ms  (%.0f)\n", median(toPage), toPage.front());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::string_view(argv[i]) == "--child") return child(argc, argv);
    return parent(argc, argv);
}
