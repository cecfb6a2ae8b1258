#include "common/BDAlias.h"
#include "platform/PreferencesDomain.h"
#include "platform/PropertyList.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

// The login window of this system end to end: the host prepares a new user, the session's
// autostart runner (dex) starts the agent, the agent starts the applications.
class TestLoginItems : public QObject
{
    Q_OBJECT

private:
    TestEnvironment m_env;
    QString markers() const { return m_env.root() + QStringLiteral("/markers"); }
    QString listFile() const { return PreferencesDomain(QStringLiteral("loginwindow")).filePath(); }

    // An application bundle whose program notes its pid and display platform on start.
    QString makeApp(const QString &name)
    {
        const QString app = m_env.root() + QStringLiteral("/apps/") + name + QStringLiteral(".app");
        QDir().mkpath(app + QStringLiteral("/Contents/MacOS"));
        PropertyList::writeFile(app + QStringLiteral("/Contents/Info.plist"),
                                QVariantMap{{"CFBundleExecutable", name}, {"CFBundleIdentifier", "test." + name}});
        const QString exe = app + QStringLiteral("/Contents/MacOS/") + name;
        const QString marker = markers() + u'/' + name;
        TestEnvironment::writeFile(exe, QStringLiteral("#!/bin/sh\necho \"$$ ${QT_QPA_PLATFORM:-none}\" > '%1.tmp' && mv '%1.tmp' '%1'\n")
                                            .arg(marker).toUtf8());
        QFile::setPermissions(exe, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                                       | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
        return app;
    }

    // The session's autostart, with no system-wide entries.
    void runAutostart()
    {
        QProcess dex;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_DIRS"), m_env.root() + QStringLiteral("/no-system-config"));
        env.remove(QStringLiteral("QT_QPA_PLATFORM"));
        dex.setProcessEnvironment(env);
        dex.setProcessChannelMode(QProcess::ForwardedChannels);
        dex.start(QStringLiteral("dex"), {QStringLiteral("-a"), QStringLiteral("-w")});
        QVERIFY(dex.waitForFinished(60000));
        QCOMPARE(dex.exitCode(), 0);
    }

    QByteArray marker(const QString &name)
    {
        const QString path = markers() + u'/' + name;
        if (!QTest::qWaitFor([&] { return QFileInfo::exists(path); }, 10000))
            return {};
        return TestEnvironment::readFile(path).trimmed();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QDir().mkpath(markers());
        QDir().mkpath(m_env.root() + QStringLiteral("/no-system-config"));
    }

    void newUserGetsAgentAndEmptyList()
    {
        QProcess host;
        host.start(TestEnvironment::hostExecutable(),
                   {QStringLiteral("--screenshot"), m_env.root() + QStringLiteral("/shot.png")});
        QVERIFY(host.waitForFinished(60000));
        QVERIFY(QFileInfo::exists(m_env.configHome() + QStringLiteral("/autostart/vantor-login-items.desktop")));
        QCOMPARE(TestEnvironment::pythonPlist(listFile()), QStringLiteral("{'AutoLaunchedApplicationDictionary': []}"));

        runAutostart();
        QTest::qWait(300);
        QCOMPARE(QDir(markers()).entryList(QDir::Files), QStringList());
    }

    void listOpensInOrder()
    {
        const QString first = makeApp(QStringLiteral("First"));
        const QString moved = makeApp(QStringLiteral("Moved"));
        const QString hidden = makeApp(QStringLiteral("Hidden"));
        const QByteArray movedAlias = BDAlias::aliasWithPath(moved)->aliasData();
        const QString movedNow = m_env.root() + QStringLiteral("/apps/elsewhere/Moved.app");
        QDir().mkpath(QFileInfo(movedNow).path());
        QVERIFY(QDir().rename(moved, movedNow));
        const QVariantList list{
            QVariantMap{{"Path", first}, {"Hide", false}},
            QVariantMap{{"Path", moved}, {"AliasData", movedAlias}, {"Hide", false}},
            QVariantMap{{"Path", m_env.root() + "/apps/Gone.app"}, {"Hide", false}},
            QVariantMap{{"Path", hidden}, {"Hide", true}},
        };
        QVERIFY(PropertyList::writeFile(listFile(), QVariantMap{{"AutoLaunchedApplicationDictionary", list}}));

        runAutostart();
        const QList<QByteArray> a = marker(QStringLiteral("First")).split(' ');
        const QList<QByteArray> b = marker(QStringLiteral("Moved")).split(' ');
        const QList<QByteArray> c = marker(QStringLiteral("Hidden")).split(' ');
        QCOMPARE(a.size(), 2);
        QCOMPARE(b.size(), 2);
        QCOMPARE(c.size(), 2);
        // Started one after another, so their process ids rise in list order.
        QVERIFY(a[0].toInt() < b[0].toInt());
        QVERIFY(b[0].toInt() < c[0].toInt());
        QCOMPARE(a[1], QByteArray("none"));
        QCOMPARE(c[1], QByteArray("offscreen"));
    }
};

QTEST_GUILESS_MAIN(TestLoginItems)
#include "tst_loginitems.moc"
