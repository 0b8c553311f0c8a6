#include "LocalUser.h"

#include <QProcess>
#include <QProcessEnvironment>

namespace ostv {

QString localLoginName() {
    QProcess p;
    p.start(QStringLiteral("/usr/bin/whoami"), {});
    if (p.waitForFinished(2000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0) {
        const QString name = QString::fromLocal8Bit(p.readAllStandardOutput()).trimmed();
        if (!name.isEmpty()) return name;
    }
    if (p.state() != QProcess::NotRunning) {
        p.kill();
        p.waitForFinished(500);
    }
    const QString user = QProcessEnvironment::systemEnvironment().value(QStringLiteral("USER")).trimmed();
    return user.isEmpty() ? QStringLiteral("user") : user;
}

}  // namespace ostv
