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
                                QVariantMap{{QStringLiteral("CFBundleExecutable"), name},
                                            {QStringLiteral("CFBundleIdentifier"), QStringLiteral("test.") + name}});
        const QString exe = app + QStringLiteral("/Contents/MacOS/") + name;
        const QString marker = markers() + u'/' + name;
        TestEnvironment::writeFile(
            exe,
            QStringLiteral("#!/bin/sh\necho \"$$ ${QT_QPA_PLATFORM:-none}\" > '%1.tmp' && mv '%1.tmp' '%1'\n")
                .arg(marker)
                .toUtf8());
        QFile::setPermissions(exe,
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                                  | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
        return app;
    }

    QByteArray marker(const QString &name)
    {
        const QString path = markers() + u'/' + name;
        if (!QTest::qWaitFor([&] { return QFileInfo::exists(path); }, 10000))
            return {};
        return TestEnvironment::readFile(path).trimmed();
    }

private Q_SLOTS:
    // Every case starts as a new user the host has just prepared.
    void init()
    {
        QDir(m_env.root() + QStringLiteral("/apps")).removeRecursively();
        QDir(markers()).removeRecursively();
        QDir().mkpath(markers());
        QFile::remove(listFile());
        QFile::remove(m_env.configHome() + QStringLiteral("/autostart/vantor-login-items.desktop"));
        QProcess host;
        host.start(TestEnvironment::hostExecutable(),
                   {QStringLiteral("--screenshot"), m_env.root() + QStringLiteral("/shot.png")});
        QVERIFY(host.waitForFinished(60000));
    }

    void newUserGetsAgentAndEmptyList()
    {
        QVERIFY(QFileInfo::exists(m_env.configHome() + QStringLiteral("/autostart/vantor-login-items.desktop")));
        QCOMPARE(TestEnvironment::pythonPlist(listFile()), QStringLiteral("{'AutoLaunchedApplicationDictionary': []}"));

        QVERIFY(m_env.runAutostart());
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
            QVariantMap{{QStringLiteral("Path"), first}, {QStringLiteral("Hide"), false}},
            QVariantMap{{QStringLiteral("Path"), moved},
                        {QStringLiteral("AliasData"), movedAlias},
                        {QStringLiteral("Hide"), false}},
            QVariantMap{{QStringLiteral("Path"), m_env.root() + QStringLiteral("/apps/Gone.app")},
                        {QStringLiteral("Hide"), false}},
            QVariantMap{{QStringLiteral("Path"), hidden}, {QStringLiteral("Hide"), true}},
        };
        QVERIFY(PropertyList::writeFile(listFile(),
                                        QVariantMap{{QStringLiteral("AutoLaunchedApplicationDictionary"), list}}));

        QVERIFY(m_env.runAutostart());
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
