#include <gtest/gtest.h>

#include <QFile>
#include <QRegularExpression>
#include <QTimer>
#include <QUuid>
#include <sys/stat.h>

#include "ClientIdentity.h"
#include "TestSupport.h"

using namespace ostv;

namespace {
const QRegularExpression kCanonical("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$");

// Each test works on its own service name so runs never see each other's items.
QString uniqueService() { return "com.ostvarren.test." + QUuid::createUuid().toString(QUuid::WithoutBraces); }

// What either store promises: add never overwrites, write replaces (binary values too), and another
// account of the same service is a separate item.
void expectAddWriteAndRead(const QString& svc) {
    EXPECT_TRUE(SecretStore::add(svc, "default", "first"));
    EXPECT_FALSE(SecretStore::add(svc, "default", "second"));
    EXPECT_EQ(SecretStore::read(svc, "default"), QByteArray("first"));
    EXPECT_TRUE(SecretStore::write(svc, "adminPassword", "p1"));
    EXPECT_TRUE(SecretStore::write(svc, "adminPassword", QByteArray("\xff\x00z", 3)));
    EXPECT_EQ(SecretStore::read(svc, "adminPassword"), QByteArray("\xff\x00z", 3));
    EXPECT_EQ(SecretStore::read(svc, "default"), QByteArray("first"));
}
}  // namespace

class FileStore : public ::testing::Test {
protected:
    QString path;
    void SetUp() override {
        path = test::makeTempDir("secrets") + "/private/secrets.json";
        SecretStore::useFileStoreOnlyForTesting(true, path);
    }
    void TearDown() override { SecretStore::useFileStoreOnlyForTesting(false); }
};

TEST_F(FileStore, AddNeverOverwritesTheFileIsPrivateACorruptOneIsRepairedAndTheClientIdIsMadeOnce) {
    const QString svc = uniqueService();
    EXPECT_FALSE(SecretStore::read(svc, "default").has_value());
    expectAddWriteAndRead(svc);
    EXPECT_FALSE(SecretStore::usingKeychain());
    struct stat st {};
    ASSERT_EQ(::stat(path.toLocal8Bit().constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    // A corrupt file reads as empty and is repaired by the next add.
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write("{not json") > 0);
    f.close();
    EXPECT_FALSE(SecretStore::read(svc, "default").has_value());
    EXPECT_TRUE(SecretStore::add(svc, "default", "y"));
    EXPECT_EQ(SecretStore::read(svc, "default"), QByteArray("y"));

    // The client id is created once, upper case and canonical.
    EXPECT_FALSE(ClientIdentity::read().has_value());
    const QString id = ClientIdentity::getOrCreate();
    EXPECT_TRUE(kCanonical.match(id).hasMatch()) << id.toStdString();
    EXPECT_EQ(ClientIdentity::read(), id);
    EXPECT_EQ(ClientIdentity::getOrCreate(), id);
    ClientIdentity::save("SOMETHING-ELSE");  // never overwrites
    EXPECT_EQ(ClientIdentity::read(), id);

    // A stored value that is not UTF-8 reads as none, and every creation then makes another id.
    ASSERT_TRUE(SecretStore::remove(ClientIdentity::service, ClientIdentity::account));
    ASSERT_TRUE(SecretStore::add(ClientIdentity::service, ClientIdentity::account, QByteArray("\xff\xfe\xfd", 3)));
    EXPECT_FALSE(ClientIdentity::read().has_value());
    EXPECT_NE(ClientIdentity::getOrCreate(), ClientIdentity::getOrCreate());  // the add fails each time: nothing sticks
}

// Against the real keychain service (the test command starts an unlocked keyring in a private D-Bus session).
TEST(Keychain, AddNeverOverwritesValuesRoundTripAndTheIdentityIsMadeOnce) {
    if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) GTEST_SKIP() << "no D-Bus session: keychain not reachable";
    const QString svc = uniqueService();
    EXPECT_FALSE(SecretStore::read(svc, "default").has_value());
    if (!SecretStore::usingKeychain()) GTEST_SKIP() << "no keychain service answers on this D-Bus session";
    expectAddWriteAndRead(svc);
    EXPECT_TRUE(SecretStore::usingKeychain());
    EXPECT_TRUE(SecretStore::remove(svc, "default"));
    EXPECT_FALSE(SecretStore::read(svc, "default").has_value());
    SecretStore::remove(svc, "adminPassword");
    QFile file(SecretStore::fileStorePath());  // nothing went to the private file
    EXPECT_FALSE(file.open(QIODevice::ReadOnly) && file.readAll().contains(svc.toUtf8()));

    // A keychain call waits in a local event loop, and what runs from there (a message from the relay)
    // may ask for the identity as well: both callers get the one identity that was stored.
    SecretStore::remove(ClientIdentity::service, ClientIdentity::account);
    QString inner;
    bool nested = false;
    QObject scope;  // a timer that never fired dies with the test
    QTimer::singleShot(0, &scope, [&] {
        nested = true;
        inner = ClientIdentity::getOrCreate();
    });
    const QString outer = ClientIdentity::getOrCreate();
    EXPECT_TRUE(nested) << "the keychain's answer did not wait in an event loop";
    EXPECT_EQ(outer.toStdString(), inner.toStdString());
    SecretStore::remove(ClientIdentity::service, ClientIdentity::account);
}
